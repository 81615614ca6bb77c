// Splits a line of input into words at blanks; double quotes keep a word together.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvik_device {

/// `text` without the blanks and tabs at its ends.
std::string_view trimmed(std::string_view text);

/// Removes the first unquoted word, and the blanks around it, from `text` and returns it; "" if there is none.
std::string_view takeBareWord(std::string_view& text);

/// Removes the first word, and the blanks around it, from `text`, which has one. Returns what is wrong and how to fix
/// it, or nothing.
std::optional<std::string> takeWord(std::string_view& text, std::string& word);

/// Appends the words of `text` to `words`. A word with blanks is put in double quotes, inside which \" is a quote and
/// \\ a backslash; "" is an empty word. Returns what is wrong and how to fix it (`words` then holds the words before
/// the mistake), or nothing.
std::optional<std::string> splitWords(std::string_view text, std::vector<std::string>& words);

}  // namespace morvik_device
