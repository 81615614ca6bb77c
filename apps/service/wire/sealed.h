// Opens sealed payloads. This is the second implementation of the wire format on purpose: it shares no line with the
// device's, so a mistake there cannot be answered by the same mistake here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace morvik_service {

/// Layout: version byte, flags byte, nonce, ciphertext, tag. The first two bytes are authenticated with the ciphertext.
inline constexpr std::uint8_t kSealedVersion = 1;
inline constexpr std::uint8_t kFlagDeflated = 0x01;
inline constexpr std::size_t kSealedHeaderBytes = 2;
inline constexpr std::size_t kSealedNonceBytes = 12;
inline constexpr std::size_t kSealedTagBytes = 16;
inline constexpr std::size_t kSealedKeyBytes = 32;
inline constexpr std::string_view kSealedKeyInfo = "morvik sealed v1";

/// The 32-byte AES key that belongs to a key text: HKDF-SHA-256 of its UTF-8 bytes, no salt, info kSealedKeyInfo.
/// `key_text` must not be empty.
std::string deriveSealingKey(std::string_view key_text);

/// The plaintext of `sealed` (raw bytes), inflated when its flag says so. Throws Refusal: 400 when the bytes are too
/// few, of another version, carry a flag that is not of `known_flags` or a broken stream; 403 when the key does not
/// open them (a wrong key and changed bytes cannot be distinguished); 413 when the payload inflates beyond
/// kMaxInflatedBytes.
std::string openSealed(std::string_view sealed, std::string_view key_text, std::uint8_t known_flags = kFlagDeflated);

}  // namespace morvik_service
