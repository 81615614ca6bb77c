// Background running time granted by the platform.
#pragma once

#include <cstdint>

#include "kit/queues.h"

namespace morvik::kit {

using BackgroundTaskIdentifier = uint64_t;

/// Identifies no task.
inline constexpr BackgroundTaskIdentifier kBackgroundTaskInvalid = 0;

class BackgroundTasks {
 public:
  virtual ~BackgroundTasks() = default;
  /// Asks for background time. The identifier is never kBackgroundTaskInvalid and never reused. If the granted time
  /// runs out before the task is ended, `expiration_handler` runs once, on the main queue. Any thread; does not block.
  virtual BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(Block expiration_handler) = 0;
  /// Returns the time. Unknown or ended identifiers are ignored. Any thread; does not block.
  virtual void endBackgroundTask(BackgroundTaskIdentifier identifier) = 0;
};

}  // namespace morvik::kit
