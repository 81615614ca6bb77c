// How often the request of a re-engagement click has failed, in sessions: the records and the rule.
#pragma once

#include <cstdint>
#include <unordered_set>

#include "kit/value.h"

namespace morvik {

/// A click's first failure. At each session end the count is raised, until it is above the highest that is sent again.
inline constexpr int64_t kFirstFailureCount = 1;
inline constexpr int64_t kMaxFailureCountToResend = 5;

/// The "conversion_key" of a click, or of a count: what links the two.
int64_t conversionKeyOf(const kit::Value& record);

/// The count in the count record of a click; 0 in what is none.
int64_t failuresOf(const kit::Value& record);

/// The count record of a click.
kit::Value failureCount(int64_t conversion_key, int64_t failure_count);

/// `clicks` without those of these keys; `clicks` itself when there is none.
kit::Value withoutGivenUp(const kit::Value& clicks, const std::unordered_set<int64_t>& given_up);

struct CountedSessionEnd {
  kit::Value counts;                     ///< the list after this session end
  std::unordered_set<int64_t> given_up;  ///< the keys whose time is over
};

/// What a session end makes of the counts. They are walked as they were; each, and all that equal it by then, goes from
/// the list, and comes back raised at its end unless it is given up. In proportion to the number of records.
CountedSessionEnd countSessionEnd(const kit::Array& counts);

}  // namespace morvik
