#include "host/store/background_flusher.h"

#include <algorithm>
#include <utility>

namespace morvik::host {

BackgroundFlusher::BackgroundFlusher(Flush flush, std::chrono::milliseconds delay)
    : flush_(std::move(flush)), delay_(delay), thread_([this] { run(); }) {}

BackgroundFlusher::~BackgroundFlusher() {
  stop();
}

void BackgroundFlusher::flushSoon() {
  const std::lock_guard lock(mutex_);
  if (soon_)
    return;
  soon_ = true;
  due_ = std::chrono::steady_clock::now() + delay_;
  wake_.notify_one();
}

void BackgroundFlusher::flushNow(Urgency urgency) {
  const std::lock_guard lock(mutex_);
  urgency_ = std::max(urgency_, urgency);
  if (now_)
    return;
  now_ = true;
  wake_.notify_one();
}

void BackgroundFlusher::flushAndWait(Urgency urgency) {
  std::unique_lock lock(mutex_);
  // A flush that runs already may have begun before the caller's commit: it is the next one that counts.
  const uint64_t wanted = started_count_ + 1;
  urgency_ = std::max(urgency_, urgency);
  now_ = true;
  wake_.notify_one();
  ended_.wait(lock, [this, wanted] { return stopped_ || ended_count_ >= wanted; });
}

void BackgroundFlusher::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  wake_.notify_all();
  ended_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void BackgroundFlusher::run() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (!now_ && !soon_) {
      wake_.wait(lock);
      continue;
    }
    if (!now_ && std::chrono::steady_clock::now() < due_) {
      wake_.wait_until(lock, due_);
      continue;
    }
    const Urgency urgency = std::exchange(urgency_, Urgency::kRoutine);
    soon_ = false;
    now_ = false;
    ++started_count_;
    lock.unlock();
    flush_(urgency);
    lock.lock();
    ++ended_count_;
    ended_.notify_all();
  }
}

}  // namespace morvik::host
