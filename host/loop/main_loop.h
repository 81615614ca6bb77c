// The main queue on a real machine: an event loop, on a thread of ours or pumped from the app's own loop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "host/loop/turn_frame.h"
#include "kit/error.h"
#include "kit/queues.h"
#include "services/log.h"

namespace morvik::host {

enum class LoopMode {
  kOwnThread,  ///< open() starts a thread that runs the turns
  kPumped,     ///< the thread that calls open() runs them, in dispatch()
};

/// A delay of at most this is work that a session end has put off; a longer one is a retry.
inline constexpr double kShortDelaySeconds = 1.0;
/// Longer delays are cut to this (ten years), so that no sum of times overflows.
inline constexpr double kMaxDelaySeconds = 315'360'000.0;

/// What waits on the main queue.
struct MainLoopCounts {
  size_t blocks = 0;         ///< blocks that are due; the running one is not counted
  size_t short_timers = 0;   ///< blocks put off by at most kShortDelaySeconds
  size_t longer_timers = 0;  ///< blocks put off by more
};

/// One block is one turn, run inside the frame that was set (where its writes are committed and its requests leave).
/// When the frame is done, what afterThisTurn() was handed runs. What a block throws ends there, with a line in the
/// log.
class MainLoop final : public kit::MainQueue {
 public:
  /// Names a timer of schedule(); never used twice.
  using TimerKey = std::pair<uint64_t, uint64_t>;

  MainLoop(LoopMode mode, const services::Logger& logger);
  /// Stops, if that was not done. Not on the main thread while a turn runs.
  ~MainLoop() override;
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Runs around every turn, on the main thread. To be set before open().
  void setFrame(TurnFrame frame) { frame_ = std::move(frame); }
  /// Begins to run turns. Blocks that were handed over before wait until now. Once. An error says that the system gave
  /// no event loop or no thread.
  std::optional<kit::Error> open();
  /// Ends: the turn that runs is the last one, what waits is dropped, the thread is joined; blocks handed over later
  /// are dropped. Waits for the running turn alone. Answers false, and does nothing, when called from within a turn;
  /// a pumped loop is stopped on its own thread.
  bool stop();

  void async(kit::Block block) override;
  void after(double delay_seconds, kit::Block block) override;
  /// As after(), for the host's own affairs: can be cancelled and is not counted. Any thread.
  TimerKey schedule(double delay_seconds, kit::Block block);
  /// Drops the timer's block if it still waits; one that is due already runs. Any thread.
  void cancel(TimerKey timer);

  /// Runs `block` at once when called on the main thread (within the running turn, else as a turn of its own), and
  /// posts it from any other thread.
  void runOnMain(kit::Block block);
  /// Runs `block` once the running turn is committed, before the next. From within a turn only.
  void afterThisTurn(kit::Block block);
  /// True on the thread that runs the turns. Any thread.
  bool isMainThread() const { return main_thread_.load() == std::this_thread::get_id(); }
  /// True within a turn, asked on its thread.
  bool isInTurn() const { return isMainThread() && in_turn_; }
  /// Any thread.
  MainLoopCounts counts() const;

  // A pumped loop, on its thread; else -1, -1 and nothing.
  int pollDescriptor() const;
  int pollTimeoutMilliseconds() const;
  void dispatch();

 private:
  struct Engine;
  struct Timer {
    kit::Block block;
    enum class Kind { kShort, kLonger, kOfHost } kind;
  };

  TimerKey addTimer(double delay_seconds, kit::Block block, Timer::Kind kind);
  std::optional<kit::Error> startOwnThread();
  void wakeLocked();
  void serve();
  size_t collectDue();
  bool takeNext(kit::Block& block);
  void goToRest();
  void runTurn(kit::Block block);
  void runGuarded(const kit::Block& block);
  void endHere();
  void dropAll();

  const LoopMode mode_;
  const services::Logger logger_;
  TurnFrame frame_ = [](const kit::Block& turn) { turn(); };
  std::atomic<std::thread::id> main_thread_{};
  // Touched on the main thread alone.
  bool in_turn_ = false;
  std::vector<kit::Block> after_turn_;

  mutable std::mutex mutex_;
  std::deque<kit::Block> ready_;
  std::map<TimerKey, Timer> timers_;  ///< by the time they are due, then by the order they came in
  uint64_t next_timer_ = 1;
  bool awake_ = false;  ///< the loop will look at the queue without being woken
  bool stopping_ = false;

  std::unique_ptr<Engine> engine_;
  std::thread thread_;
};

}  // namespace morvik::host
