// Cipher, compressor and random numbers for tests. Reversible and deterministic, and NOT cryptography: anyone can read
// what they seal, without a key.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "kit/crypto.h"

namespace morvik::testing {

/// Like a real one, rejects a wrong key, nonce or header and any changed bit (by a plain checksum over all of them).
/// Any thread; nothing blocks.
class FakeCipher : public kit::Cipher {
 public:
  std::optional<kit::Error> encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view plaintext, std::string& out) const override;
  std::optional<kit::Error> decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view sealed, std::string& out) const override;

  /// The error that encrypt() returns from now on; nullopt: it encrypts. Not while another thread encrypts.
  void refuseToEncrypt(std::optional<std::string> error) { refusal_ = std::move(error); }

 private:
  std::optional<std::string> refusal_;
};

/// Shortens repetitive text (JSON, for example) and lengthens everything else a little; rejects damaged and trailing
/// bytes. Any thread; nothing blocks.
class FakeCompressor : public kit::Compressor {
 public:
  std::optional<kit::Error> deflate(std::string_view plain, std::string& out) const override;
  std::optional<kit::Error> inflate(std::string_view deflated, size_t max_bytes, std::string& out) const override;
};

/// The same seed gives the same bytes. Any thread; nothing blocks.
class SeededRandom : public kit::Random {
 public:
  explicit SeededRandom(uint64_t seed = 1) : state_(seed) {}
  void fill(std::span<uint8_t> bytes) override;
  /// The next 64 bits.
  uint64_t next();

 private:
  std::mutex mutex_;
  uint64_t state_;
};

}  // namespace morvik::testing
