// Whole texts as numbers.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace morvik_device::scenario {

/// The whole text as a number; nothing for any other text or a number out of range.
template <class Number>
std::optional<Number> wholeText(std::string_view text) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

}  // namespace morvik_device::scenario
