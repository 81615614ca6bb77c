// Whether what was expected has come about.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "apps/device/scenario/history.h"
#include "apps/device/scenario/scenario.h"
#include "morvik/ledger.h"

namespace morvik_device::scenario {

/// What expectations are held against.
struct Account {
  const History& history;
  /// Each event that the service counted, once; and how many there were, also those that are not kept.
  std::function<std::vector<morvik::kit::Value>()> events;
  std::function<size_t()> event_count;
  /// A stored property by its name, as its readers see it.
  std::function<morvik::kit::Value(const std::string& property)> stored;
  /// What the device says of itself.
  std::function<morvik::Ledger()> ledger;
};

struct Verdict {
  bool met = false;
  std::string expected;  ///< in words
  std::string got;       ///< when it is not met: what was there, and the nearest that did not fit
};

Verdict judge(const Expectation& expectation, const Account& account);

}  // namespace morvik_device::scenario
