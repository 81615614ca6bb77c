// The background queue on a real machine: one thread, started when the first block comes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

#include "host/loop/turn_frame.h"
#include "kit/queues.h"
#include "services/log.h"

namespace morvik::host {

/// Blocks run one after the other, in order, each inside the frame that was set. What a block throws ends there, with a
/// line in the log.
class BackgroundThread final : public kit::BackgroundQueue {
 public:
  explicit BackgroundThread(const services::Logger& logger) : logger_(logger) {}
  /// Stops at once, if that was not done.
  ~BackgroundThread() override;
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;

  /// Runs around every block, on the background thread. To be set before the first block.
  void setFrame(TurnFrame frame) { frame_ = std::move(frame); }
  /// Called on the background thread each time the last block that waited is done and no longer counted. Must not
  /// throw. To be set before the first block.
  void setWhenIdle(kit::Block hook) { when_idle_ = std::move(hook); }

  void async(kit::Block block) override;
  /// Blocks that wait or run, their frame included. Any thread.
  size_t pending() const;
  /// True on the thread that runs the blocks. Any thread.
  bool isCurrentThread() const { return id_.load() == std::this_thread::get_id(); }
  /// Runs what waits until `deadline`, drops the rest, and joins the thread; blocks that come later are dropped. Waits
  /// for the running block in any case. Not from within a block.
  void stop(std::chrono::steady_clock::time_point deadline);

 private:
  void run();
  bool takeNext(kit::Block& block);
  bool finishOne();
  void runGuarded(const kit::Block& block);
  void startLocked();
  bool isPastDeadlineLocked() const { return stopping_ && std::chrono::steady_clock::now() >= deadline_; }

  const services::Logger logger_;
  TurnFrame frame_ = [](const kit::Block& turn) { turn(); };
  kit::Block when_idle_;
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
