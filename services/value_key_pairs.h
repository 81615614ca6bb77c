// Dictionaries that are built as the platform builds them from a list of value-key pairs.
#pragma once

#include <initializer_list>
#include <utility>

#include "kit/value.h"

namespace morvik::services {

/// A key and its value.
using KeyedValue = std::pair<kit::Value, kit::Value>;

/// The pairs up to the first absent value, which ends the list: everything after it is left out too.
kit::MutableDictionary untilAbsent(std::initializer_list<KeyedValue> pairs);

}  // namespace morvik::services
