#include "memory_queues.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "services/guard.h"

namespace platform {
namespace {

namespace kit = morvik::kit;
namespace services = morvik::services;
using std::chrono::microseconds;

// A block that throws must not end the process.
constexpr services::GuardClause kThrew = services::oneLine(kit::lcl_vError, "Memory platform: a block has thrown: %@");
constexpr services::Guard kGuard{kThrew, kThrew};

void guarded(const services::Logger& logger, const kit::Block& block) {
  services::guarded(logger, kGuard, MORVIK_HERE("-[MemoryLoop run]"), block);
}

microseconds microsecondsOf(double seconds) {
  return microseconds(static_cast<int64_t>(std::clamp(seconds, 0.0, 1e9) * 1e6));
}

/// Removes the first block before it runs, since it may add others.
kit::Block taken(std::deque<kit::Block>& blocks) {
  kit::Block first = std::move(blocks.front());
  blocks.pop_front();
  return first;
}

}  // namespace

MemoryLoop::MemoryLoop(DeviceTime& time, std::shared_ptr<OneThread> thread, const services::Logger& logger)
    : time_(time), thread_(std::move(thread)), logger_(logger) {}

void MemoryLoop::async(kit::Block block) {
  if (!has_ceased_)
    turns_.push_back(std::move(block));
}

MemoryLoop::TimerKey MemoryLoop::add(double delay_seconds, kit::Block block, bool is_counted) {
  const auto due = time_.uptime + microsecondsOf(delay_seconds);
  const TimerKey key{static_cast<uint64_t>(due.count()), ++timers_made_};
  if (!has_ceased_)
    timers_[key] = {std::move(block), delay_seconds <= morvik::runtime::kShortDelaySeconds, is_counted};
  return key;
}

void MemoryLoop::runOnMain(kit::Block block) {
  if (isInTurn())
    guarded(logger_, block);
  else if (canPump())
    runTurn(block);
  else
    async(std::move(block));
}

std::optional<kit::Error> MemoryLoop::open() {
  is_open_ = true;
  return std::nullopt;
}

void MemoryLoop::takeTimersThatAreDue() {
  while (!timers_.empty() && timers_.begin()->first.first <= static_cast<uint64_t>(time_.uptime.count()))
    async(std::move(timers_.extract(timers_.begin()).mapped().block));
}

/// The frame commits what the turn wrote; then runs what waited for the commit.
void MemoryLoop::runTurn(const kit::Block& block) {
  thread_->runs = OneThread::Runs::kTurn;
  guarded(logger_, [&] { frame_([&] { guarded(logger_, block); }); });
  while (!after_turn_.empty()) {
    for (const kit::Block& each : std::exchange(after_turn_, {}))
      guarded(logger_, each);
  }
  thread_->runs = OneThread::Runs::kNothing;
}

bool MemoryLoop::runNext() {
  if (!thread_->background_blocks.empty()) {
    taken(thread_->background_blocks)();
    return true;
  }
  takeTimersThatAreDue();
  if (turns_.empty())
    return false;
  ++turns_begun_;
  runTurn(taken(turns_));
  return true;
}

void MemoryLoop::dispatch() {
  while (canPump() && runNext()) {
  }
}

std::optional<microseconds> MemoryLoop::untilNextTimer() const {
  if (timers_.empty())
    return std::nullopt;
  return std::max(microseconds(0), microseconds(timers_.begin()->first.first) - time_.uptime);
}

// A real platform waits here for the first of a block, an answer from the network and a timer.
void MemoryLoop::pumpFor(double max_seconds, const std::function<bool()>& is_done) {
  const auto until = time_.uptime + microsecondsOf(max_seconds);
  while (canPump() && !is_done()) {
    if (runNext())
      continue;
    const auto left = until - time_.uptime;
    if (left <= microseconds(0))
      return;
    time_.pass(std::min(left, untilNextTimer().value_or(left)));
  }
}

bool MemoryLoop::runWithin(double, kit::Block block) {
  if (!canPump())
    return false;
  runTurn(block);
  return true;
}

int MemoryLoop::pollTimeoutMilliseconds() const {
  if (!turns_.empty() || !thread_->background_blocks.empty())
    return 0;
  const auto next = untilNextTimer();
  if (!next)
    return -1;
  const int64_t rounded_up = (next->count() + 999) / 1000;
  return static_cast<int>(std::min<int64_t>(rounded_up, std::numeric_limits<int>::max()));
}

// No time passes, so the deadline is never reached.
bool MemoryLoop::drain(std::chrono::steady_clock::time_point) {
  if (!canPump())
    return false;
  takeTimersThatAreDue();
  const uint64_t last = turns_begun_ + turns_.size();
  while (canPump() && turns_begun_ < last && runNext()) {
  }
  return turns_begun_ >= last;
}

bool MemoryLoop::stop() {
  if (isInTurn())
    return false;
  cease();
  // Destroying a block may post others, which are dropped.
  std::exchange(turns_, {}).clear();
  std::exchange(timers_, {}).clear();
  return true;
}

morvik::runtime::MainLoopCounts MemoryLoop::counts() const {
  morvik::runtime::MainLoopCounts counts{.blocks = turns_.size()};
  for (const auto& [key, timer] : timers_) {
    if (timer.is_counted)
      ++(timer.is_short ? counts.short_timers : counts.longer_timers);
  }
  return counts;
}

MemoryBackground::MemoryBackground(std::shared_ptr<OneThread> thread, const services::Logger& logger)
    : thread_(std::move(thread)), logger_(logger) {}

void MemoryBackground::async(kit::Block block) {
  if (has_ceased_)
    return;
  ++pending_;
  thread_->background_blocks.push_back([this, block = std::move(block)] { run(block); });
}

void MemoryBackground::run(const kit::Block& block) {
  thread_->runs = OneThread::Runs::kBackgroundBlock;
  guarded(logger_, [&] { frame_([&] { guarded(logger_, block); }); });
  thread_->runs = OneThread::Runs::kNothing;
  if (--pending_ == 0 && when_idle_)
    when_idle_();
}

bool MemoryBackground::drain(std::chrono::steady_clock::time_point) {
  if (thread_->runs != OneThread::Runs::kNothing)
    return false;
  while (!thread_->background_blocks.empty())
    taken(thread_->background_blocks)();
  return true;
}

void MemoryBackground::cease() {
  has_ceased_ = true;
  std::exchange(thread_->background_blocks, {}).clear();
}

void MemoryBackground::stop(std::chrono::steady_clock::time_point deadline) {
  if (!has_ceased_)
    drain(deadline);
  cease();
}

}  // namespace platform
