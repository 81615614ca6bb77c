// A run of one device with everything at once: whatever an app may call, deaths, clock jumps, a network that comes and
// goes, a service with every misbehaviour, a disk that fails. Drawn from a seed, in virtual time, on the real store;
// after every step a set of invariants looks at it. The same seed gives the same run to the byte.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "proofs/run/driver.h"

namespace morvik::proofs {

struct RandomRunOptions {
  uint64_t seed = 1;
  double days = 2;
  Sabotage sabotage = Sabotage::kNone;
  /// Told what happens, line by line; empty: nobody.
  std::function<void(std::string_view line)> trace;
};

struct RandomRunResult {
  RunFigures figures;
  uint64_t hash = 0;
  /// "invariant: what", at most kMaxRunComplaints; the run ends with the step of the first.
  std::vector<std::string> complaints;
};

/// Plays it. Any thread; shares nothing with other runs.
RandomRunResult playRandomRun(const RandomRunOptions& options);

}  // namespace morvik::proofs
