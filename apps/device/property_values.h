// The values that "set" may write into a stored property.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "kit/value.h"

namespace morvik_device {

/// `json` as the value of the stored property of that name: null makes it absent; ISO 8601 text becomes a date in a
/// date property, and under "createdAt" and "activityCreatedAt". Or one line that says what is wrong.
std::variant<morvik::kit::Value, std::string> propertyValue(std::string_view property, const morvik::kit::Value& json);

}  // namespace morvik_device
