// Seals payloads for the tests, the way a device does.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvik_service::test {

struct Sealing {
  std::uint8_t version = 1;
  std::uint8_t flags = 0;
  std::string nonce = std::string(12, 'n');
};

// Seals `body` as it is; the caller deflates it if needed.
std::string seal(std::string_view body, std::string_view key_text, const Sealing& sealing = {});

// A zlib stream of `plain`.
std::string deflated(std::string_view plain);

std::string fromHex(std::string_view hex);
std::string toHex(std::string_view bytes);

}  // namespace morvik_service::test
