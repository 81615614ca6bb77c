// Retries what a turn could not commit, even if nothing else happens on the device.
#pragma once

#include <atomic>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// From a failed commit to the retry, if no other turn comes in between. Short enough that a user who freed space on a
/// full disk loses nothing by leaving the app; long enough to cost nothing meanwhile.
inline constexpr double kCommitRetrySeconds = 10;

/// `loop` outlives it and runs no more of its turns when it is destroyed.
class CommitRetry {
 public:
  explicit CommitRetry(MachineLoop& loop) : loop_(loop) {}
  CommitRetry(const CommitRetry&) = delete;
  CommitRetry& operator=(const CommitRetry&) = delete;

  /// Call after each turn's commit, with its result. One retry waits at a time. Any thread; does not block.
  void turnEnded(bool all_kept) {
    if (all_kept || waits_.exchange(true))
      return;
    // The turn itself is empty: only its commit matters.
    try {
      loop_.schedule(kCommitRetrySeconds, [this] { waits_ = false; });
    } catch (...) {
      waits_ = false;  // not scheduled after all; the next turn schedules it
      throw;
    }
  }

 private:
  MachineLoop& loop_;
  std::atomic<bool> waits_{false};
};

}  // namespace morvik::runtime
