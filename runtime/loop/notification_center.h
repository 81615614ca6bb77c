// Application notifications, as the app's life reports them to the host.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "kit/notifications.h"

namespace morvik::runtime {

/// Main queue, or before it runs.
class NotificationCenter final : public kit::NotificationCenter {
 public:
  void addObserver(kit::Notification notification, std::function<void()> observer) override {
    observers_.emplace_back(notification, std::move(observer));
  }

  /// Calls the observers of the notification, in the order of their registration; one that is added meanwhile waits
  /// for the next time.
  void post(kit::Notification notification) const {
    for (size_t i = 0, count = observers_.size(); i < count; ++i) {
      if (observers_[i].first != notification)
        continue;
      const std::function<void()> observer = observers_[i].second;
      observer();
    }
  }

 private:
  std::vector<std::pair<kit::Notification, std::function<void()>>> observers_;
};

}  // namespace morvik::runtime
