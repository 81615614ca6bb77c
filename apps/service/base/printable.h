// Texts of strangers, made fit for a log and for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace morvik_service {

/// At most this many bytes of a client's text are printed by default.
inline constexpr std::size_t kMaxPrintedBytes = 200;

/// `text` on one line that says nothing to a terminal: control characters, and bytes that are no UTF-8, stand as
/// question marks. What is longer than `max_bytes` is cut, never within a character, and ends in "...".
std::string printable(std::string_view text, std::size_t max_bytes = kMaxPrintedBytes);

/// The same as one word: blanks are question marks too.
std::string printableWord(std::string_view text);

}  // namespace morvik_service
