#include "host/store/background_flusher.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace morvik::host {

BackgroundFlusher::BackgroundFlusher(Flush flush, std::chrono::milliseconds delay, StartThread start_thread)
    : flush_(std::move(flush)), delay_(delay), start_thread_(std::move(start_thread)) {
  const std::lock_guard lock(mutex_);
  needThread();
}

BackgroundFlusher::~BackgroundFlusher() {
  stop();
}

std::optional<kit::Error> BackgroundFlusher::problem() const {
  const std::lock_guard lock(mutex_);
  return problem_;
}

void BackgroundFlusher::flushSoon() {
  const std::lock_guard lock(mutex_);
  needThread();
  if (soon_)
    return;
  soon_ = true;
  due_ = std::chrono::steady_clock::now() + delay_;
  wake_.notify_one();
}

void BackgroundFlusher::flushNow(Urgency urgency) {
  const std::lock_guard lock(mutex_);
  needThread();
  urgency_ = std::max(urgency_, urgency);
  if (now_)
    return;
  now_ = true;
  wake_.notify_one();
}

void BackgroundFlusher::flushAndWait(Urgency urgency) {
  std::unique_lock lock(mutex_);
  needThread();
  // A flush already running may have begun before the caller's commit: the next one counts.
  const uint64_t wanted = started_count_ + 1;
  urgency_ = std::max(urgency_, urgency);
  now_ = true;
  if (!hasThread()) {
    ended_.wait(lock, [this] { return !is_flushing_; });  // another thread is doing the same
    if (!stopped_)
      flushOnce(lock);
    return;
  }
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

/// Holds mutex_, which the new thread takes first.
void BackgroundFlusher::needThread() {
  if (hasThread() || stopped_)
    return;
  auto started = start_thread_("morvik-store", [this] { run(); });
  if (auto* thread = std::get_if<std::thread>(&started)) {
    thread_ = std::move(*thread);
    problem_.reset();
  } else {
    problem_ = std::get<kit::Error>(std::move(started));
  }
}

void BackgroundFlusher::run() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (is_flushing_ || (!now_ && !soon_)) {
      wake_.wait(lock);
      continue;
    }
    if (!now_ && std::chrono::steady_clock::now() < due_) {
      wake_.wait_until(lock, due_);
      continue;
    }
    flushOnce(lock);
  }
}

void BackgroundFlusher::flushOnce(std::unique_lock<std::mutex>& lock) {
  const Urgency urgency = std::exchange(urgency_, Urgency::kRoutine);
  soon_ = false;
  now_ = false;
  ++started_count_;
  is_flushing_ = true;
  lock.unlock();
  bool has_thrown = false;
  try {
    flush_(urgency);
  } catch (...) {  // no memory, say; there is no caller to tell
    has_thrown = true;
  }
  lock.lock();
  if (has_thrown && !soon_) {
    soon_ = true;
    due_ = std::chrono::steady_clock::now() + delay_;
  }
  ++ended_count_;
  is_flushing_ = false;
  ended_.notify_all();
  wake_.notify_all();
}

}  // namespace morvik::host
