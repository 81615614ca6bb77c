// A simulated disk whose errors come and go, and which remembers what it was never asked to sync.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "simulation/simulated_disk.h"

namespace morvik::proofs {

enum class FlakyDiskFault : uint8_t {
  kFull,
  kSyncError,
  kReadErrorAtStart,
  kUnwritable,  ///< the store's own files can be read and not changed
};
inline constexpr size_t kFlakyDiskFaults = 4;
const char* nameOf(FlakyDiskFault fault);

/// A fault at some calls in a row, of those that it can meet.
struct PlannedFault {
  FlakyDiskFault fault = FlakyDiskFault::kFull;
  uint64_t first = 1;  ///< from 1
  uint64_t calls = 1;
};

class FlakyDisk {
 public:
  /// `now`: virtual time. `changed`: told of each change; empty: nobody.
  FlakyDisk(std::function<double()> now, std::function<void(const simulation::DiskCall&)> changed);

  simulation::SimulatedDisk disk;

  /// The next calls of that kind fail: `calls` of them, and then until the time is over.
  void fail(FlakyDiskFault fault, uint64_t calls, double until);
  void plan(const PlannedFault& fault) { planned_ = fault; }
  /// Nothing fails any more, and nothing that was planned will.
  void recover();
  bool isFailing(FlakyDiskFault fault) const;
  /// Decides about a call that no fault meets, as SimulatedDisk::decide() does. Empty: it is let through.
  void answerBy(std::function<int(const simulation::DiskCall&)> answer) { answer_ = std::move(answer); }
  /// Read errors come while a process starts, and only then.
  void processStarts(bool is_starting) { is_starting_ = is_starting; }

  /// A process died, and nobody is left to sync what it wrote, until the next one does.
  void processDied() { excuse(); }
  /// What was not synced is gone.
  void powerWasLost();
  /// Another program has synced the store's own files and their names.
  void storeWasSynced();
  /// Since when something stands on it unsynced for a reason: a sync failed, a process died, or the store could not be
  /// written. Nothing: there is none.
  std::optional<double> unsyncedForAReasonSince() const;
  const std::array<uint64_t, kFlakyDiskFaults>& failed() const { return failed_; }
  /// Calls so far that a fault can meet.
  const std::array<uint64_t, kFlakyDiskFaults>& points() const { return points_; }
  /// Changes one of the store's own files, or its name.
  bool changesTheStore(const simulation::DiskCall& call);

 private:
  int decide(const simulation::DiskCall& call);
  int faultOf(const simulation::DiskCall& call);
  bool fails(FlakyDiskFault fault);
  bool isPlanned(FlakyDiskFault fault, uint64_t point) const;
  void excuse();

  struct Trouble {
    uint64_t calls = 0;
    double until = 0;
  };

  const std::function<double()> now_;
  const std::function<void(const simulation::DiskCall&)> changed_;
  std::function<int(const simulation::DiskCall&)> answer_;
  std::array<Trouble, kFlakyDiskFaults> troubles_{};
  std::optional<PlannedFault> planned_;
  std::array<uint64_t, kFlakyDiskFaults> failed_{};
  std::array<uint64_t, kFlakyDiskFaults> points_{};
  bool is_starting_ = false;
  /// What a power cut would take: changes of the log, of the names, and of a file that was never synced itself. One
  /// that was needs no sync: whatever it lacks stands in the log.
  enum class Held : uint8_t { kLog, kNames, kFreshFile, kWish };
  static constexpr size_t kHeld = 4;
  struct Unsynced {
    std::optional<double> since;
    bool for_a_reason = false;
  };
  void markChanged(Held held);
  void markSynced(Held held);

  std::array<Unsynced, kHeld> unsynced_{};
  bool is_file_fresh_ = true;
};

}  // namespace morvik::proofs
