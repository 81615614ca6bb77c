// Keeps the first session waiting for a store that could not be opened at the start.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <vector>

#include "kit/notifications.h"
#include "kit/queues.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// So long the first session waits at most: a device whose store stays in the dark measures and sends all the same.
inline constexpr double kStartHoldSeconds = 2;
/// Between two tries to open the store meanwhile: soon, since what holds a file for a moment is the most likely
/// trouble.
inline constexpr double kStartHoldTrySeconds = 0.05;
/// Between two tries from then on, for as long as the store is in the dark.
inline constexpr double kStoreReopenSeconds = 0.5;
/// Comings and goings of the app that wait. Past these the latest ones leave out a going and the coming after it.
inline constexpr size_t kMaxHeldNotifications = 16;

/// A store knows which device this is: whoever asks for attribution without it registers the device as a new install,
/// for ever. To open it again takes as long as the disk or another program wants, so that is done on the store's own
/// thread, and a timer bounds the wait for it. What records waits for nothing.
class StartHold {
 public:
  struct Hooks {
    kit::Block when_over;                            ///< runs once, before what waits
    kit::Block when_settled;                         ///< runs once: the file will never come to light here
    std::function<void(kit::Notification)> deliver;  ///< what pass() was handed
  };

  /// Both outlive it; the loop runs none of its turns any more when it goes.
  StartHold(MachineStore& store, MachineLoop& main_loop) : store_(store), main_loop_(main_loop) {}
  StartHold(const StartHold&) = delete;
  StartHold& operator=(const StartHold&) = delete;

  /// Once, before the first turn. It holds where the store could not be opened; elsewhere nothing waits, and
  /// `when_over` does not run. The hooks run on the main queue.
  void begin(Hooks hooks);
  /// Any thread.
  bool isHolding() const { return is_holding_; }
  /// Nobody knows what the store's file has: it could not be opened at the start, and was not since. One that turns out
  /// to be of a newer version is none of this process's, as it is at a start. Any thread.
  bool isUnavailable() const { return is_unavailable_; }
  /// Delivers it, or where it holds does so once that is over, in the order of the calls; two of a kind in a row are
  /// one. Main queue.
  void pass(kit::Notification notification);
  /// What the file has is known now. Main queue.
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
