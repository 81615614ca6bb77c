// Cipher, compressor, keyed hash and random numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kit/error.h"

namespace morvik::kit {

inline constexpr size_t kNonceBytes = 12;
inline constexpr size_t kTagBytes = 16;

/// AES-256-GCM with a key derived from a key text: HKDF-SHA-256, no salt, info "morvik sealed v1", 32 bytes. Any
/// thread; blocks only for the computation.
class Cipher {
 public:
  virtual ~Cipher() = default;
  /// Appends ciphertext and 16-byte tag to `out`. `nonce` has 12 bytes and is never reused with a key; `header` is
  /// authenticated and not encrypted. After an error `out` is unchanged.
  virtual std::optional<Error> encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                       std::string_view plaintext, std::string& out) const = 0;
  /// The reverse: `sealed` is ciphertext and tag. A wrong key or one changed bit is an error; `out` is then unchanged.
  virtual std::optional<Error> decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                       std::string_view sealed, std::string& out) const = 0;
};

/// Deflate in zlib format. Any thread; blocks only for the computation.
class Compressor {
 public:
  virtual ~Compressor() = default;
  /// Appends the deflated bytes to `out`; after an error `out` is unchanged.
  virtual std::optional<Error> deflate(std::string_view plain, std::string& out) const = 0;
  /// Appends the inflated bytes. Errors: more than `max_bytes` of them, damaged or trailing bytes.
  virtual std::optional<Error> inflate(std::string_view deflated, size_t max_bytes, std::string& out) const = 0;
};

/// HMAC-SHA-256. Any thread; blocks only for the computation.
class KeyedHash {
 public:
  virtual ~KeyedHash() = default;
  /// The hash over `message` as lower-case hexadecimal text (64 characters). The key may be empty.
  virtual std::string hmacSha256Hex(std::string_view key, std::string_view message) const = 0;
};

/// Unpredictable bytes. Any thread.
class Random {
 public:
  virtual ~Random() = default;
  virtual void fill(std::span<uint8_t> bytes) = 0;
};

}  // namespace morvik::kit
