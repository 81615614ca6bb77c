// Bytes as hexadecimal text, for vectors.
#pragma once

#include <string>
#include <string_view>

namespace morvik::test {

inline std::string fromHex(std::string_view hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  return bytes;
}

inline std::string toHex(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string hex;
  for (const char byte : bytes) {
    hex += digits[static_cast<unsigned char>(byte) >> 4];
    hex += digits[static_cast<unsigned char>(byte) & 15];
  }
  return hex;
}

}  // namespace morvik::test
