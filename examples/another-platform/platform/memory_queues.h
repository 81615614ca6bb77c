// The main queue and the background queue of a process, on the one thread that pumps them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "kit/date.h"
#include "runtime/machine/machine.h"

namespace platform {

/// The device's time. It passes only while somebody waits.
struct DeviceTime {
  morvik::kit::Date now = morvik::kit::Date::fromSeconds(1'709'251'200);
  std::chrono::microseconds uptime{0};
  void pass(std::chrono::microseconds duration) {
    now.microseconds += duration.count();
    uptime += duration;
  }
};

/// Shared by both queues. There is one thread, so the main queue runs the background blocks as well.
struct OneThread {
  enum class Runs { kNothing, kTurn, kBackgroundBlock };
  Runs runs = Runs::kNothing;
  std::deque<morvik::kit::Block> background_blocks;
};

/// The main queue; the app pumps it. A platform with threads needs a lock here.
class MemoryLoop final : public morvik::runtime::MachineLoop {
 public:
  MemoryLoop(DeviceTime& time, std::shared_ptr<OneThread> thread, const morvik::services::Logger& logger);
  ~MemoryLoop() override { stop(); }

  // Blocks and timers.
  void async(morvik::kit::Block block) override;
  void after(double delay_seconds, morvik::kit::Block block) override { add(delay_seconds, std::move(block), true); }
  TimerKey schedule(double delay_seconds, morvik::kit::Block block) override {
    return add(delay_seconds, std::move(block), false);
  }
  void cancel(TimerKey timer) override { timers_.erase(timer); }
  void runOnMain(morvik::kit::Block block) override;
  void afterThisTurn(morvik::kit::Block block) override { after_turn_.push_back(std::move(block)); }

  // Running them.
  void setFrame(morvik::runtime::TurnFrame frame) override { frame_ = std::move(frame); }
  std::optional<morvik::kit::Error> open() override;
  void dispatch() override;
  void pumpFor(double max_seconds, const std::function<bool()>& is_done) override;
  bool runWithin(double max_seconds, morvik::kit::Block block) override;
  bool canPump() const override { return is_open_ && thread_->runs == OneThread::Runs::kNothing; }
  int pollDescriptor() const override { return -1; }  // this platform has no descriptors
  int pollTimeoutMilliseconds() const override;

  // Ending.
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override { is_open_ = false, has_ceased_ = true; }
  bool waitUntilIdle(std::chrono::steady_clock::time_point) override { return !isInTurn(); }
  bool stop() override;
  void letGo() override {}

  // Inspection.
  bool isMainThread() const override { return thread_->runs != OneThread::Runs::kBackgroundBlock; }
  bool isInTurn() const override { return thread_->runs == OneThread::Runs::kTurn; }
  morvik::runtime::MainLoopCounts counts() const override;

 private:
  struct Timer {
    morvik::kit::Block block;
    bool is_short = false;
    bool is_counted = false;
  };

  TimerKey add(double delay_seconds, morvik::kit::Block block, bool is_counted);
  bool runNext();
  void runTurn(const morvik::kit::Block& block);
  void takeTimersThatAreDue();
  std::optional<std::chrono::microseconds> untilNextTimer() const;

  DeviceTime& time_;
  const std::shared_ptr<OneThread> thread_;
  const morvik::services::Logger logger_;
  morvik::runtime::TurnFrame frame_;
  bool is_open_ = false;
  bool has_ceased_ = false;
  std::deque<morvik::kit::Block> turns_;
  uint64_t turns_begun_ = 0;
  std::map<TimerKey, Timer> timers_;  ///< by due time, in microseconds of uptime, and number
  uint64_t timers_made_ = 0;
  std::vector<morvik::kit::Block> after_turn_;
};

/// The background queue.
class MemoryBackground final : public morvik::runtime::MachineBackground {
 public:
  MemoryBackground(std::shared_ptr<OneThread> thread, const morvik::services::Logger& logger);
  ~MemoryBackground() override { cease(); }

  void async(morvik::kit::Block block) override;
  void setFrame(morvik::runtime::TurnFrame frame) override { frame_ = std::move(frame); }
  void setWhenIdle(morvik::kit::Block hook) override { when_idle_ = std::move(hook); }
  size_t pending() const override { return pending_; }
  bool isInBlock() const override { return thread_->runs == OneThread::Runs::kBackgroundBlock; }
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override;
  void stop(std::chrono::steady_clock::time_point deadline) override;
  void letGo() override {}

 private:
  void run(const morvik::kit::Block& block);

  const std::shared_ptr<OneThread> thread_;
  const morvik::services::Logger logger_;
  morvik::runtime::TurnFrame frame_;
  morvik::kit::Block when_idle_;
  size_t pending_ = 0;
  bool has_ceased_ = false;
};

}  // namespace platform
