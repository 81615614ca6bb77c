// Bytes as hexadecimal text.
#pragma once

#include <string>
#include <string_view>

namespace morvik_service {

/// The value of a hexadecimal digit of either case, or -1.
int hexadecimalDigit(char c);

/// Decodes `text`. Strict: pairs of 0-9 a-f, so that every byte string has exactly one text. Throws Refusal 400 that
/// names the offending character's place.
std::string decodeHexadecimal(std::string_view text);

/// The same digits, the other way.
std::string encodeHexadecimal(std::string_view bytes);

}  // namespace morvik_service
