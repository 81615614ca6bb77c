// Tells when nothing is in progress any more.
#pragma once

#include <atomic>
#include <functional>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Main thread, but for isWatching().
class SettleWatch {
 public:
  /// False if the limit came first.
  using Done = std::function<void(bool settled)>;

  /// `is_settled` is asked after each turn while somebody waits.
  SettleWatch(MachineLoop& main_loop, std::function<bool()> is_settled)
      : main_loop_(main_loop), is_settled_(std::move(is_settled)) {}

  /// Calls `done` once: at the end of the first turn after which all is settled, or when the limit is up. It runs
  /// within a turn, possibly this one. One can wait at a time; an earlier one gets "not settled".
  void begin(double limit_seconds, Done done);
  /// Call at the end of every turn, after its commit.
  void check();
  /// True while somebody waits. Any thread.
  bool isWatching() const { return is_watching_; }

 private:
  void end(bool settled);

  MachineLoop& main_loop_;
  const std::function<bool()> is_settled_;
  std::atomic<bool> is_watching_{false};
  Done done_;
  MachineLoop::TimerKey limit_{};
};

}  // namespace morvik::runtime
