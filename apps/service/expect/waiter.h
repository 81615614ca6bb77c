// Waits until what arrives at a service is as expected.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apps/service/expect/expression.h"

namespace morvik_service {

/// At most this many near misses are reported.
inline constexpr std::size_t kNearMissesTold = 3;

struct Expectation {
  Expression expression;
  int count = 1;      ///< at least this many must match
  bool none = false;  ///< nothing may match until the time is over
  std::int64_t after = 0;
  std::chrono::milliseconds within{5000};
};

/// The next requests after a number, as GET /inspect/requests returns them; waits for the first at most this long.
using RequestSource = std::function<Json(std::int64_t after, std::chrono::milliseconds patience)>;
/// A steady clock.
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

/// Blocks until the expectation is met, can no longer be met, or the time is over. Earlier arrivals count too, unless
/// `after` says otherwise; an event that arrives again counts once. Exceptions of `source` are passed on.
Outcome waitFor(const Expectation& expectation, const RequestSource& source, const SteadyClock& clock);

}  // namespace morvik_service
