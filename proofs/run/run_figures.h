// What happened in a run, or in many.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "proofs/oracle/removal_rules.h"
#include "proofs/run/flaky_disk.h"
#include "proofs/run/misbehaviours.h"

namespace morvik::proofs {

enum class RunEnd : uint8_t { kKilled, kPowerLost, kPowerLostTorn, kPowerLostScattered, kCrashed, kStopped };
inline constexpr size_t kRunEnds = 6;
const char* nameOf(RunEnd end);
bool isPowerLoss(RunEnd end);

struct RunFigures {
  double days = 0;
  uint64_t runs = 0;
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
  std::array<uint64_t, kRunEnds> ends{};
  uint64_t ends_at_a_change = 0;  ///< of these, in the middle of what the disk was doing
  std::array<uint64_t, kMisbehaviours> misbehaviours{};
  std::array<uint64_t, kFlakyDiskFaults> disk_faults{};  ///< calls that failed
  uint64_t recorded = 0;
  uint64_t delivered = 0;
  uint64_t stored = 0;
  uint64_t given_up = 0;
  uint64_t undone = 0;              ///< not kept yet when a death came
  uint64_t undone_in_memory = 0;    ///< of these: the app was told that they are kept in memory only
  uint64_t sent_again = 0;          ///< activities, each time after the first
  uint64_t recorded_meanwhile = 0;  ///< while the disk was at work
  /// By row of removalRules(). What several rules may have let go stands under the first of them.
  std::vector<uint64_t> given_up_by_rule = std::vector<uint64_t>(removalRules().size());

  /// All but those that ended in order.
  uint64_t deaths() const;
  uint64_t powerCuts() const;
  bool balances() const { return recorded == delivered + stored + given_up + undone; }

  RunFigures& operator+=(const RunFigures& other);
};

}  // namespace morvik::proofs
