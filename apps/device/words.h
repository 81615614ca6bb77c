// A line of input as words: blanks part them, double quotes keep them together.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvik_device {

/// `text` without the blanks and tabs at its ends.
std::string_view trimmed(std::string_view text);

/// Cuts the first unquoted word off the front of `text`, and the blanks around it; "" when there is none.
std::string_view takeBareWord(std::string_view& text);

/// Cuts the first word off the front of `text`, which holds one, and the blanks around it. Returns what is wrong and
/// how to mend it, or nothing.
std::optional<std::string> takeWord(std::string_view& text, std::string& word);

/// Appends the words of `text` to `words`. A word with blanks stands in double quotes, inside which \" is a quote and
/// \\ a backslash; "" is an empty word. Returns what is wrong and how to mend it, or nothing; `words` then holds what
/// was read before the mistake.
std::optional<std::string> splitWords(std::string_view text, std::vector<std::string>& words);

}  // namespace morvik_device
