// Whether a value looks as a scenario says. A pattern says what must be there and leaves the rest open.
#pragma once

#include <optional>
#include <string>

#include "kit/value.h"

namespace morvik_device::scenario {

/// An object matches if each member of the pattern matches; null matches a member that is missing or null. A list
/// matches if its elements match those of the pattern in order; others may stand between. An empty list or object
/// matches only an empty one. A number matches one of the same value; text matches the same text, and a date in
/// ISO 8601. Returns where and why `value` does not match, or nothing.
std::optional<std::string> mismatch(const morvik::kit::Value& pattern, const morvik::kit::Value& value);

inline bool fits(const morvik::kit::Value& pattern, const morvik::kit::Value& value) {
  return !mismatch(pattern, value).has_value();
}

/// One line for people, cut to `max_bytes` at most, never within a character.
std::string shortText(const morvik::kit::Value& value, size_t max_bytes = 160);
std::string shortened(std::string text, size_t max_bytes);

}  // namespace morvik_device::scenario
