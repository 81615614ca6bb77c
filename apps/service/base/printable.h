// Makes untrusted text safe for a log and a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace morvik_service {

/// At most this many bytes of a client's text are printed by default.
inline constexpr std::size_t kMaxPrintedBytes = 200;

/// `text` as one line: control characters and bytes that are not UTF-8 become question marks. Text longer than
/// `max_bytes` is cut, never within a character, and ends in "...".
std::string printable(std::string_view text, std::size_t max_bytes = kMaxPrintedBytes);

/// The same as one word: blanks become question marks too.
std::string printableWord(std::string_view text);

}  // namespace morvik_service
