// HMAC-SHA-256 and what is made of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kit/crypto.h"
#include "kit/error.h"

namespace morvik::host {

inline constexpr size_t kSha256Bytes = 32;

/// The lower-case hexadecimal text (64 characters) of HMAC-SHA-256 over `message`. The key may be empty. Any thread.
/// This is how a persistent device id becomes the hashed PUID, with the app key as key.
std::string hmacSha256Hex(std::string_view key, std::string_view message);

/// The same, for who is handed a hash. One object serves every thread.
class OpensslKeyedHash final : public kit::KeyedHash {
 public:
  std::string hmacSha256Hex(std::string_view key, std::string_view message) const override {
    return host::hmacSha256Hex(key, message);
  }
};

/// HKDF-SHA-256 of RFC 5869: fills `out` (1 to 255 * 32 bytes) from the secret, which must not be empty. Any thread.
std::optional<kit::Error> hkdfSha256(std::string_view secret, std::string_view salt, std::string_view info,
                                     std::span<uint8_t> out);

}  // namespace morvik::host
