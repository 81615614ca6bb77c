#include "apps/service/base/base64url.h"

#include <array>
#include <cstdint>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::uint8_t kNoDigit = 0xff;
constexpr unsigned kBase64DigitBits = 6;
constexpr unsigned kByteBits = 8;

std::array<std::uint8_t, 256> makeDigits() {
  std::array<std::uint8_t, 256> digits;
  digits.fill(kNoDigit);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return digits;
}

Refusal badBase64(const std::string& problem) {
  return Refusal(400, "bad base64url: " + problem, "form parameter j",
                 "send the sealed bytes in unpadded base64url (A-Z a-z 0-9 - _)");
}

}  // namespace

std::string decodeBase64Url(std::string_view text) {
  static const std::array<std::uint8_t, 256> digits = makeDigits();
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t pending = 0;
  unsigned pending_bits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::uint8_t digit = digits[static_cast<unsigned char>(text[i])];
    if (digit == kNoDigit)
      throw badBase64("character " + std::to_string(i) + " is not of the alphabet");
    pending = (pending << kBase64DigitBits) | digit;
    pending_bits += kBase64DigitBits;
    if (pending_bits >= kByteBits) {
      pending_bits -= kByteBits;
      bytes.push_back(static_cast<char>((pending >> pending_bits) & 0xffU));
      pending &= (1U << pending_bits) - 1U;
    }
  }
  if (pending_bits == kBase64DigitBits)
    throw badBase64("the text ends in the middle of a byte");
  if (pending != 0)
    throw badBase64("the last character carries bits that belong to no byte");
  return bytes;
}

std::string encodeBase64Url(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() * 4 + 2) / 3);
  std::uint32_t pending = 0;
  unsigned pending_bits = 0;
  for (const char c : bytes) {
    pending = (pending << kByteBits) | static_cast<unsigned char>(c);
    pending_bits += kByteBits;
    while (pending_bits >= kBase64DigitBits) {
      pending_bits -= kBase64DigitBits;
      text.push_back(kAlphabet[(pending >> pending_bits) & 0x3fU]);
    }
    pending &= (1U << pending_bits) - 1U;
  }
  if (pending_bits > 0)
    text.push_back(kAlphabet[(pending << (kBase64DigitBits - pending_bits)) & 0x3fU]);
  return text;
}

}  // namespace morvik_service
