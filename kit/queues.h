// The two queues on which everything runs. Both are serial and ordered; nothing handed to them runs inline.
#pragma once

#include <functional>

namespace morvik::kit {

using Block = std::function<void()>;

/// The main queue: notifications, public calls, handlers and timers run here, one block ("turn") after the other. At
/// the end of a turn its writes to the store are committed; only then do requests started in it leave.
class MainQueue {
 public:
  virtual ~MainQueue() = default;
  /// Runs `block` in a later turn. Any thread; does not block. Unbounded: its callers are few, and bounded themselves.
  virtual void async(Block block) = 0;
  /// Runs `block` in a turn at least `delay_seconds` (0 or more) from now, by monotonic time. Any thread; does not
  /// block. Blocks that still wait at shutdown are dropped.
  virtual void after(double delay_seconds, Block block) = 0;
};

/// The background queue of default priority. A block's writes to the store are committed when it ends.
class BackgroundQueue {
 public:
  virtual ~BackgroundQueue() = default;
  /// Runs `block` later, not on the main thread. Any thread; does not block.
  virtual void async(Block block) = 0;
};

}  // namespace morvik::kit
