// Dates in JSON: ISO 8601 text under the names of the records' dates.
#pragma once

#include "kit/value.h"

namespace morvik_device {

/// `value` with every ISO 8601 text under "createdAt" or "activityCreatedAt", at any depth, turned into a date. All
/// else, also text that is not a date, is unchanged.
morvik::kit::Value withDates(const morvik::kit::Value& value);

}  // namespace morvik_device
