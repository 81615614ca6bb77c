// How often the request of a re-engagement click has failed, in sessions: the records and the rule.
#pragma once

#include <cstdint>
#include <unordered_set>

#include "kit/value.h"

namespace morvik {

/// The count after a click's first failure. Each session end raises it, until it is above the highest that is sent
/// again.
inline constexpr int64_t kFirstFailureCount = 1;
inline constexpr int64_t kMaxFailureCountToResend = 5;

/// The "conversion_key" of a click or of a count; it links the two.
int64_t conversionKeyOf(const kit::Value& record);

/// The count in the count record of a click; 0 in anything else.
int64_t failuresOf(const kit::Value& record);

/// The count record of a click.
kit::Value failureCount(int64_t conversion_key, int64_t failure_count);

/// `clicks` without those of these keys; `clicks` itself if there is none.
kit::Value withoutGivenUp(const kit::Value& clicks, const std::unordered_set<int64_t>& given_up);

struct CountedSessionEnd {
  kit::Value counts;                     ///< the list after this session end
  std::unordered_set<int64_t> given_up;  ///< the keys of clicks that failed too often
};

/// The counts after a session end. They are walked in their old order; each, with all that equal it by then, is removed
/// from the list, and appended with a raised count unless it is given up. Linear in the number of records.
CountedSessionEnd countSessionEnd(const kit::Array& counts);

}  // namespace morvik
