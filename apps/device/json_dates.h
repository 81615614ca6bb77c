// Dates in JSON, which has none: ISO 8601 text under the names that records keep their dates under.
#pragma once

#include "kit/value.h"

namespace morvik_device {

/// `value` with every ISO 8601 text under "createdAt" or "activityCreatedAt", at any depth, turned into a date. All
/// else, text that is no date included, stays as it is.
morvik::kit::Value withDates(const morvik::kit::Value& value);

}  // namespace morvik_device
