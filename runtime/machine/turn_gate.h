// Keeps what a turn sends out until what the turn wrote is committed.
#pragma once

#include <cstddef>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kit/queues.h"

namespace morvik::runtime {

/// A request started in a turn must not leave before the turn's writes are safe: otherwise the server could know of a
/// wish that the device has forgotten. Whoever runs turns, on whatever thread, opens a Turn around each and closes it
/// after the commit; whoever sends asks leave(). Must outlive every Turn made on it.
class TurnGate {
 public:
  /// One turn of the thread that makes it, and that must end it. Use it so:
  ///     TurnGate::Turn turn(gate);
  ///     block();
  ///     store.commitTurn();
  /// A turn inside a turn of the same thread is part of it.
  class Turn {
   public:
    explicit Turn(TurnGate& gate) : gate_(gate) { gate_.begin(); }
    /// Lets go, in order, what was held back. The actions run here, without a lock held.
    ~Turn() { gate_.end(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    TurnGate& gate_;
  };

  /// Runs `action` when this thread's turn has ended, and at once on a thread that is in none. `action` must be short
  /// and must not throw. Any thread; does not block otherwise.
  void leave(kit::Block action);
  /// Whether the calling thread is in a turn.
  bool isInTurn() const;

 private:
  struct OpenTurn {
    size_t depth = 0;
    std::vector<kit::Block> held;
  };

  void begin();
  void end();

  mutable std::mutex mutex_;
  std::unordered_map<std::thread::id, OpenTurn> open_turns_;
};

}  // namespace morvik::runtime
