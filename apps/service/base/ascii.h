// ASCII letters, independent of the locale.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace morvik_service {

constexpr char lowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool equalWithoutCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowerAscii(x) == lowerAscii(y); });
}

inline std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lowerAscii);
  return result;
}

/// `lower_needle` must be in lower case.
inline bool containsWithoutCase(std::string_view text, std::string_view lower_needle) {
  return std::search(text.begin(), text.end(), lower_needle.begin(), lower_needle.end(),
                     [](char x, char y) { return lowerAscii(x) == y; }) != text.end();
}

}  // namespace morvik_service
