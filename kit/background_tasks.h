// Background running time granted by the platform.
#pragma once

#include <cstdint>

#include "kit/queues.h"

namespace morvik::kit {

using BackgroundTaskIdentifier = uint64_t;

/// The identifier of no task.
inline constexpr BackgroundTaskIdentifier kBackgroundTaskInvalid = 0;

class BackgroundTasks {
 public:
  virtual ~BackgroundTasks() = default;
  /// Asks for background time. The identifier is never kBackgroundTaskInvalid and never used twice. When the time
  /// granted runs out before the task is ended, `expiration_handler` runs once, on the main queue. Any thread; does not
  /// block.
  virtual BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(Block expiration_handler) = 0;
  /// Gives the time back. An identifier that is unknown, or ended already, is ignored. Any thread; does not block.
  virtual void endBackgroundTask(BackgroundTaskIdentifier identifier) = 0;
};

}  // namespace morvik::kit
