// Waits until what arrives at a service is as expected.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apps/service/expect/expression.h"

namespace morvik_service {

/// So many near misses are told.
inline constexpr std::size_t kNearMissesTold = 3;

struct Expectation {
  Expression expression;
  int count = 1;      ///< so many must match, at least
  bool none = false;  ///< nothing may match, until the time is over
  std::int64_t after = 0;
  std::chrono::milliseconds within{5000};
};

/// The next requests after a number, as GET /inspect/requests gives them; waits for the first at most so long.
using RequestSource = std::function<Json(std::int64_t after, std::chrono::milliseconds patience)>;
/// A clock that only goes forward.
using SteadyClock = std::function<std::chrono::milliseconds()>;

struct NearMiss {
  std::string item;
  Verdict verdict;
};

struct Outcome {
  bool met = false;
  int matched = 0;
  std::int64_t looked_at = 0;
  std::vector<std::string> matches;  ///< the first of them, described
  std::vector<NearMiss> closest;     ///< those with the fewest misses first, the newest first among equals
};

/// Blocks until the expectation is met, or cannot be met any more, or the time is over. What had arrived before counts
/// too, unless `after` says otherwise; an event that arrives again counts once. What `source` throws goes through.
Outcome waitFor(const Expectation& expectation, const RequestSource& source, const SteadyClock& clock);

}  // namespace morvik_service
