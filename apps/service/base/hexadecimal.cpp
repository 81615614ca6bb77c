#include "apps/service/base/hexadecimal.h"

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";
constexpr unsigned kHexDigitBits = 4;
constexpr unsigned kDigitMask = 0x0f;

Refusal badHexadecimal(const std::string& problem) {
  return Refusal(400, "bad hexadecimal: " + problem, "form parameter j",
                 "send the sealed bytes as pairs of lower-case digits (0-9 a-f)");
}

}  // namespace

int hexadecimalDigit(char c) {
  const std::size_t digit = kDigits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
  return digit == std::string_view::npos ? -1 : static_cast<int>(digit);
}

std::string decodeHexadecimal(std::string_view text) {
  std::string bytes;
  bytes.reserve((text.size() + 1) / 2);
  int high = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int digit = hexadecimalDigit(text[i]);
    if (digit < 0 || (text[i] >= 'A' && text[i] <= 'F'))
      throw badHexadecimal("character " + std::to_string(i) + " is not a lower-case digit");
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<char>((high << kHexDigitBits) | digit));
      high = -1;
    }
  }
  if (high >= 0)
    throw badHexadecimal("the text ends in the middle of a byte");
  return bytes;
}

std::string encodeHexadecimal(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char c : bytes) {
    text.push_back(kDigits[static_cast<unsigned char>(c) >> kHexDigitBits]);
    text.push_back(kDigits[static_cast<unsigned char>(c) & kDigitMask]);
  }
  return text;
}

}  // namespace morvik_service
