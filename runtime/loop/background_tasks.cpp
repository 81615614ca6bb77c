#include "runtime/loop/background_tasks.h"

#include <utility>

namespace morvik::runtime {

kit::BackgroundTaskIdentifier BackgroundTasks::beginBackgroundTaskWithExpirationHandler(kit::Block expiration_handler) {
  const std::scoped_lock hold(mutex_);
  const kit::BackgroundTaskIdentifier identifier = next_++;
  const auto timer = main_loop_.schedule(grant_seconds_, [this, identifier] { expire(identifier); });
  tasks_.emplace(identifier, Task{std::move(expiration_handler), timer});
  return identifier;
}

void BackgroundTasks::endBackgroundTask(kit::BackgroundTaskIdentifier identifier) {
  // An unknown task's timer is the default one, which belongs to nobody.
  const Task ended = take(identifier);
  main_loop_.cancel(ended.timer);
}

size_t BackgroundTasks::open() const {
  const std::scoped_lock hold(mutex_);
  return tasks_.size();
}

void BackgroundTasks::expire(kit::BackgroundTaskIdentifier identifier) {
  const Task expired = take(identifier);
  if (expired.expiration_handler)
    expired.expiration_handler();
}

BackgroundTasks::Task BackgroundTasks::take(kit::BackgroundTaskIdentifier identifier) {
  const std::scoped_lock hold(mutex_);
  const auto found = tasks_.find(identifier);
  if (found == tasks_.end())
    return {};
  Task task = std::move(found->second);
  tasks_.erase(found);
  return task;
}

}  // namespace morvik::runtime
