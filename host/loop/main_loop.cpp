#include "host/loop/main_loop.h"

#include <poll.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <string>
#include <variant>

#include "host/posix/standard_streams.h"
#include "host/posix/thread.h"
#include "services/guard.h"

namespace morvik::host {
namespace {

constexpr uint64_t kNanosecondsPerMillisecond = 1'000'000;
/// The longest wait of one call; the caller calls again.
constexpr int kMaxPollMilliseconds = 60'000;
/// Two descriptors each. A loop takes two of these; the first loop also takes a pipe.
constexpr size_t kPipesBeforeALoop = 3;

constexpr services::GuardClause kThrewOnMainQueue =
    services::oneLine(kit::lcl_vError, "Morvik host: a block on the main queue threw and ended there: %@");
constexpr services::Guard kMainQueueGuard{kThrewOnMainQueue, kThrewOnMainQueue};

uint64_t nanosecondsFromNow(double delay_seconds) {
  const double delay = std::isnan(delay_seconds) ? 0.0 : std::clamp(delay_seconds, 0.0, kMaxDelaySeconds);
  return uv_hrtime() + static_cast<uint64_t>(std::ceil(delay * 1e9));
}

kit::Error engineError(const char* what, int code) {
  return {std::string("The system gave no ") + what + " for the main queue (" + uv_strerror(code) +
          "); free some of the process's file descriptors or memory and start again."};
}

/// libuv ends the process if the first of its loops finds no descriptors for itself and for a pipe shared by all loops.
/// Returns 0 if these and some more are available.
int findDescriptors() {
  constexpr int kMissing = -1;
  std::array<std::array<uv_file, 2>, kPipesBeforeALoop> pipes;
  int code = 0;
  for (auto& pipe : pipes) {
    pipe.fill(kMissing);
    if (code == 0)
      code = uv_pipe(pipe.data(), 0, 0);
  }
  for (const auto& pipe : pipes) {
    for (const uv_file end : pipe) {
      if (end != kMissing)
        ::close(end);
    }
  }
  return code;
}

}  // namespace

// The event loop behind the queue: a wake-up for any thread, and one alarm for the earliest timer.
struct MainLoop::Engine {
  uv_loop_t loop;
  uv_async_t wake_up;
  uv_timer_t alarm;
  bool is_open = false;

  /// libuv ends the process when it closes a descriptor of its own that took the place of a standard stream.
  std::optional<kit::Error> open(MainLoop* owner) {
    fillClosedStandardStreams();
    if (const int code = findDescriptors(); code != 0)
      return engineError("event loop", code);
    if (const int code = uv_loop_init(&loop); code != 0)
      return engineError("event loop", code);
    if (const int code = uv_async_init(&loop, &wake_up, [](uv_async_t* handle) { serve(handle->data); }); code != 0) {
      uv_loop_close(&loop);
      return engineError("wake-up", code);
    }
    uv_timer_init(&loop, &alarm);
    wake_up.data = alarm.data = owner;
    is_open = true;
    return std::nullopt;
  }

  void setAlarm(uint64_t due_nanoseconds) {
    const uint64_t now = uv_hrtime();
    const uint64_t left = due_nanoseconds > now ? due_nanoseconds - now : 0;
    uv_update_time(&loop);
    uv_timer_start(
        &alarm, [](uv_timer_t* handle) { serve(handle->data); },
        (left + kNanosecondsPerMillisecond - 1) / kNanosecondsPerMillisecond, 0);
  }

  // Handles are closed only while the loop runs. May be called again meanwhile.
  void closeHandles() {
    for (auto* handle : {reinterpret_cast<uv_handle_t*>(&wake_up), reinterpret_cast<uv_handle_t*>(&alarm)}) {
      if (uv_is_closing(handle) == 0)
        uv_close(handle, nullptr);
    }
  }

  // On the loop's thread, or when that has ended.
  void close() {
    if (!is_open)
      return;
    closeHandles();
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    is_open = false;
  }

  static void serve(void* owner) { static_cast<MainLoop*>(owner)->serve(); }
};

MainLoop::MainLoop(LoopMode mode, const services::Logger& logger)
    : mode_(mode), logger_(logger), engine_(std::make_unique<Engine>()) {}

MainLoop::~MainLoop() {
  stop();
}

std::optional<kit::Error> MainLoop::open() {
  {
    const std::scoped_lock hold(mutex_);
    if (auto error = engine_->open(this))
      return error;
  }
  if (mode_ == LoopMode::kPumped) {
    main_thread_ = std::this_thread::get_id();
    // Only a round of the loop adds the wake-up's descriptor to those that the app polls.
    uv_run(&engine_->loop, UV_RUN_NOWAIT);
  } else if (auto error = startOwnThread()) {
    return error;
  }
  const std::scoped_lock hold(mutex_);
  wakeLocked();
  return std::nullopt;
}

std::optional<kit::Error> MainLoop::startOwnThread() {
  auto thread = startThread("morvik-main", [this] {
    main_thread_ = std::this_thread::get_id();
    uv_run(&engine_->loop, UV_RUN_DEFAULT);
  });
  if (auto* error = std::get_if<kit::Error>(&thread)) {
    endHere();
    return std::move(*error);
  }
  const std::scoped_lock hold(mutex_);
  thread_ = std::get<std::thread>(std::move(thread));
  return std::nullopt;
}

bool MainLoop::drain(std::chrono::steady_clock::time_point deadline) {
  if (isMainThread())
    return !in_turn_ && drainHere(deadline);
  // If it could not be opened, nobody runs anything.
  if (mode_ == LoopMode::kPumped || !isOpen())
    return false;
  // A block posted after all waiting ones tells when they have run.
  struct Mark {
    std::mutex mutex;
    std::condition_variable reached;
    bool is_reached = false;
  };
  const auto mark = std::make_shared<Mark>();
  async([mark] {
    const std::scoped_lock hold(mark->mutex);
    mark->is_reached = true;
    mark->reached.notify_all();
  });
  std::unique_lock hold(mark->mutex);
  return mark->reached.wait_until(hold, deadline, [&mark] { return mark->is_reached; });
}

bool MainLoop::drainHere(std::chrono::steady_clock::time_point deadline) {
  if (!isOpen())
    return false;
  kit::Block block;
  size_t left = beginRound();
  while (left > 0 && std::chrono::steady_clock::now() < deadline && takeNext(block)) {
    runTurn(std::move(block));
    --left;
  }
  goToRest();
  return left == 0;
}

void MainLoop::cease() {
  const std::scoped_lock hold(mutex_);
  stopping_ = true;
  if (engine_->is_open)
    uv_async_send(&engine_->wake_up);
}

bool MainLoop::waitUntilIdle(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock hold(mutex_);
  return rest_.wait_until(hold, deadline, [this] { return !running_; });
}

bool MainLoop::stop() {
  if (isInTurn())
    return false;
  cease();
  if (thread_.joinable())
    thread_.join();
  {
    std::unique_lock hold(mutex_);
    rest_.wait(hold, [this] { return !dispatching_; });
  }
  endHere();
  // The system may reuse the thread's id.
  main_thread_ = std::thread::id();
  dropAll();
  return true;
}

void MainLoop::letGo() {
  const std::scoped_lock hold(mutex_);
  if (thread_.joinable())
    thread_.detach();
}

bool MainLoop::isOpen() const {
  const std::scoped_lock hold(mutex_);
  return engine_->is_open;
}

void MainLoop::endHere() {
  const std::scoped_lock hold(mutex_);
  engine_->close();
}

void MainLoop::dropAll() {
  // What the blocks hold is destroyed outside of the lock: it may call back into the queue.
  std::deque<kit::Block> blocks;
  std::map<TimerKey, Timer> timers;
  const std::scoped_lock hold(mutex_);
  blocks.swap(ready_);
  timers.swap(timers_);
}

void MainLoop::async(kit::Block block) {
  const std::scoped_lock hold(mutex_);
  if (stopping_)
    return;
  ready_.push_back(std::move(block));
  wakeLocked();
}

void MainLoop::after(double delay_seconds, kit::Block block) {
  const bool is_short = !(delay_seconds > runtime::kShortDelaySeconds);
  addTimer(delay_seconds, std::move(block), is_short ? Timer::Kind::kShort : Timer::Kind::kLonger);
}

MainLoop::TimerKey MainLoop::schedule(double delay_seconds, kit::Block block) {
  return addTimer(delay_seconds, std::move(block), Timer::Kind::kOfInstance);
}

MainLoop::TimerKey MainLoop::addTimer(double delay_seconds, kit::Block block, Timer::Kind kind) {
  const uint64_t due = nanosecondsFromNow(delay_seconds);
  const std::scoped_lock hold(mutex_);
  const TimerKey key{due, next_timer_++};
  if (stopping_)
    return key;
  timers_.emplace(key, Timer{std::move(block), kind});
  if (timers_.begin()->first == key)
    wakeLocked();
  return key;
}

void MainLoop::cancel(TimerKey timer) {
  kit::Block dropped;
  const std::scoped_lock hold(mutex_);
  const auto found = timers_.find(timer);
  if (found == timers_.end())
    return;
  dropped = std::move(found->second.block);
  timers_.erase(found);
}

void MainLoop::runOnMain(kit::Block block) {
  if (!isMainThread())
    return async(std::move(block));
  if (in_turn_)
    return runGuarded(block);
  {
    const std::scoped_lock hold(mutex_);
    if (stopping_)
      return;
    running_ = true;
  }
  runTurn(std::move(block));
}

void MainLoop::afterThisTurn(kit::Block block) {
  after_turn_.push_back(std::move(block));
}

runtime::MainLoopCounts MainLoop::counts() const {
  const std::scoped_lock hold(mutex_);
  runtime::MainLoopCounts counts;
  counts.blocks = ready_.size();
  for (const auto& [key, timer] : timers_) {
    counts.short_timers += timer.kind == Timer::Kind::kShort ? 1 : 0;
    counts.longer_timers += timer.kind == Timer::Kind::kLonger ? 1 : 0;
  }
  return counts;
}

int MainLoop::pollDescriptor() const {
  const std::scoped_lock hold(mutex_);
  return mode_ == LoopMode::kPumped && engine_->is_open ? uv_backend_fd(&engine_->loop) : -1;
}

int MainLoop::pollTimeoutMilliseconds() const {
  const std::scoped_lock hold(mutex_);
  if (mode_ != LoopMode::kPumped || !engine_->is_open)
    return -1;
  uv_update_time(&engine_->loop);
  return uv_backend_timeout(&engine_->loop);
}

void MainLoop::dispatch() {
  if (mode_ != LoopMode::kPumped || !isMainThread() || in_turn_)
    return;
  {
    const std::scoped_lock hold(mutex_);
    if (!engine_->is_open || stopping_)
      return;
    dispatching_ = true;
  }
  uv_run(&engine_->loop, UV_RUN_NOWAIT);
  const std::scoped_lock hold(mutex_);
  dispatching_ = false;
  rest_.notify_all();
}

bool MainLoop::canPump() const {
  return mode_ == LoopMode::kPumped && isMainThread() && !in_turn_ && process_.isHere();
}

void MainLoop::pumpFor(double max_seconds, const std::function<bool()>& is_done) {
  using std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;
  const auto time = Seconds(std::clamp(max_seconds, 0.0, kMaxDelaySeconds));
  const Pump pump{.until = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(time),
                  .is_done = is_done};
  while (canPump() && isOpen() && pump.goesOn()) {
    pump_ = &pump;
    pumpOnce(Seconds(pump.until - steady_clock::now()).count());
    pump_ = nullptr;
  }
}

void MainLoop::pumpOnce(double max_seconds) {
  const int loop_milliseconds = pollTimeoutMilliseconds();
  const double longest = std::clamp(max_seconds * 1e3, 0.0, static_cast<double>(kMaxPollMilliseconds));
  const int own_milliseconds = static_cast<int>(std::ceil(longest));
  pollfd polled{.fd = pollDescriptor(), .events = POLLIN, .revents = 0};
  // Interrupted by a signal: nothing to dispatch, and the caller calls again.
  static_cast<void>(
      poll(&polled, 1, loop_milliseconds < 0 ? own_milliseconds : std::min(loop_milliseconds, own_milliseconds)));
  dispatch();
}

bool MainLoop::runWithin(double max_seconds, kit::Block block) {
  enum class Step { kWaits, kRuns, kDone, kGivenUp };
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    Step step = Step::kWaits;
    /// False if another step has been taken already.
    bool go(Step from, Step to) {
      const std::scoped_lock hold(mutex);
      if (step != from)
        return false;
      step = to;
      changed.notify_all();
      return true;
    }
  };
  const auto shared = std::make_shared<Shared>();
  runOnMain([this, shared, block = std::move(block)] {
    if (!shared->go(Step::kWaits, Step::kRuns))
      return;
    runGuarded(block);
    shared->go(Step::kRuns, Step::kDone);
  });
  std::unique_lock lock(shared->mutex);
  using std::chrono::steady_clock;
  const auto time = std::chrono::duration<double>(std::clamp(max_seconds, 0.0, kMaxDelaySeconds));
  const auto deadline = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(time);
  if (!shared->changed.wait_until(lock, deadline, [&] { return shared->step != Step::kWaits; })) {
    shared->step = Step::kGivenUp;
    return false;
  }
  // It has begun; wait for it while there is time left.
  return shared->changed.wait_until(lock, deadline, [&] { return shared->step == Step::kDone; });
}

void MainLoop::wakeLocked() {
  if (awake_ || !engine_->is_open)
    return;
  awake_ = true;
  uv_async_send(&engine_->wake_up);
}

// One round: runs the due blocks, each as a turn. What they post waits for the next round, so that a loop that feeds
// itself cannot starve the app's own loop.
//
// Libraries open files and sockets in a turn. One that takes the place of a closed stream would mislead the network's
// thread: a place that is taken when that thread fills the closed ones may be free again when it opens a connection.
void MainLoop::serve() {
  fillClosedStandardStreams();
  kit::Block block;
  for (size_t left = beginRound(); left > 0 && mayBeginATurn() && takeNext(block); --left)
    runTurn(std::move(block));
  goToRest();
}

bool MainLoop::mayBeginATurn() const {
  return pump_ == nullptr || pump_->goesOn();
}

size_t MainLoop::beginRound() {
  const std::scoped_lock hold(mutex_);
  awake_ = true;
  collectDueLocked();
  return ready_.size();
}

/// Before each turn: a timer comes after what was posted before it was due, and before anything later.
void MainLoop::collectDueLocked() {
  const uint64_t now = uv_hrtime();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    ready_.push_back(std::move(timers_.begin()->second.block));
    timers_.erase(timers_.begin());
  }
}

bool MainLoop::takeNext(kit::Block& block) {
  const std::scoped_lock hold(mutex_);
  if (stopping_ || !process_.isHere())
    return false;
  collectDueLocked();
  if (ready_.empty())
    return false;
  block = std::move(ready_.front());
  ready_.pop_front();
  running_ = true;
  return true;
}

void MainLoop::goToRest() {
  // A block that forked returns in both processes; in the child this loop, which is the parent's, ends here.
  if (!process_.isHere())
    return uv_stop(&engine_->loop);
  const std::scoped_lock hold(mutex_);
  awake_ = false;
  if (stopping_) {
    engine_->closeHandles();
    return;
  }
  if (!timers_.empty())
    engine_->setAlarm(timers_.begin()->first.first);
  if (!ready_.empty())
    wakeLocked();
}

void MainLoop::runTurn(kit::Block block) {
  in_turn_ = true;
  runGuarded([this, &block] { frame_([this, &block] { runGuarded(block); }); });
  block = nullptr;
  std::vector<kit::Block> after;
  after.swap(after_turn_);
  for (const kit::Block& each : after)
    runGuarded(each);
  in_turn_ = false;
  const std::scoped_lock hold(mutex_);
  running_ = false;
  rest_.notify_all();
}

void MainLoop::runGuarded(const kit::Block& block) {
  services::guarded(logger_, kMainQueueGuard, MORVIK_HERE("-[MainLoop runTurn]"), block);
}

}  // namespace morvik::host
