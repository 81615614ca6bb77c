// A main queue that runs its blocks only when a test says so.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "kit/queues.h"

namespace morvik::test {

/// Blocks may be posted on any thread; they run on the thread that pumps.
class PumpedQueue final : public kit::MainQueue {
 public:
  void async(kit::Block block) override {
    const std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
    changed_.notify_all();
  }
  /// Nothing tested here uses timers.
  void after(double, kit::Block block) override { async(std::move(block)); }

  /// Runs the waiting blocks, and those that they post.
  void runAll() {
    while (const kit::Block block = take(std::chrono::seconds(0)))
      run(block);
  }
  /// Runs blocks as they arrive until `done()`; false if that takes longer than any test may.
  template <class Done>
  bool runUntil(Done done) {
    while (!done()) {
      const kit::Block block = take(std::chrono::seconds(30));
      if (!block)
        return false;
      run(block);
    }
    return true;
  }
  size_t waiting() const {
    const std::lock_guard lock(mutex_);
    return blocks_.size();
  }
  /// Whether the caller runs within a block of this queue.
  bool isCurrent() const {
    const std::lock_guard lock(mutex_);
    return runner_ == std::this_thread::get_id();
  }

 private:
  kit::Block take(std::chrono::seconds patience) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, patience, [this] { return !blocks_.empty(); }))
      return nullptr;
    kit::Block block = std::move(blocks_.front());
    blocks_.pop_front();
    return block;
  }
  void run(const kit::Block& block) {
    setRunner(std::this_thread::get_id());
    block();
    setRunner(std::thread::id());
  }
  void setRunner(std::thread::id runner) {
    const std::lock_guard lock(mutex_);
    runner_ = runner;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<kit::Block> blocks_;
  std::thread::id runner_;
};

}  // namespace morvik::test
