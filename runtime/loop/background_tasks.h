// Background running time on a machine that takes none away: granted for a while, then expired.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>

#include "kit/background_tasks.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// How long a task may run before its expiration handler is called.
inline constexpr double kBackgroundGrantSeconds = 30.0;

class BackgroundTasks final : public kit::BackgroundTasks {
 public:
  explicit BackgroundTasks(MachineLoop& main_loop, double grant_seconds = kBackgroundGrantSeconds)
      : main_loop_(main_loop), grant_seconds_(grant_seconds) {}

  kit::BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(kit::Block expiration_handler) override;
  void endBackgroundTask(kit::BackgroundTaskIdentifier identifier) override;
  /// Tasks begun and neither ended nor expired. Any thread.
  size_t open() const;

 private:
  struct Task {
    kit::Block expiration_handler;
    MachineLoop::TimerKey timer;
  };
  void expire(kit::BackgroundTaskIdentifier identifier);
  /// The task, which is no longer open; without handler if it was not.
  Task take(kit::BackgroundTaskIdentifier identifier);

  MachineLoop& main_loop_;
  const double grant_seconds_;
  mutable std::mutex mutex_;
  std::map<kit::BackgroundTaskIdentifier, Task> tasks_;
  kit::BackgroundTaskIdentifier next_ = 1;
};

}  // namespace morvik::runtime
