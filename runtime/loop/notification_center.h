// Notifications of the app's life cycle.
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

  /// Calls the observers in the order of registration; one added meanwhile is called from the next time on.
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
