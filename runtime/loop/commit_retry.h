// Tries again what a turn could not commit, although nothing else happens on the device.
#pragma once

#include <atomic>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// From a commit that failed to the next try, when no other turn comes in between. Short enough that a user who made
/// room on a full disk loses nothing by leaving the app, long enough to cost nothing while there is none.
inline constexpr double kCommitRetrySeconds = 10;

/// `loop` outlives it, and runs none of its turns any more when it goes.
class CommitRetry {
 public:
  explicit CommitRetry(MachineLoop& loop) : loop_(loop) {}
  CommitRetry(const CommitRetry&) = delete;
  CommitRetry& operator=(const CommitRetry&) = delete;

  /// After each turn's commit, with what it said. At most one try waits at a time. Any thread; does not block.
  void turnEnded(bool all_kept) {
    if (all_kept || waits_.exchange(true))
      return;
    // The turn itself has nothing to do: what it commits at its end is what counts.
    try {
      loop_.schedule(kCommitRetrySeconds, [this] { waits_ = false; });
    } catch (...) {
      waits_ = false;  // nothing waits there; the next turn schedules it
      throw;
    }
  }

 private:
  MachineLoop& loop_;
  std::atomic<bool> waits_{false};
};

}  // namespace morvik::runtime
