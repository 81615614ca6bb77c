// Brings outcomes to the main queue: each handler once, none after the end.
#pragma once

#include <cstddef>
#include <memory>

#include "kit/queues.h"
#include "kit/transport.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Any thread. The main queue must live until close() has returned; blocks still in it then do nothing.
class HandlerDelivery {
 public:
  explicit HandlerDelivery(kit::MainQueue& main_queue);

  /// Counts one more request. False after close(): the request must not begin.
  bool admit();
  /// Posts the outcome of an admitted request. `handler` runs in a later turn, unless close() comes first.
  void deliver(TransportHandler handler, kit::TransportOutcome outcome);
  /// Requests whose handler has not begun.
  size_t unanswered() const;
  /// No handler begins from now on. Waits at most `max_wait_seconds` for one running on another thread; from inside a
  /// handler it does not wait for that one.
  void close(double max_wait_seconds);

 private:
  struct State;
  kit::MainQueue& main_queue_;
  std::shared_ptr<State> state_;  ///< shared with posted blocks, which may outlive this
};

}  // namespace morvik::runtime
