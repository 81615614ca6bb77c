// HMAC-SHA-256 and what is derived from it.
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

/// HMAC-SHA-256 over `message` as lower-case hexadecimal text (64 characters). The key may be empty. Any thread. With
/// the app key as key, this turns a persistent device id into the hashed PUID.
std::string hmacSha256Hex(std::string_view key, std::string_view message);

/// The same, as a port. One object serves all threads.
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
