#include "apps/device/words.h"

namespace morvik_device {
namespace {

constexpr std::string_view kBlanks = " \t";

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// `text` begins behind the opening quote; what is left of it then begins behind the closing one.
std::optional<std::string> takeQuoted(std::string_view& text, std::string& word) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') {
      text.remove_prefix(at + 1);
      return std::nullopt;
    }
    const bool escapes = text[at] == '\\' && at + 1 < text.size() && (text[at + 1] == '"' || text[at + 1] == '\\');
    if (escapes)
      ++at;
    word.push_back(text[at]);
  }
  return "a double quote is opened and not closed; close it, or write \\\" inside quotes for a quote itself";
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view takeBareWord(std::string_view& text) {
  text = trimmed(text);
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text = trimmed(text.substr(word.size()));
  return word;
}

std::optional<std::string> takeWord(std::string_view& text, std::string& word) {
  text = trimmed(text);
  if (text.front() != '"') {
    word = std::string(takeBareWord(text));
    if (word.find('"') == std::string::npos)
      return std::nullopt;
    return "a double quote stands inside a word; put the whole word in double quotes, with \\\" for a quote itself";
  }
  text.remove_prefix(1);
  if (auto mistake = takeQuoted(text, word))
    return mistake;
  if (!text.empty() && !isBlank(text.front()))
    return "a closing double quote is followed by more of the word; put a blank behind it";
  text = trimmed(text);
  return std::nullopt;
}

std::optional<std::string> splitWords(std::string_view text, std::vector<std::string>& words) {
  for (text = trimmed(text); !text.empty(); text = trimmed(text)) {
    std::string word;
    if (auto mistake = takeWord(text, word))
      return mistake;
    words.push_back(std::move(word));
  }
  return std::nullopt;
}

}  // namespace morvik_device
