// Combines a new version of a list with what was appended while it was being made.
#pragma once

#include "kit/value.h"

namespace morvik::kit {

/// `after`, followed by the elements that were appended to `before` to get `now`, while `after` was made from `before`.
/// Only `after` if `now` did not come from `before` by appending.
Value continuedList(const Value& before, const Value& now, Value after);

}  // namespace morvik::kit
