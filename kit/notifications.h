// Application notifications.
#pragma once

#include <functional>

namespace morvik::kit {

enum class Notification {
  kApplicationDidBecomeActive,
  kApplicationDidEnterBackground,
};

class NotificationCenter {
 public:
  virtual ~NotificationCenter() = default;
  /// Calls `observer` each time the notification is posted, on the main queue, in the order of registration. Observers
  /// are never removed: they live as long as the center and must not keep their object alive. Main queue, or before it
  /// runs.
  virtual void addObserver(Notification notification, std::function<void()> observer) = 0;
};

}  // namespace morvik::kit
