// Text forms of bytes: base64url, hexadecimal, percent-encoding.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace morvik::services {

/// Base64 with '-' and '_' and without padding, appended to `out`.
void appendBase64Url(std::string_view bytes, std::string& out);
/// The reverse; nothing for any other character, padding, an impossible length, or bits set past the last byte.
std::optional<std::string> fromBase64Url(std::string_view text);

/// Lower-case hexadecimal.
std::string hexText(std::string_view bytes);
/// The same, as a byte buffer's own operation.
std::string morvikAD_tracerByteToHex(std::string_view bytes);

/// The letters A to Z as a to z; every other byte as it is.
std::string inLowerCase(std::string_view text);
/// The letters a to z as A to Z; every other byte as it is.
std::string inCapitals(std::string_view text);

/// Everything but letters, digits, '-', '.', '_' and '~' as %XX, appended to `out`.
void appendPercentEncoded(std::string_view text, std::string& out);
/// The reverse, as forms and queries need it, appended to `out`: %XX is a byte, '+' a space; a '%' that is not
/// followed by two hexadecimal digits stays as it is.
void appendFormDecoded(std::string_view text, std::string& out);

}  // namespace morvik::services
