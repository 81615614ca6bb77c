#include "testing/fake_crypto.h"

#include <algorithm>
#include <array>
#include <unordered_map>

namespace morvik::testing {
namespace {

/// One step of a well-mixing generator: each state gives a different number.
uint64_t mixed(uint64_t& state) {
  state += 0x9E3779B97F4A7C15ULL;
  uint64_t z = state;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

/// A checksum of several texts that distinguishes "ab","c" from "a","bc".
class Checksum {
 public:
  explicit Checksum(uint64_t start) : state_(start) {}
  Checksum& add(std::string_view text) {
    state_ ^= text.size();
    mix();
    for (const char character : text) {
      state_ ^= static_cast<unsigned char>(character);
      mix();
    }
    return *this;
  }
  uint64_t value() const { return state_; }

 private:
  void mix() { state_ = (state_ ^ (state_ >> 32)) * 0x100000001B3ULL + 0x9E3779B9ULL; }
  uint64_t state_;
};

void appendBigEndian(uint64_t number, size_t bytes, std::string& out) {
  for (size_t i = bytes; i > 0; --i)
    out += static_cast<char>(number >> (8 * (i - 1)) & 0xFF);
}

std::string tagOf(std::string_view key_text, std::string_view nonce, std::string_view header, std::string_view text) {
  std::string tag;
  for (const uint64_t start : {uint64_t{1}, uint64_t{2}})
    appendBigEndian(Checksum(start).add(key_text).add(nonce).add(header).add(text).value(), 8, tag);
  return tag;
}

/// Applying it twice restores the text.
std::string scrambled(std::string_view key_text, std::string_view nonce, std::string_view text) {
  uint64_t state = Checksum(3).add(key_text).add(nonce).value();
  std::string out(text);
  uint64_t word = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    if (i % 8 == 0)
      word = mixed(state);
    out[i] = static_cast<char>(static_cast<unsigned char>(out[i]) ^ (word >> (8 * (i % 8)) & 0xFF));
  }
  return out;
}

}  // namespace

std::optional<kit::Error> FakeCipher::encrypt(std::string_view key_text, std::string_view nonce,
                                              std::string_view header, std::string_view plaintext,
                                              std::string& out) const {
  if (refusal_)
    return kit::Error{*refusal_};
  if (nonce.size() != kit::kNonceBytes)
    return kit::Error{"fake cipher: a nonce has 12 bytes, not " + std::to_string(nonce.size())};
  out += scrambled(key_text, nonce, plaintext);
  out += tagOf(key_text, nonce, header, plaintext);
  return std::nullopt;
}

std::optional<kit::Error> FakeCipher::decrypt(std::string_view key_text, std::string_view nonce,
                                              std::string_view header, std::string_view sealed,
                                              std::string& out) const {
  if (nonce.size() != kit::kNonceBytes || sealed.size() < kit::kTagBytes)
    return kit::Error{"fake cipher: nonce or sealed text is too short"};
  const size_t size = sealed.size() - kit::kTagBytes;
  const std::string plaintext = scrambled(key_text, nonce, sealed.substr(0, size));
  if (tagOf(key_text, nonce, header, plaintext) != sealed.substr(size))
    return kit::Error{"fake cipher: the key is wrong or the sealed text was changed"};
  out += plaintext;
  return std::nullopt;
}

// The format: a mark, then tokens, then a checksum of the plain text (8 bytes). A token is either a count of literal
// bytes (1 to 127) and these bytes, or 128 plus a length (4 to 131 bytes, minus 4) and a distance back in two bytes.

namespace {

constexpr char kMark = 'Z';
constexpr size_t kChecksumBytes = 8;
constexpr size_t kMaxLiterals = 127;
constexpr size_t kMinMatch = 4;
constexpr size_t kMaxMatch = kMinMatch + 127;
constexpr size_t kMaxDistance = 65'535;

std::string checksumOf(std::string_view plain) {
  std::string checksum;
  appendBigEndian(Checksum(4).add(plain).value(), kChecksumBytes, checksum);
  return checksum;
}

void appendLiterals(std::string_view literals, std::string& out) {
  while (!literals.empty()) {
    const size_t count = std::min(literals.size(), kMaxLiterals);
    out += static_cast<char>(count);
    out += literals.substr(0, count);
    literals.remove_prefix(count);
  }
}

size_t matchLength(std::string_view plain, size_t earlier, size_t here) {
  size_t length = 0;
  while (length < kMaxMatch && here + length < plain.size() && plain[earlier + length] == plain[here + length])
    ++length;
  return length;
}

unsigned byteAt(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

/// Appends what the tokens decode to; false if they are damaged or decode to more than `max_bytes`.
bool appendInflated(std::string_view tokens, size_t max_bytes, std::string& plain) {
  size_t at = 0;
  while (at < tokens.size()) {
    const size_t token = byteAt(tokens, at++);
    if (token == 0)
      return false;
    if (token <= kMaxLiterals) {
      if (tokens.size() - at < token || max_bytes - plain.size() < token)
        return false;
      plain += tokens.substr(at, token);
      at += token;
      continue;
    }
    if (tokens.size() - at < 2)
      return false;
    const size_t length = token - 128 + kMinMatch;
    const size_t distance = byteAt(tokens, at) * 256 + byteAt(tokens, at + 1);
    at += 2;
    if (distance == 0 || distance > plain.size() || max_bytes - plain.size() < length)
      return false;
    for (size_t i = 0; i < length; ++i)
      plain += plain[plain.size() - distance];
  }
  return true;
}

}  // namespace

std::optional<kit::Error> FakeCompressor::deflate(std::string_view plain, std::string& out) const {
  out += kMark;
  std::unordered_map<std::string_view, size_t> last_seen;
  size_t literals_from = 0;
  size_t here = 0;
  while (here + kMinMatch <= plain.size()) {
    const auto [seen, is_new] = last_seen.emplace(plain.substr(here, kMinMatch), here);
    const size_t earlier = seen->second;
    seen->second = here;
    if (is_new || here - earlier > kMaxDistance) {
      ++here;
      continue;
    }
    const size_t length = matchLength(plain, earlier, here);
    appendLiterals(plain.substr(literals_from, here - literals_from), out);
    out += static_cast<char>(128 + length - kMinMatch);
    appendBigEndian(here - earlier, 2, out);
    here += length;
    literals_from = here;
  }
  appendLiterals(plain.substr(literals_from), out);
  out += checksumOf(plain);
  return std::nullopt;
}

std::optional<kit::Error> FakeCompressor::inflate(std::string_view deflated, size_t max_bytes, std::string& out) const {
  if (deflated.size() < 1 + kChecksumBytes || deflated.front() != kMark)
    return kit::Error{"fake compressor: this is nothing that it made"};
  const std::string_view tokens = deflated.substr(1, deflated.size() - 1 - kChecksumBytes);
  std::string plain;
  if (!appendInflated(tokens, max_bytes, plain))
    return kit::Error{"fake compressor: damaged, or more than " + std::to_string(max_bytes) + " bytes"};
  if (checksumOf(plain) != deflated.substr(deflated.size() - kChecksumBytes))
    return kit::Error{"fake compressor: the checksum does not fit"};
  out += plain;
  return std::nullopt;
}

// ------------------------------------------------------------------------------------------------------------- random

void SeededRandom::fill(std::span<uint8_t> bytes) {
  for (size_t i = 0; i < bytes.size(); i += 8) {
    const uint64_t word = next();
    for (size_t j = i; j < std::min(i + 8, bytes.size()); ++j)
      bytes[j] = static_cast<uint8_t>(word >> (8 * (j - i)));
  }
}

uint64_t SeededRandom::next() {
  const std::lock_guard lock(mutex_);
  return mixed(state_);
}

}  // namespace morvik::testing
