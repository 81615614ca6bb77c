// The main queue on a real machine: an event loop, on a thread of its own or pumped from the app's loop.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "host/posix/process_word.h"
#include "kit/error.h"
#include "kit/queues.h"
#include "runtime/machine/machine.h"
#include "services/log.h"

namespace morvik::host {

enum class LoopMode {
  kOwnThread,  ///< open() starts a thread that runs the turns
  kPumped,     ///< the thread that calls open() runs them, in dispatch()
};

/// Longer delays are reduced to this (ten years), so that no sum of times overflows.
inline constexpr double kMaxDelaySeconds = 315'360'000.0;

/// As MachineLoop documents; stop() joins the thread.
class MainLoop final : public runtime::MachineLoop {
 public:
  MainLoop(LoopMode mode, const services::Logger& logger);
  /// Stops if that was not done. Not on the main thread while a turn runs.
  ~MainLoop() override;
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  void setFrame(runtime::TurnFrame frame) override { frame_ = std::move(frame); }
  /// An error: the system had no event loop or no thread left.
  std::optional<kit::Error> open() override;
  bool drain(std::chrono::steady_clock::time_point deadline) override;
  void cease() override;
  bool waitUntilIdle(std::chrono::steady_clock::time_point deadline) override;
  bool stop() override;
  void letGo() override;

  void async(kit::Block block) override;
  void after(double delay_seconds, kit::Block block) override;
  TimerKey schedule(double delay_seconds, kit::Block block) override;
  void cancel(TimerKey timer) override;
  void runOnMain(kit::Block block) override;
  void afterThisTurn(kit::Block block) override;
  bool isMainThread() const override { return main_thread_.load() == std::this_thread::get_id(); }
  bool isInTurn() const override { return isMainThread() && in_turn_; }
  runtime::MainLoopCounts counts() const override;
  int pollDescriptor() const override;
  int pollTimeoutMilliseconds() const override;
  void dispatch() override;
  bool canPump() const override;
  void pumpFor(double max_seconds, const std::function<bool()>& is_done) override;
  bool runWithin(double max_seconds, kit::Block block) override;

 private:
  struct Engine;
  struct Timer {
    kit::Block block;
    enum class Kind { kShort, kLonger, kOfInstance } kind;
  };
  /// A running pumpFor().
  struct Pump {
    std::chrono::steady_clock::time_point until;
    const std::function<bool()>& is_done;
    bool goesOn() const { return std::chrono::steady_clock::now() < until && !is_done(); }
  };

  TimerKey addTimer(double delay_seconds, kit::Block block, Timer::Kind kind);
  std::optional<kit::Error> startOwnThread();
  void wakeLocked();
  void pumpOnce(double max_seconds);
  bool mayBeginATurn() const;
  void serve();
  size_t beginRound();
  void collectDueLocked();
  bool takeNext(kit::Block& block);
  void goToRest();
  bool drainHere(std::chrono::steady_clock::time_point deadline);
  bool isOpen() const;
  void runTurn(kit::Block block);
  void runGuarded(const kit::Block& block);
  void endHere();
  void dropAll();

  const LoopMode mode_;
  const services::Logger logger_;
  runtime::TurnFrame frame_ = [](const kit::Block& turn) { turn(); };
  std::atomic<std::thread::id> main_thread_{};
  // Used on the main thread only.
  bool in_turn_ = false;
  const Pump* pump_ = nullptr;
  std::vector<kit::Block> after_turn_;

  mutable std::mutex mutex_;
  std::deque<kit::Block> ready_;
  std::map<TimerKey, Timer> timers_;  ///< by due time, then by order of arrival
  uint64_t next_timer_ = 1;
  bool awake_ = false;  ///< the loop will check the queue without being woken
  bool stopping_ = false;
  bool running_ = false;          ///< a turn is running
  bool dispatching_ = false;      ///< pumped: the engine is in use on its thread
  std::condition_variable rest_;  ///< one of the above has ended

  std::unique_ptr<Engine> engine_;
  std::thread thread_;
  const runtime::OwnProcess process_ = ownProcess();
};

}  // namespace morvik::host
