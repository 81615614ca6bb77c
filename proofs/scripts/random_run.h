// A run of one device with everything at once: whatever an app may call, deaths, clock jumps, a network that comes and
// goes, a service with every misbehaviour, a disk that fails. Drawn from a seed, in virtual time, on the real store;
// after every step a set of invariants looks at it. The same seed gives the same run to the byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "proofs/oracle/invariants.h"
#include "proofs/run/flaky_disk.h"
#include "proofs/run/misbehaviours.h"
#include "proofs/run/sabotage.h"

namespace morvik::proofs {

struct RandomRunOptions {
  uint64_t seed = 1;
  double days = 2;
  Sabotage sabotage = Sabotage::kNone;
  /// Told what happens, line by line; empty: nobody.
  std::function<void(std::string_view line)> trace;
};

enum class RandomRunEnd : uint8_t { kKilled, kPowerLost, kPowerLostTorn, kPowerLostScattered, kCrashed, kStopped };
inline constexpr size_t kRandomRunEnds = 6;
const char* nameOf(RandomRunEnd death);

/// What happened in a run, or in many.
struct RandomRunFigures {
  double days = 0;
  uint64_t lives = 0;
  uint64_t steps = 0;
  uint64_t processes = 0;
  uint64_t requests = 0;
  uint64_t log_lines = 0;
  uint64_t disk_changes = 0;
  uint64_t offline_phases = 0;
  uint64_t clock_jumps = 0;
  uint64_t newer_stores = 0;    ///< processes next to one
  uint64_t slow_disks = 0;      ///< processes on one
  uint64_t too_large = 0;       ///< values over a limit that were refused
  uint64_t kept_in_memory = 0;  ///< answers that said so
  uint64_t full_queues = 0;     ///< wishes while requests waited for a connection
  std::array<uint64_t, kRandomRunEnds> deaths{};
  uint64_t deaths_at_a_change = 0;  ///< of these, in the middle of what the disk was doing
  std::array<uint64_t, kMisbehaviours> misbehaviours{};
  std::array<uint64_t, kFlakyDiskFaults> disk_faults{};  ///< calls that failed
  uint64_t recorded = 0;
  uint64_t delivered = 0;
  uint64_t stored = 0;
  uint64_t given_up = 0;
  uint64_t undone = 0;  ///< not kept yet when a death came

  RandomRunFigures& operator+=(const RandomRunFigures& other);
};

struct RandomRunResult {
  RandomRunFigures figures;
  uint64_t hash = 0;
  /// "invariant: what", at most kMaxRunComplaints; the run ends with the step of the first.
  std::vector<std::string> complaints;
};
inline constexpr size_t kMaxRunComplaints = 10;

/// Plays it. Any thread; shares nothing with other runs.
RandomRunResult playRandomRun(const RandomRunOptions& options);

}  // namespace morvik::proofs
