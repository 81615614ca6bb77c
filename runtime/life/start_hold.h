// Delays the first session for a store that could not be opened at the start.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <vector>

#include "kit/notifications.h"
#include "kit/queues.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// How long the first session waits at most: a device whose store stays unavailable still measures and sends.
inline constexpr double kStartHoldSeconds = 2;
/// Between two attempts to open the store meanwhile. Short: most likely another program holds the file for a moment.
inline constexpr double kStartHoldTrySeconds = 0.05;
/// Between two attempts after that, while the store is unavailable.
inline constexpr double kStoreReopenSeconds = 0.5;
/// Notifications of the app that wait. Beyond this, the latest deactivation and the activation after it are left out.
inline constexpr size_t kMaxHeldNotifications = 16;

/// Only the store knows which device this is: a request for attribution without it registers a new install,
/// permanently. Opening it again takes as long as the disk or another program does, so the store's own thread does it,
/// and a timer bounds the wait. Recording waits for nothing.
class StartHold {
 public:
  struct Hooks {
    kit::Block when_over;                            ///< runs once, before what waits
    kit::Block when_settled;                         ///< runs once: the file will never be available here
    std::function<void(kit::Notification)> deliver;  ///< what pass() was handed
  };

  /// Both outlive it; the loop runs no more of its turns when it is destroyed.
  StartHold(MachineStore& store, MachineLoop& main_loop) : store_(store), main_loop_(main_loop) {}
  StartHold(const StartHold&) = delete;
  StartHold& operator=(const StartHold&) = delete;

  /// Call once, before the first turn. Holds if the store could not be opened; else nothing waits, and `when_over` does
  /// not run. The hooks run on the main queue.
  void begin(Hooks hooks);
  /// Any thread.
  bool isHolding() const { return is_holding_; }
  /// Nobody knows the content of the store's file: it could not be opened at the start, and has not been since. False
  /// for a file that turns out to be of a newer version: as at a start, it is not this process's. Any thread.
  bool isUnavailable() const { return is_unavailable_; }
  /// Delivers it, in call order; while holding, once the hold is over. Two of a kind in a row count as one. Main queue.
  void pass(kit::Notification notification);
  /// The file's content is known now. Main queue.
  void storeRecovered();

 private:
  [[nodiscard]] bool settle();
  void tryAgain(int tries_left);
  void tryLater();
  void end();
  void deliverWaiting();

  MachineStore& store_;
  MachineLoop& main_loop_;
  std::atomic<bool> is_holding_{false};
  std::atomic<bool> is_unavailable_{false};
  // On the main queue.
  Hooks hooks_;
  std::vector<kit::Notification> waiting_;
};

}  // namespace morvik::runtime
