// The background queue on a real machine: one thread, started with the first block.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "host/posix/process_word.h"
#include "kit/error.h"
#include "kit/queues.h"
#include "runtime/machine/machine.h"
#include "services/log.h"

namespace morvik::host {

/// As MachineBackground documents; stop() joins the thread.
class BackgroundThread final : public runtime::MachineBackground {
 public:
  explicit BackgroundThread(const services::Logger& logger) : logger_(logger) {}
  /// Stops at once if that was not done.
  ~BackgroundThread() override;
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;

  void setFrame(runtime::TurnFrame frame) override { frame_ = std::move(frame); }
  void setWhenIdle(kit::Block hook) override { when_idle_ = std::move(hook); }

  void async(kit::Block block) override;
  size_t pending() const override;
  bool isInBlock() const override { return id_.load() == std::this_thread::get_id(); }
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override;
  void stop(std::chrono::steady_clock::time_point deadline) override;
  void letGo() override;

 private:
  void run();
  bool takeNext(kit::Block& block);
  bool finishOne();
  void runGuarded(const kit::Block& block);
  std::optional<kit::Error> startLocked();
  bool isPastDeadlineLocked() const { return stopping_ && std::chrono::steady_clock::now() >= deadline_; }

  const services::Logger logger_;
  runtime::TurnFrame frame_ = [](const kit::Block& turn) { turn(); };
  kit::Block when_idle_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<kit::Block> waiting_;
  bool running_ = false;
  bool stopping_ = false;
  std::chrono::steady_clock::time_point deadline_{};
  std::thread thread_;
  std::atomic<std::thread::id> id_{};
  const runtime::OwnProcess process_ = ownProcess();
};

}  // namespace morvik::host
