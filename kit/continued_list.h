// What is appended to a list while another version of it is being made.
#pragma once

#include "kit/value.h"

namespace morvik::kit {

/// `after`, and behind it what `now` has beyond `before`: elements that were appended while `after` was made of
/// `before`. `after` alone when `now` did not come of `before` by appending.
Value continuedList(const Value& before, const Value& now, Value after);

}  // namespace morvik::kit
