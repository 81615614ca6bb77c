// Keeps the first session waiting for a store that could not be opened at the start.
#pragma once

#include <atomic>

#include "host/machine/machine.h"
#include "kit/queues.h"

namespace morvik::host {

/// So long the first session waits at most: a device whose store stays in the dark measures and sends all the same.
inline constexpr double kStartHoldSeconds = 2;
/// Between two tries to open the store meanwhile: soon, since what holds a file for a moment is the most likely
/// trouble.
inline constexpr double kStartHoldTrySeconds = 0.05;

/// A store knows which device this is: whoever asks for attribution without it registers the device as a new install,
/// for ever. To open it again takes as long as the disk or another program wants, so that is done on the store's own
/// thread, and a timer bounds the wait for it. What records waits for nothing.
class StartHold {
 public:
  /// Both outlive it; the loop runs none of its turns any more when it goes.
  StartHold(MachineStore& store, MachineLoop& main_loop) : store_(store), main_loop_(main_loop) {}
  StartHold(const StartHold&) = delete;
  StartHold& operator=(const StartHold&) = delete;

  /// Once, before the first turn. It holds where the store could not be opened; elsewhere this does nothing.
  /// `when_over` runs on the main queue before what waits.
  void begin(kit::Block when_over);
  /// Any thread.
  bool isHolding() const { return is_holding_; }
  /// Runs `block` at once, or where it holds when that is over; then the latest one. Main queue.
  void whenOver(kit::Block block);
  /// The store has come to light, or the session that waits is ending. Main queue.
  void end();

 private:
  void tryAgain(int tries_left);

  MachineStore& store_;
  MachineLoop& main_loop_;
  std::atomic<bool> is_holding_{false};
  // On the main queue.
  kit::Block when_over_;
  kit::Block waiting_;
};

}  // namespace morvik::host
