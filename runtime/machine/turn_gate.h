// Holds back what a turn sends until what it wrote is committed.
#pragma once

#include <cstddef>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kit/queues.h"

namespace morvik::runtime {

/// A request started in a turn must not leave before the turn's writes are safe: otherwise the server could know of a
/// wish that the device has lost. Whoever runs turns, on any thread, opens a Turn around each and closes it after the
/// commit; whoever sends calls leave(). Must outlive every Turn.
class TurnGate {
 public:
  /// A turn on the thread that makes it and must end it. Use it so:
  ///     TurnGate::Turn turn(gate);
  ///     block();
  ///     store.commitTurn();
  /// A turn inside a turn of the same thread is part of it.
  class Turn {
   public:
    explicit Turn(TurnGate& gate) : gate_(gate) { gate_.begin(); }
    /// Releases what was held back, in order. The actions run here, with no lock held.
    ~Turn() { gate_.end(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    TurnGate& gate_;
  };

  /// Runs `action` when this thread's turn has ended; at once outside of a turn. `action` must be short and must not
  /// throw. Any thread; does not block otherwise.
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
