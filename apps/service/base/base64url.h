// Unpadded base64url, the text form of sealed bytes inside a form body.
#pragma once

#include <string>
#include <string_view>

namespace morvik_service {

/// Decodes `text`. Strict: only A-Z a-z 0-9 - _, no padding, no blanks, unused bits zero, so that every byte string has
/// exactly one text. Throws Refusal 400 that names the offending character's place.
std::string decodeBase64Url(std::string_view text);

/// The same alphabet, the other way; used to show bodies that are not text.
std::string encodeBase64Url(std::string_view bytes);

}  // namespace morvik_service
