#include "services/text_codes.h"

#include <array>
#include <cstdint>

namespace morvik::services {
namespace {

constexpr std::string_view kBase64Url = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view kHexLower = "0123456789abcdef";
constexpr std::string_view kHexUpper = "0123456789ABCDEF";
constexpr uint8_t kForeign = 0xFF;

constexpr std::array<uint8_t, 256> makeReverse() {
  std::array<uint8_t, 256> reverse{};
  for (auto& entry : reverse)
    entry = kForeign;
  for (size_t i = 0; i < kBase64Url.size(); ++i) {
    reverse[static_cast<unsigned char>(kBase64Url[i])] = static_cast<uint8_t>(i);
  }
  return reverse;
}
constexpr std::array<uint8_t, 256> kReverse = makeReverse();

constexpr std::array<bool, 256> makeUnreserved() {
  std::array<bool, 256> unreserved{};
  for (const char c : kBase64Url)
    unreserved[static_cast<unsigned char>(c)] = true;
  unreserved['.'] = true;
  unreserved['~'] = true;
  return unreserved;
}
constexpr std::array<bool, 256> kUnreserved = makeUnreserved();

int hexDigit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

/// The byte of a percent-escape at the start of `text`; -1 when there is none.
int escapedByte(std::string_view text) {
  if (text.size() < 3 || text[0] != '%')
    return -1;
  const int high = hexDigit(text[1]);
  const int low = hexDigit(text[2]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace

void appendBase64Url(std::string_view bytes, std::string& out) {
  const size_t start = out.size();
  out.resize(start + (bytes.size() * 4 + 2) / 3);
  char* to = out.data() + start;
  const auto* from = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t rest = bytes.size();
  for (; rest >= 3; rest -= 3, from += 3) {
    const uint32_t group = (uint32_t{from[0]} << 16) | (uint32_t{from[1]} << 8) | from[2];
    *to++ = kBase64Url[group >> 18];
    *to++ = kBase64Url[(group >> 12) & 63];
    *to++ = kBase64Url[(group >> 6) & 63];
    *to++ = kBase64Url[group & 63];
  }
  if (rest == 0)
    return;
  const uint32_t group = (uint32_t{from[0]} << 16) | (rest == 2 ? uint32_t{from[1]} << 8 : 0);
  *to++ = kBase64Url[group >> 18];
  *to++ = kBase64Url[(group >> 12) & 63];
  if (rest == 2)
    *to = kBase64Url[(group >> 6) & 63];
}

std::optional<std::string> fromBase64Url(std::string_view text) {
  if (text.size() % 4 == 1)
    return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() * 3 / 4);
  uint32_t group = 0;
  int bits = 0;
  for (const char c : text) {
    const uint8_t value = kReverse[static_cast<unsigned char>(c)];
    if (value == kForeign)
      return std::nullopt;
    group = (group << 6) | value;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>((group >> bits) & 0xFF);
      group &= (1U << bits) - 1;
    }
  }
  if (group != 0)
    return std::nullopt;
  return bytes;
}

std::string hexText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kHexLower[byte >> 4];
    text += kHexLower[byte & 15];
  }
  return text;
}

std::string morvikAD_tracerByteToHex(std::string_view bytes) {
  return hexText(bytes);
}

void appendPercentEncoded(std::string_view text, std::string& out) {
  while (!text.empty()) {
    size_t run = 0;
    while (run < text.size() && kUnreserved[static_cast<unsigned char>(text[run])])
      ++run;
    out += text.substr(0, run);
    text.remove_prefix(run);
    if (text.empty())
      return;
    const auto byte = static_cast<unsigned char>(text.front());
    out += '%';
    out += kHexUpper[byte >> 4];
    out += kHexUpper[byte & 15];
    text.remove_prefix(1);
  }
}

std::string inLowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

std::string inCapitals(std::string_view text) {
  std::string capitals(text);
  for (char& c : capitals) {
    if (c >= 'a' && c <= 'z')
      c = static_cast<char>(c - 'a' + 'A');
  }
  return capitals;
}

void appendFormDecoded(std::string_view text, std::string& out) {
  out.reserve(out.size() + text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (const int byte = escapedByte(text.substr(i)); byte >= 0) {
      out += static_cast<char>(byte);
      i += 2;
    } else {
      out += text[i];
    }
  }
}

}  // namespace morvik::services
