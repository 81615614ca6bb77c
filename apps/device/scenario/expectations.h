// Whether an expectation is met.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "apps/device/scenario/history.h"
#include "apps/device/scenario/scenario.h"
#include "morvik/ledger.h"

namespace morvik_device::scenario {

/// What expectations are checked against.
struct Evidence {
  const History& history;
  /// Each event that the service counted, once; and their number, including those that are not kept.
  std::function<std::vector<morvik::kit::Value>()> events;
  std::function<size_t()> event_count;
  /// A stored property by its name, as the kit reads it.
  std::function<morvik::kit::Value(const std::string& property)> stored;
  /// The device's own ledger.
  std::function<morvik::Ledger()> ledger;
};

struct Verdict {
  bool met = false;
  std::string expected;  ///< in words
  std::string got;       ///< if not met: what was there, and the closest mismatch
};

/// Compares the expectation with what happened.
Verdict assess(const Expectation& expectation, const Evidence& evidence);

}  // namespace morvik_device::scenario
