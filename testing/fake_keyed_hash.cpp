#include "testing/fake_keyed_hash.h"

#include <cstdint>

namespace morvik::testing {
namespace {

/// FNV-1a. The length comes first, which distinguishes "ab","c" from "a","bc".
uint64_t mixed(uint64_t hash, std::string_view text) {
  constexpr uint64_t kPrime = 0x100000001B3ULL;
  hash = (hash ^ text.size()) * kPrime;
  for (const char character : text)
    hash = (hash ^ static_cast<unsigned char>(character)) * kPrime;
  return hash;
}

}  // namespace

std::string FakeKeyedHash::hmacSha256Hex(std::string_view key, std::string_view message) const {
  constexpr std::string_view kDigits = "0123456789abcdef";
  constexpr uint64_t kBasis = 0xCBF29CE484222325ULL;
  std::string out;
  for (uint64_t part = 0; part < 4; ++part) {
    const uint64_t hash = mixed(mixed(kBasis + part, key), message);
    for (int shift = 60; shift >= 0; shift -= 4)
      out += kDigits[hash >> shift & 0xF];
  }
  return out;
}

}  // namespace morvik::testing
