// The background queue on a real machine: one thread, started when the first block comes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

#include "kit/queues.h"
#include "services/log.h"

namespace morvik::host {

/// Blocks run one after the other, in order. After each the end-of-block hook runs. What a block throws ends there,
/// with a line in the log.
class BackgroundThread final : public kit::BackgroundQueue {
 public:
  explicit BackgroundThread(const services::Logger& logger) : logger_(logger) {}
  /// Stops at once, if that was not done.
  ~BackgroundThread() override;
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;

  /// Runs on the background thread at the end of every block. To be set before the first block.
  void setEndOfBlock(kit::Block hook) { end_of_block_ = std::move(hook); }

  void async(kit::Block block) override;
  /// Blocks that wait or run, their end-of-block hook included. Any thread.
  size_t pending() const;
  /// True on the thread that runs the blocks. Any thread.
  bool isCurrentThread() const { return id_.load() == std::this_thread::get_id(); }
  /// Runs what waits until `deadline`, drops the rest, and joins the thread; blocks that come later are dropped. Waits
  /// for the running block in any case. Not from within a block.
  void stop(std::chrono::steady_clock::time_point deadline);

 private:
  void run();
  bool takeNext(kit::Block& block);
  void runGuarded(const kit::Block& block);
  void startLocked();
  bool isPastDeadlineLocked() const { return stopping_ && std::chrono::steady_clock::now() >= deadline_; }

  const services::Logger logger_;
  kit::Block end_of_block_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<kit::Block> waiting_;
  bool running_ = false;
  bool stopping_ = false;
  std::chrono::steady_clock::time_point deadline_{};
  std::thread thread_;
  std::atomic<std::thread::id> id_{};
};

}  // namespace morvik::host
