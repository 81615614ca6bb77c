#include "simulation/virtual_machine_loop.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "services/guard.h"

namespace morvik::simulation {
namespace {

constexpr services::GuardClause kThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: something was thrown on a virtual queue: %@");
constexpr services::Guard kLastGuard{kThrew, kThrew};

/// The shortest wait that a virtual loop can let pass.
constexpr double kShortestSeconds = 1e-6;

}  // namespace

// If the process dies first, a block may outlive the queue that it was posted to: it checks this.
struct VirtualMainLoop::State {
  explicit State(const services::Logger& of_process) : logger(of_process) {}
  services::Logger logger;
  runtime::TurnFrame frame = [](const kit::Block& turn) { turn(); };
  bool is_open = false;
  bool is_stopped = false;
  size_t blocks = 0;
  uint64_t begun = 0;  ///< blocks started so far
  size_t short_timers = 0;
  size_t longer_timers = 0;
  std::vector<kit::Block> before_opening;

  void guarded(const kit::Block& block) {
    services::guarded(logger, kLastGuard, MORVIK_HERE("-[VirtualMainLoop runTurn]"), block);
  }
};

VirtualMainLoop::VirtualMainLoop(testing::VirtualLoop& loop, const services::Logger& logger)
    : loop_(loop), process_(loop.kills()), state_(std::make_shared<State>(logger)) {}

VirtualMainLoop::~VirtualMainLoop() {
  stop();
}

void VirtualMainLoop::setFrame(runtime::TurnFrame frame) {
  state_->frame = std::move(frame);
}

std::optional<kit::Error> VirtualMainLoop::open() {
  state_->is_open = true;
  std::vector<kit::Block> waiting;
  waiting.swap(state_->before_opening);
  for (kit::Block& each : waiting)
    loop_.mainQueue().async(std::move(each));
  return std::nullopt;
}

// No time passes here, so whatever waits has all the time it needs.
bool VirtualMainLoop::drain(std::chrono::steady_clock::time_point) {
  if (loop_.running() != testing::VirtualLoop::Running::kNothing || !state_->is_open)
    return false;
  const uint64_t last = state_->begun + state_->blocks;
  while (state_->begun < last && loop_.step()) {
  }
  return state_->begun >= last;
}

void VirtualMainLoop::cease() {
  state_->is_stopped = true;
}

bool VirtualMainLoop::stop() {
  if (isInTurn())
    return false;
  state_->is_stopped = true;
  return true;
}

kit::Block VirtualMainLoop::asTurn(kit::Block block) const {
  return [state = state_, block = std::move(block)] {
    if (state->is_stopped)
      return;
    state->guarded([&] { state->frame([&] { state->guarded(block); }); });
  };
}

void VirtualMainLoop::async(kit::Block block) {
  if (state_->is_stopped)
    return;
  ++state_->blocks;
  kit::Block turn = asTurn([state = state_, block = std::move(block)] {
    --state->blocks;
    ++state->begun;
    block();
  });
  if (state_->is_open) {
    loop_.mainQueue().async(std::move(turn));
  } else {
    state_->before_opening.push_back(std::move(turn));
  }
}

void VirtualMainLoop::after(double delay_seconds, kit::Block block) {
  const bool is_short = !(delay_seconds > runtime::kShortDelaySeconds);
  size_t& count = is_short ? state_->short_timers : state_->longer_timers;
  ++count;
  // `count` is a member of the state, which the block keeps.
  loop_.mainQueue().after(delay_seconds, asTurn([state = state_, &count, block = std::move(block)] {
                            --count;
                            block();
                          }));
}

VirtualMainLoop::TimerKey VirtualMainLoop::schedule(double delay_seconds, kit::Block block) {
  const testing::VirtualLoop::TimerKey key = loop_.schedule(delay_seconds, asTurn(std::move(block)));
  return {static_cast<uint64_t>(key.first), key.second};
}

void VirtualMainLoop::cancel(TimerKey timer) {
  loop_.cancel({static_cast<int64_t>(timer.first), timer.second});
}

void VirtualMainLoop::runOnMain(kit::Block block) {
  if (isInTurn())
    return state_->guarded(block);
  async(std::move(block));
}

void VirtualMainLoop::afterThisTurn(kit::Block block) {
  loop_.afterCommit([state = state_, block = std::move(block)] {
    if (!state->is_stopped)
      state->guarded(block);
  });
}

bool VirtualMainLoop::isMainThread() const {
  return loop_.running() != testing::VirtualLoop::Running::kBackgroundBlock;
}

bool VirtualMainLoop::isInTurn() const {
  return loop_.running() == testing::VirtualLoop::Running::kMainBlock;
}

bool VirtualMainLoop::canPump() const {
  return !state_->is_stopped && loop_.kills() == process_ && loop_.running() == testing::VirtualLoop::Running::kNothing;
}

void VirtualMainLoop::pumpFor(double max_seconds, const std::function<bool()>& is_done) {
  const double until = loop_.monotonicSeconds() + max_seconds;
  while (canPump() && !is_done()) {
    if (loop_.step())
      continue;
    const double left = until - loop_.monotonicSeconds();
    if (left < kShortestSeconds)
      return;
    loop_.advance(std::min(left, loop_.secondsToNextTimer().value_or(left)));
  }
}

bool VirtualMainLoop::runWithin(double, kit::Block block) {
  if (!canPump())
    return false;
  const auto is_done = std::make_shared<bool>(false);
  async([state = state_, is_done, block = std::move(block)] {
    state->guarded(block);
    *is_done = true;
  });
  while (!*is_done && loop_.step()) {
  }
  return *is_done;
}

runtime::MainLoopCounts VirtualMainLoop::counts() const {
  return {.blocks = state_->blocks, .short_timers = state_->short_timers, .longer_timers = state_->longer_timers};
}

struct VirtualBackground::State {
  explicit State(const services::Logger& of_process) : logger(of_process) {}
  services::Logger logger;
  runtime::TurnFrame frame = [](const kit::Block& turn) { turn(); };
  kit::Block when_idle;
  size_t pending = 0;
  bool is_stopped = false;

  void guarded(const kit::Block& block) {
    services::guarded(logger, kLastGuard, MORVIK_HERE("-[VirtualBackground run]"), block);
  }
  void run(const kit::Block& block) {
    if (is_stopped)
      return;
    guarded([&] { frame([&] { guarded(block); }); });
    if (--pending == 0 && when_idle)
      when_idle();
  }
};

VirtualBackground::VirtualBackground(testing::VirtualLoop& loop, const services::Logger& logger)
    : loop_(loop), state_(std::make_shared<State>(logger)) {}

VirtualBackground::~VirtualBackground() {
  state_->is_stopped = true;
}

void VirtualBackground::setFrame(runtime::TurnFrame frame) {
  state_->frame = std::move(frame);
}

void VirtualBackground::setWhenIdle(kit::Block hook) {
  state_->when_idle = std::move(hook);
}

void VirtualBackground::async(kit::Block block) {
  if (state_->is_stopped)
    return;
  ++state_->pending;
  loop_.backgroundQueue().async([state = state_, block = std::move(block)] { state->run(block); });
}

size_t VirtualBackground::pending() const {
  return state_->pending;
}

bool VirtualBackground::isInBlock() const {
  return loop_.running() == testing::VirtualLoop::Running::kBackgroundBlock;
}

bool VirtualBackground::drain(std::chrono::steady_clock::time_point) {
  const bool may_run = loop_.running() == testing::VirtualLoop::Running::kNothing && !state_->is_stopped;
  while (may_run && state_->pending > 0 && loop_.step()) {
  }
  return may_run;
}

void VirtualBackground::cease() {
  state_->is_stopped = true;
}

void VirtualBackground::stop(std::chrono::steady_clock::time_point deadline) {
  drain(deadline);
  cease();
}

}  // namespace morvik::simulation
