#include "testing/virtual_loop.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace morvik::testing {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;
/// Longer waits are clamped to this (some 30,000 years), so that sums stay in range.
constexpr double kMaxWaitSeconds = 1e12;

int64_t microsecondsOf(double seconds) {
  if (std::isnan(seconds))
    return 0;
  return std::llround(std::clamp(seconds, 0.0, kMaxWaitSeconds) * kMicrosecondsPerSecond);
}

int64_t saturatedSum(int64_t a, int64_t b) {
  return a > std::numeric_limits<int64_t>::max() - b ? std::numeric_limits<int64_t>::max() : a + b;
}

}  // namespace

VirtualLoop::VirtualLoop(VirtualLoopOptions options)
    : options_(options),
      wall_clock_(options.wall_clock),
      monotonic_microseconds_(microsecondsOf(options.monotonic_seconds)) {}

VirtualLoop::~VirtualLoop() {
  // Blocks may own objects that call the loop when they are destroyed.
  kill();
}

// ------------------------------------------------------------------------------------------------------------- ports

void VirtualLoop::MainQueuePort::async(kit::Block block) {
  const std::lock_guard lock(loop_.mutex_);
  loop_.main_blocks_.push_back(std::move(block));
}

void VirtualLoop::MainQueuePort::after(double delay_seconds, kit::Block block) {
  const std::lock_guard lock(loop_.mutex_);
  loop_.addTimer(delay_seconds, std::move(block));
}

VirtualLoop::TimerKey VirtualLoop::addTimer(double delay_seconds, kit::Block block) {
  const int64_t due = saturatedSum(monotonic_microseconds_, microsecondsOf(delay_seconds));
  const TimerKey key{due, timers_made_++};
  timers_.emplace(key, std::move(block));
  return key;
}

void VirtualLoop::BackgroundQueuePort::async(kit::Block block) {
  const std::lock_guard lock(loop_.mutex_);
  loop_.background_blocks_.push_back(std::move(block));
}

kit::BackgroundTaskIdentifier VirtualLoop::BackgroundTasksPort::beginBackgroundTaskWithExpirationHandler(
    kit::Block expiration_handler) {
  VirtualLoop& loop = loop_;
  const std::lock_guard lock(loop.mutex_);
  const kit::BackgroundTaskIdentifier identifier = ++loop.last_task_;
  const TimerKey timer =
      loop.addTimer(loop.options_.background_grant_seconds, [&loop, identifier] { loop.expire(identifier); });
  loop.tasks_.emplace(identifier, Task{std::move(expiration_handler), timer});
  return identifier;
}

void VirtualLoop::BackgroundTasksPort::endBackgroundTask(kit::BackgroundTaskIdentifier identifier) {
  kit::Block handler;  // destroyed outside the lock: it may own anything
  const std::lock_guard lock(loop_.mutex_);
  const auto task = loop_.tasks_.find(identifier);
  if (task == loop_.tasks_.end())
    return;
  handler.swap(task->second.expiration_handler);
  loop_.timers_.erase(task->second.timer);
  loop_.tasks_.erase(task);
}

void VirtualLoop::NotificationsPort::addObserver(kit::Notification notification, std::function<void()> observer) {
  const std::lock_guard lock(loop_.mutex_);
  loop_.observers_.emplace_back(notification, std::move(observer));
}

void VirtualLoop::NotificationsPort::post(kit::Notification notification) {
  VirtualLoop& loop = loop_;
  loop.main_queue_.async([&loop, notification] { loop.callObservers(notification); });
}

void VirtualLoop::callObservers(kit::Notification notification) {
  std::vector<std::function<void()>> called;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [observed, observer] : observers_) {
      if (observed == notification)
        called.push_back(observer);
    }
  }
  for (const auto& observer : called)
    observer();
}

void VirtualLoop::expire(kit::BackgroundTaskIdentifier identifier) {
  kit::Block handler;
  {
    const std::lock_guard lock(mutex_);
    const auto task = tasks_.find(identifier);
    if (task == tasks_.end())
      return;
    ++expired_tasks_;
    handler.swap(task->second.expiration_handler);  // the task stays open until it is ended
  }
  if (handler)
    handler();
}

// ------------------------------------------------------------------------------------------------------------ timers

VirtualLoop::TimerKey VirtualLoop::schedule(double delay_seconds, kit::Block block) {
  const std::lock_guard lock(mutex_);
  return addTimer(delay_seconds, std::move(block));
}

void VirtualLoop::cancel(TimerKey timer) {
  kit::Block dropped;  // destroyed outside the lock: it may own anything
  const std::lock_guard lock(mutex_);
  const auto found = timers_.find(timer);
  if (found == timers_.end())
    return;
  dropped.swap(found->second);
  timers_.erase(found);
}

// ----------------------------------------------------------------------------------------------------------- running

void VirtualLoop::mustNotBeRunning(const char* operation) const {
  if (running() != Running::kNothing) {
    throw std::logic_error(std::string("virtual loop: ") + operation +
                           " was called from inside a block; call it from the test, between turns");
  }
}

void VirtualLoop::moveDueTimersToTheMainQueue() {
  while (!timers_.empty() && timers_.begin()->first.first <= monotonic_microseconds_) {
    main_blocks_.push_back(std::move(timers_.begin()->second));
    timers_.erase(timers_.begin());
  }
}

bool VirtualLoop::takeNextBlock(kit::Block& block) {
  const std::lock_guard lock(mutex_);
  moveDueTimersToTheMainQueue();
  const bool background = !background_blocks_.empty();
  std::deque<kit::Block>& queue = background ? background_blocks_ : main_blocks_;
  if (queue.empty())
    return false;
  block = std::move(queue.front());
  queue.pop_front();
  running_ = background ? Running::kBackgroundBlock : Running::kMainBlock;
  turn_is_open_ = true;
  ++turns_;
  return true;
}

bool VirtualLoop::step() {
  mustNotBeRunning("step");
  kit::Block block;
  if (!takeNextBlock(block))
    return false;
  runTurn(block);
  return true;
}

void VirtualLoop::runTurn(const kit::Block& block) {
  std::exception_ptr thrown;
  try {
    block();
  } catch (...) {
    thrown = std::current_exception();
  }
  try {
    endTurn();
  } catch (...) {
    const std::lock_guard lock(mutex_);
    running_ = Running::kNothing;
    turn_is_open_ = false;
    throw;
  }
  if (!thrown)
    return;
  if (!exception_sink_)
    std::rethrow_exception(thrown);
  exception_sink_(thrown);
}

void VirtualLoop::endTurn() {
  std::vector<std::function<void()>> commits;
  {
    const std::lock_guard lock(mutex_);
    commits = commits_;
  }
  for (const auto& commit : commits)
    commit();
  runActionsThatWaitedForTheCommit();
}

void VirtualLoop::runActionsThatWaitedForTheCommit() {
  for (;;) {
    std::vector<std::function<void()>> actions;
    {
      const std::lock_guard lock(mutex_);
      if (after_commit_.empty()) {
        running_ = Running::kNothing;
        turn_is_open_ = false;
        return;
      }
      actions.swap(after_commit_);
    }
    for (const auto& action : actions)
      action();
  }
}

size_t VirtualLoop::runUntilIdle() {
  mustNotBeRunning("runUntilIdle");
  size_t count = 0;
  while (step()) {
    if (++count < options_.max_blocks_at_one_time)
      continue;
    if (waitingMainBlocks() + waitingBackgroundBlocks() == 0)
      continue;
    throw RunawayLoop("virtual loop: " + std::to_string(count) +
                      " blocks ran without time passing, and still there are more: blocks keep making new ones "
                      "(raise max_blocks_at_one_time if this is meant)");
  }
  return count;
}

void VirtualLoop::perform(kit::Block block) {
  mustNotBeRunning("perform");
  main_queue_.async(std::move(block));
  runUntilIdle();
}

void VirtualLoop::setMonotonic(int64_t microseconds) {
  const int64_t passed = microseconds - monotonic_microseconds_;
  monotonic_microseconds_ = microseconds;
  wall_clock_.microseconds = saturatedSum(wall_clock_.microseconds, passed);
}

bool VirtualLoop::moveToTheNextTimer(int64_t limit_microseconds) {
  const std::lock_guard lock(mutex_);
  if (timers_.empty() || timers_.begin()->first.first > limit_microseconds) {
    setMonotonic(limit_microseconds);
    return false;
  }
  setMonotonic(std::max(timers_.begin()->first.first, monotonic_microseconds_));
  return true;
}

void VirtualLoop::advance(double seconds) {
  advanceUntil([] { return false; }, seconds);
}

bool VirtualLoop::advanceUntil(const std::function<bool()>& done, double limit_seconds) {
  mustNotBeRunning("advance");
  int64_t limit = 0;
  {
    const std::lock_guard lock(mutex_);
    limit = saturatedSum(monotonic_microseconds_, microsecondsOf(limit_seconds));
  }
  do {
    runUntilIdle();
    if (done())
      return true;
  } while (moveToTheNextTimer(limit));
  return done();
}

// -------------------------------------------------------------------------------------------------------------- time

kit::Date VirtualLoop::now() const {
  const std::lock_guard lock(mutex_);
  return wall_clock_;
}

double VirtualLoop::monotonicSeconds() const {
  const std::lock_guard lock(mutex_);
  return static_cast<double>(monotonic_microseconds_) / kMicrosecondsPerSecond;
}

void VirtualLoop::setWallClock(kit::Date date) {
  const std::lock_guard lock(mutex_);
  wall_clock_ = date;
}

void VirtualLoop::moveWallClock(double seconds) {
  const std::lock_guard lock(mutex_);
  wall_clock_ = wall_clock_.shiftedBySeconds(seconds);
}

// ------------------------------------------------------------------------------------------------- the end of a turn

void VirtualLoop::addCommit(std::function<void()> commit) {
  const std::lock_guard lock(mutex_);
  commits_.push_back(std::move(commit));
}

void VirtualLoop::afterCommit(std::function<void()> action) {
  const std::lock_guard lock(mutex_);
  after_commit_.push_back(std::move(action));
  if (!turn_is_open_)
    main_blocks_.emplace_back([] {});
}

void VirtualLoop::setExceptionSink(std::function<void(std::exception_ptr)> sink) {
  exception_sink_ = std::move(sink);
}

// ----------------------------------------------------------------------------------------------------------- looking

VirtualLoop::Running VirtualLoop::running() const {
  const std::lock_guard lock(mutex_);
  return running_;
}

uint64_t VirtualLoop::turns() const {
  const std::lock_guard lock(mutex_);
  return turns_;
}

size_t VirtualLoop::waitingMainBlocks() const {
  const std::lock_guard lock(mutex_);
  return main_blocks_.size();
}

size_t VirtualLoop::waitingBackgroundBlocks() const {
  const std::lock_guard lock(mutex_);
  return background_blocks_.size();
}

size_t VirtualLoop::waitingTimers() const {
  const std::lock_guard lock(mutex_);
  return timers_.size();
}

std::optional<double> VirtualLoop::secondsToNextTimer() const {
  const std::lock_guard lock(mutex_);
  if (timers_.empty())
    return std::nullopt;
  const int64_t wait = std::max<int64_t>(timers_.begin()->first.first - monotonic_microseconds_, 0);
  return static_cast<double>(wait) / kMicrosecondsPerSecond;
}

std::vector<kit::BackgroundTaskIdentifier> VirtualLoop::openBackgroundTasks() const {
  const std::lock_guard lock(mutex_);
  std::vector<kit::BackgroundTaskIdentifier> open;
  for (const auto& task : tasks_)
    open.push_back(task.first);
  return open;
}

size_t VirtualLoop::expiredBackgroundTasks() const {
  const std::lock_guard lock(mutex_);
  return expired_tasks_;
}

void VirtualLoop::kill() {
  mustNotBeRunning("kill");
  // These may own anything, including objects that call the loop when destroyed: destroy them outside the lock.
  std::deque<kit::Block> main_blocks;
  std::deque<kit::Block> background_blocks;
  std::map<TimerKey, kit::Block> timers;
  std::map<kit::BackgroundTaskIdentifier, Task> tasks;
  std::vector<std::pair<kit::Notification, std::function<void()>>> observers;
  std::vector<std::function<void()>> after_commit;
  const std::lock_guard lock(mutex_);
  main_blocks.swap(main_blocks_);
  background_blocks.swap(background_blocks_);
  timers.swap(timers_);
  tasks.swap(tasks_);
  observers.swap(observers_);
  after_commit.swap(after_commit_);
  ++kills_;
}

uint64_t VirtualLoop::kills() const {
  const std::lock_guard lock(mutex_);
  return kills_;
}

}  // namespace morvik::testing
