// Whether a value looks as a scenario says. A pattern says what must be there and leaves the rest open.
#pragma once

#include <optional>
#include <string>

#include "kit/value.h"

namespace morvik_device::scenario {

/// An object holds every member that the pattern names, each as its pattern says; null is met by a member that is
/// missing or null. A list holds, in this order, an element for each of the pattern's; others may stand between. An
/// empty list or object is met by an empty one alone. A number equals one of the same value; text equals its text, and
/// a date's text in ISO 8601. Returns where and why `value` does not fit, or nothing.
std::optional<std::string> mismatch(const morvik::kit::Value& pattern, const morvik::kit::Value& value);

inline bool fits(const morvik::kit::Value& pattern, const morvik::kit::Value& value) {
  return !mismatch(pattern, value).has_value();
}

/// One line for people; longer text is cut in the middle of a character never, at `max_bytes` or before.
std::string shortText(const morvik::kit::Value& value, size_t max_bytes = 160);
std::string shortened(std::string text, size_t max_bytes);

}  // namespace morvik_device::scenario
