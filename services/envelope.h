// The encrypted parameter envelope and its sealing. docs/protocol.md has the layout, byte for byte.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "kit/crypto.h"
#include "kit/error.h"
#include "kit/stop_request.h"
#include "kit/value.h"

namespace morvik::services {

/// First byte of everything sealed.
inline constexpr char kSealedVersion = 1;
/// Bit 0 of the flags byte: the plaintext was deflated before it was encrypted.
inline constexpr char kSealedFlagDeflated = 1;
inline constexpr size_t kSealedHeaderBytes = 2;

/// What sealing needs. References only.
struct SealingTools {
  const kit::Cipher& cipher;
  const kit::Compressor& compressor;
  kit::Random& random;
  const kit::StopRequest* stop = nullptr;  ///< aborts the writing of a long payload, with an error; may be null
};

enum class Compression { kWhenShorter, kNever };

/// Seals `plaintext` under a key derived from `key_text`: version, flags, fresh nonce, ciphertext, tag.
std::variant<std::string, kit::Error> seal(const SealingTools& tools, std::string_view key_text,
                                           std::string_view plaintext, Compression compression);

/// seal() without compression, as a byte buffer's own operation.
std::variant<std::string, kit::Error> morvikAD_AES256EncryptionWithKey(const SealingTools& tools,
                                                                       std::string_view bytes,
                                                                       std::string_view key_text);

/// Opens what seal() made. Errors: too short, unknown version or flags, wrong key, any changed bit, more than
/// `max_bytes` after inflating.
std::variant<std::string, kit::Error> openSealed(const SealingTools& tools, std::string_view key_text,
                                                 std::string_view sealed, size_t max_bytes);

/// The parameters dictionary of an encrypted request: "k" the app key, "j" the payload's JSON, sealed, in base64url.
std::variant<kit::Value, kit::Error> makeEnvelope(const SealingTools& tools, std::string_view app_key,
                                                  const kit::Value& payload, std::string_view key_text);

}  // namespace morvik::services
