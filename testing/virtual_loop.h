// Time and queues under a test's control: nothing happens until the test says so, and then always in the same order.
// One VirtualLoop provides the clock, both queues, the background tasks and the notifications of one device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kit/background_tasks.h"
#include "kit/clock.h"
#include "kit/notifications.h"
#include "kit/queues.h"

namespace morvik::testing {

/// Limit for blocks run without time passing and without the queues running empty: past it a loop feeds itself.
inline constexpr size_t kMaxBlocksAtOneTime = 100'000;

/// Running time that the platform grants to a background task.
inline constexpr double kBackgroundGrantSeconds = 30.0;

/// Thrown by the running functions when blocks keep adding new ones.
class RunawayLoop : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A notification centre with a function to post notifications.
class PostableNotificationCenter : public kit::NotificationCenter {
 public:
  /// Calls the observers, in the order of registration, in one later turn of the main queue. Any thread; does not
  /// block.
  virtual void post(kit::Notification notification) = 0;
};

struct VirtualLoopOptions {
  /// 2024-03-01T00:00:00Z: not zero, so that a forgotten clock shows.
  kit::Date wall_clock = kit::Date::fromSeconds(1'709'251'200);
  /// Time since the device was switched on; does not start at zero either.
  double monotonic_seconds = 1000.0;
  double background_grant_seconds = kBackgroundGrantSeconds;
  size_t max_blocks_at_one_time = kMaxBlocksAtOneTime;
};

/// The ports may be called from any thread. The functions that run blocks belong to one thread, the device's main
/// thread, and throw std::logic_error when called within a block.
///
/// One turn: a block of the main queue or of the background queue (waiting background blocks run before the next main
/// block), then the commits (the store's), then what waited for the commit (the turn's requests).
class VirtualLoop {
 public:
  enum class Running { kNothing, kMainBlock, kBackgroundBlock };
  /// When a timer is due, and its position among those due at the same time.
  using TimerKey = std::pair<int64_t, uint64_t>;

  explicit VirtualLoop(VirtualLoopOptions options = {});
  ~VirtualLoop();
  VirtualLoop(const VirtualLoop&) = delete;
  VirtualLoop& operator=(const VirtualLoop&) = delete;

  // The ports, owned by the loop.
  kit::Clock& clock() { return clock_; }
  kit::MainQueue& mainQueue() { return main_queue_; }
  kit::BackgroundQueue& backgroundQueue() { return background_queue_; }
  kit::BackgroundTasks& backgroundTasks() { return background_tasks_; }
  PostableNotificationCenter& notifications() { return notifications_; }

  // Timers that can be cancelled.
  /// Like mainQueue().after(), but returns the timer's key, which is never used twice. Any thread.
  TimerKey schedule(double delay_seconds, kit::Block block);
  /// Discards the timer's block if it is not due yet; a due block still runs. Any thread.
  void cancel(TimerKey timer);

  // Running. What a block throws is rethrown here at the end of its turn, unless an exception sink was set.
  /// Runs one turn; false when nothing is waiting. No time passes.
  bool step();
  /// Runs turns until nothing waits; returns their number. No time passes. RunawayLoop past max_blocks_at_one_time.
  size_t runUntilIdle();
  /// Posts `block` to the main queue and runs until nothing waits.
  void perform(kit::Block block);
  /// Lets `seconds` (0 or more) pass: everything that waits runs, each timer at its own time.
  void advance(double seconds);
  /// Lets time pass, from timer to timer, until `done()` is true; false if it is not after `limit_seconds`.
  bool advanceUntil(const std::function<bool()>& done, double limit_seconds);

  // Time. Wall clock and monotonic time advance together; the wall clock can also be set.
  kit::Date now() const;
  double monotonicSeconds() const;
  /// Sets the wall clock, as a user or a time server does. Timers are not affected.
  void setWallClock(kit::Date date);
  /// Moves the wall clock forward, or back when negative.
  void moveWallClock(double seconds);

  // The end of a turn.
  /// `commit` runs after every block, in the order of these calls.
  void addCommit(std::function<void()> commit);
  /// Runs `action` once, after the commits of the current turn; between turns, after those of a turn made for it. Any
  /// thread.
  void afterCommit(std::function<void()> action);
  /// Passes what blocks throw to `sink` instead of rethrowing it.
  void setExceptionSink(std::function<void(std::exception_ptr)> sink);

  // Inspection.
  Running running() const;
  /// Number of turns started.
  uint64_t turns() const;
  /// Blocks that wait in the main queue (without timers that are not due) and in the background queue.
  size_t waitingMainBlocks() const;
  size_t waitingBackgroundBlocks() const;
  size_t waitingTimers() const;
  /// Time until the next timer is due; nothing if there is none.
  std::optional<double> secondsToNextTimer() const;
  /// Tasks that were started and not ended.
  std::vector<kit::BackgroundTaskIdentifier> openBackgroundTasks() const;
  /// Tasks whose time ran out.
  size_t expiredBackgroundTasks() const;

  /// The process dies: blocks, timers, tasks, observers and what waited for a commit are discarded; nothing is
  /// committed. Time, commits and sink stay, for the next process.
  void kill();
  /// Number of kills.
  uint64_t kills() const;

 private:
  class ClockPort final : public kit::Clock {
   public:
    explicit ClockPort(VirtualLoop& loop) : loop_(loop) {}
    kit::Date now() const override { return loop_.now(); }

   private:
    VirtualLoop& loop_;
  };
  class MainQueuePort final : public kit::MainQueue {
   public:
    explicit MainQueuePort(VirtualLoop& loop) : loop_(loop) {}
    void async(kit::Block block) override;
    void after(double delay_seconds, kit::Block block) override;

   private:
    VirtualLoop& loop_;
  };
  class BackgroundQueuePort final : public kit::BackgroundQueue {
   public:
    explicit BackgroundQueuePort(VirtualLoop& loop) : loop_(loop) {}
    void async(kit::Block block) override;

   private:
    VirtualLoop& loop_;
  };
  class BackgroundTasksPort final : public kit::BackgroundTasks {
   public:
    explicit BackgroundTasksPort(VirtualLoop& loop) : loop_(loop) {}
    kit::BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(kit::Block expiration_handler) override;
    void endBackgroundTask(kit::BackgroundTaskIdentifier identifier) override;

   private:
    VirtualLoop& loop_;
  };
  class NotificationsPort final : public PostableNotificationCenter {
   public:
    explicit NotificationsPort(VirtualLoop& loop) : loop_(loop) {}
    void addObserver(kit::Notification notification, std::function<void()> observer) override;
    void post(kit::Notification notification) override;

   private:
    VirtualLoop& loop_;
  };
  struct Task {
    kit::Block expiration_handler;
    TimerKey timer;
  };

  TimerKey addTimer(double delay_seconds, kit::Block block);
  bool takeNextBlock(kit::Block& block);
  void moveDueTimersToTheMainQueue();
  void runTurn(const kit::Block& block);
  void endTurn();
  void runActionsThatWaitedForTheCommit();
  void setMonotonic(int64_t microseconds);
  bool moveToTheNextTimer(int64_t limit_microseconds);
  void expire(kit::BackgroundTaskIdentifier identifier);
  void callObservers(kit::Notification notification);
  void mustNotBeRunning(const char* operation) const;

  const VirtualLoopOptions options_;
  ClockPort clock_{*this};
  MainQueuePort main_queue_{*this};
  BackgroundQueuePort background_queue_{*this};
  BackgroundTasksPort background_tasks_{*this};
  NotificationsPort notifications_{*this};
  std::function<void(std::exception_ptr)> exception_sink_;  // of the thread that runs the blocks

  mutable std::mutex mutex_;  // guards everything below
  kit::Date wall_clock_;
  int64_t monotonic_microseconds_;
  std::deque<kit::Block> main_blocks_;
  std::deque<kit::Block> background_blocks_;
  std::map<TimerKey, kit::Block> timers_;
  uint64_t timers_made_ = 0;
  std::map<kit::BackgroundTaskIdentifier, Task> tasks_;
  kit::BackgroundTaskIdentifier last_task_ = kit::kBackgroundTaskInvalid;
  size_t expired_tasks_ = 0;
  std::vector<std::pair<kit::Notification, std::function<void()>>> observers_;
  std::vector<std::function<void()>> commits_;
  std::vector<std::function<void()>> after_commit_;
  Running running_ = Running::kNothing;
  bool turn_is_open_ = false;
  uint64_t turns_ = 0;
  uint64_t kills_ = 0;
};

}  // namespace morvik::testing
