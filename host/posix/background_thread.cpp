#include "host/posix/background_thread.h"

#include <utility>
#include <variant>

#include "host/posix/standard_streams.h"
#include "host/posix/thread.h"
#include "services/guard.h"

namespace morvik::host {
namespace {

constexpr const char* kBackgroundOperation = "-[BackgroundThread run]";
constexpr services::GuardClause kThrewOnBackgroundQueue =
    services::oneLine(kit::lcl_vError, "Morvik host: a block on the background queue threw and ended there: %@");
constexpr services::Guard kBackgroundQueueGuard{kThrewOnBackgroundQueue, kThrewOnBackgroundQueue};

}  // namespace

BackgroundThread::~BackgroundThread() {
  stop(std::chrono::steady_clock::now());
}

void BackgroundThread::async(kit::Block block) {
  std::optional<kit::Error> failed;
  {
    const std::scoped_lock hold(mutex_);
    if (stopping_)
      return;
    waiting_.push_back(std::move(block));
    failed = startLocked();
  }
  wake_.notify_one();
  // The block stays queued; the next one tries again. Without the lock, since the log may be the app's.
  if (failed)
    MORVIK_LOG(logger_, kit::lcl_vError, kBackgroundOperation, "Morvik host: %@", *failed);
}

std::optional<kit::Error> BackgroundThread::startLocked() {
  if (thread_.joinable())
    return std::nullopt;
  auto thread = startThread("morvik-back", [this] { run(); });
  if (auto* error = std::get_if<kit::Error>(&thread))
    return std::move(*error);
  thread_ = std::get<std::thread>(std::move(thread));
  return std::nullopt;
}

size_t BackgroundThread::pending() const {
  const std::scoped_lock hold(mutex_);
  return waiting_.size() + (running_ ? 1 : 0);
}

bool BackgroundThread::drain(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock hold(mutex_);
  return idle_.wait_until(hold, deadline, [this] { return !running_ && (stopping_ || waiting_.empty()); });
}

void BackgroundThread::cease() {
  const std::scoped_lock hold(mutex_);
  stopping_ = true;
  deadline_ = std::chrono::steady_clock::now();
  wake_.notify_one();
}

void BackgroundThread::stop(std::chrono::steady_clock::time_point deadline) {
  std::deque<kit::Block> dropped;
  std::thread thread;
  {
    const std::scoped_lock hold(mutex_);
    if (!std::exchange(stopping_, true))
      deadline_ = deadline;
    thread.swap(thread_);
  }
  wake_.notify_one();
  if (thread.joinable())
    thread.join();
  // The system may reuse the thread's id.
  id_ = std::thread::id();
  const std::scoped_lock hold(mutex_);
  dropped.swap(waiting_);
}

void BackgroundThread::letGo() {
  const std::scoped_lock hold(mutex_);
  if (thread_.joinable())
    thread_.detach();
}

void BackgroundThread::run() {
  id_ = std::this_thread::get_id();
  kit::Block block;
  while (takeNext(block)) {
    fillClosedStandardStreams();  // as MainLoop::serve() does
    runGuarded([this, &block] { frame_([this, &block] { runGuarded(block); }); });
    // A block that forked returns in both processes; in the child this thread has nothing more to do.
    if (!process_.isHere())
      return;
    block = nullptr;
    if (finishOne() && when_idle_)
      when_idle_();
  }
}

// True if it was the last one.
bool BackgroundThread::finishOne() {
  const std::scoped_lock hold(mutex_);
  running_ = false;
  idle_.notify_all();
  return waiting_.empty();
}

bool BackgroundThread::takeNext(kit::Block& block) {
  std::unique_lock hold(mutex_);
  wake_.wait(hold, [this] { return stopping_ || !waiting_.empty(); });
  if (waiting_.empty() || isPastDeadlineLocked())
    return false;
  block = std::move(waiting_.front());
  waiting_.pop_front();
  running_ = true;
  return true;
}

void BackgroundThread::runGuarded(const kit::Block& block) {
  services::guarded(logger_, kBackgroundQueueGuard, MORVIK_HERE(kBackgroundOperation), block);
}

}  // namespace morvik::host
