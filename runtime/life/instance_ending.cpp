#include "runtime/life/instance_ending.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "runtime/instance_parts.h"
#include "runtime/life/kept_for_good.h"
#include "runtime/observe/status_of.h"
#include "services/guard.h"

namespace morvik::runtime {
namespace {

using std::chrono::steady_clock;

constexpr const char* kStopOperation = "-[MorvikCore stop]";

constexpr services::GuardClause kStopThrew = services::oneLine(
    kit::lcl_vError, "Morvik host: the kit could not be stopped completely: %@; make sure that the process has memory");
constexpr services::Guard kStopGuard{kStopThrew, kStopThrew};

std::atomic<bool> is_process_ending{false};

/// Detached threads that are destroying an instance's parts just now. The process ends after that, or before.
class GoingParts {
 public:
  static GoingParts& all() {
    static auto& all = *new GoingParts;
    return all;
  }
  void begin() {
    const std::scoped_lock hold(mutex_);
    ++count_;
    is_here_ = true;
  }
  void end() {
    const std::scoped_lock hold(mutex_);
    --count_;
    is_here_ = false;
    ended_.notify_all();
  }
  /// A destructor on this thread may end the process: it does not wait for itself.
  void waitForOthers(std::chrono::milliseconds longest) {
    std::unique_lock hold(mutex_);
    ended_.wait_for(hold, longest, [this] { return count_ == (is_here_ ? 1U : 0U); });
  }

 private:
  static thread_local bool is_here_;
  std::mutex mutex_;
  std::condition_variable ended_;
  size_t count_ = 0;
};
thread_local bool GoingParts::is_here_ = false;

/// Never freed or destroyed; kept reachable, so that it is not reported as a leak.
template <class Kept>
void keepForGood(std::shared_ptr<Kept> kept) {
  static auto& mutex = *new std::mutex;
  static auto& all = *new std::vector<std::shared_ptr<Kept>>;
  const std::scoped_lock hold(mutex);
  all.push_back(std::move(kept));
}

}  // namespace

/// The part of the end that may take arbitrarily long. Shares the parts, so that it may outlive whoever began it.
class InstanceEnding::Closing {
 public:
  enum class Handlers { kRun, kDropped };
  Closing(std::shared_ptr<InstanceParts> parts, steady_clock::time_point drain_until, Handlers handlers)
      : parts_(std::move(parts)), drain_until_(drain_until), handlers_(handlers) {}

  /// Stops all queues and the network.
  void closeQueues() {
    InstanceParts& parts = *parts_;
    if (handlers_ == Handlers::kDropped)
      parts.transport->shutdown();
    parts.main_loop->drain(drain_until_);
    if (!parts.life->isOwnProcess())
      return;  // on the pumping thread, a callback forked
    parts.background->drain(std::min(drain_until_, parts.clock->steadyNow() + kBackgroundDrainTime));
    parts.main_loop->cease();
    parts.background->cease();
    parts.transport->shutdown();
    parts.background->stop(parts.clock->steadyNow());
    parts.main_loop->stop();
  }
  void closeStore() {
    parts_->calls.close();
    parts_->store->shutdown();
  }

  /// Both, on a thread of its own; in between it waits until the crash hook is gone. An exception (no memory) does not
  /// keep the rest from being closed.
  void run() {
    const services::Logger logger = parts_->logger.withoutWaiting();
    services::guarded(logger, kStopGuard, MORVIK_HERE(kStopOperation), [this] { closeQueues(); });
    {
      std::unique_lock hold(mutex_);
      queues_are_closed_ = true;
      changed_.notify_all();
      changed_.wait(hold, [this] { return may_close_store_; });
    }
    services::guarded(logger, kStopGuard, MORVIK_HERE(kStopOperation), [this] {
      closeStore();
      Status status = statusOf(*parts_);
      const std::scoped_lock hold(mutex_);
      status_ = std::move(status);
    });
    letPartsGo();
    const std::scoped_lock hold(mutex_);
    is_done_ = true;
    changed_.notify_all();
  }
  void waitUntilQueuesAreClosed(steady_clock::time_point deadline) {
    std::unique_lock hold(mutex_);
    changed_.wait_until(hold, deadline, [this] { return queues_are_closed_; });
  }
  void letStoreClose() {
    const std::scoped_lock hold(mutex_);
    may_close_store_ = true;
    changed_.notify_all();
  }
  bool waitUntilDone(steady_clock::time_point deadline) {
    std::unique_lock hold(mutex_);
    return changed_.wait_until(hold, deadline, [this] { return is_done_; });
  }
  /// The status when all was closed; nothing before that.
  std::optional<Status> status() {
    const std::scoped_lock hold(mutex_);
    return status_;
  }

 private:
  /// At the end of the process, nothing that a library has already cleaned up may be destroyed.
  void letPartsGo() {
    GoingParts::all().begin();
    if (is_process_ending)
      keepForGood(parts_);
    parts_.reset();
    GoingParts::all().end();
  }

  std::shared_ptr<InstanceParts> parts_;
  const steady_clock::time_point drain_until_;
  const Handlers handlers_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool queues_are_closed_ = false;
  bool may_close_store_ = false;
  bool is_done_ = false;
  std::optional<Status> status_;
};

InstanceEnding::InstanceEnding(std::shared_ptr<InstanceParts> parts) : parts_(std::move(parts)) {}

bool InstanceEnding::isWithinCallback() const {
  return parts_->main_loop->isInTurn() || parts_->background->isInBlock() || parts_->life->isInLogSink() ||
         parts_->life->isInDone();
}

bool InstanceEnding::stop() {
  if (!parts_->life->isOwnProcess())
    return true;
  const auto itself = shared_from_this();  // a callback here may destroy the instance
  const auto begun = parts_->clock->steadyNow();
  if (isWithinCallback()) {
    // Within the sink no second line can be written.
    const auto marked = parts_->lines.postFromHere();
    services::guarded(parts_->logger, kStopGuard, MORVIK_HERE(kStopOperation), [this] {
      MORVIK_LOG(parts_->logger, kit::lcl_vError, kStopOperation,
                 "Morvik host: the kit cannot be stopped from within one of its callbacks; stop it from outside");
    });
    return false;
  }
  return !begin() || closeGuarded(begun, {});
}

void InstanceEnding::stopAndThen(const std::function<void()>& last) {
  const auto itself = shared_from_this();
  const auto begun = parts_->clock->steadyNow();
  if (begin())
    closeGuarded(begun, last);
  else
    last();
}

/// The next stop retries whatever did not finish.
bool InstanceEnding::closeGuarded(steady_clock::time_point begun, const std::function<void()>& last) {
  if (services::guarded(parts_->logger.withoutWaiting(), kStopGuard, MORVIK_HERE(kStopOperation),
                        [&] { close(begun, last); }))
    return true;
  setStage(Stage::kRunning);
  return false;
}

bool InstanceEnding::begin() {
  std::unique_lock hold(mutex_);
  if (stage_ == Stage::kRunning) {
    stage_ = Stage::kStopping;
    return true;
  }
  stopped_.wait(hold, [this] { return stage_ != Stage::kStopping; });
  return false;
}

void InstanceEnding::close(steady_clock::time_point begun, const std::function<void()>& last) {
  parts_->store->beginToEnd();
  parts_->log_sink->waitUntil(begun + kDrainTime);
  parts_->flushes.endAll();
  if (!parts_->life->isOwnProcess())
    return;  // a child forked by a callback here: everything to be closed is its parent's
  parts_->life->beginToEnd();
  parts_->shared_state.stop_request.make();
  const auto closed_by = begun + kClosingTime;
  const auto deadline = closed_by + kLastLinesTime;
  const auto handlers = last ? Closing::Handlers::kDropped : Closing::Handlers::kRun;
  const auto closing = std::make_shared<Closing>(parts_, begun + kDrainTime, handlers);
  if (parts_->main_loop->isMainThread()) {
    if (handlers == Closing::Handlers::kDropped)
      parts_->transport->shutdown();
    parts_->main_loop->drain(begun + kDrainTime);
  }
  if (!parts_->life->isOwnProcess())
    return;
  std::unique_ptr<MachineThread> closer;
  if (parts_->has_threads)
    closer = startThread("morvik-end", [closing] { closing->run(); });
  if (closer == nullptr) {
    closing->closeQueues();
    if (!parts_->life->isOwnProcess())
      return;
    parts_->crash_hook.reset();
    closing->closeStore();
    // Without other threads the main queue has run all of them, or its process is gone.
    if (parts_->has_threads)
      parts_->flushes.endRest();
    return finish(true, deadline, statusOf(*parts_), last);
  }
  closing->waitUntilQueuesAreClosed(closed_by);
  // Its signal stack belongs to this thread; its file belongs to whoever has the store.
  parts_->crash_hook.reset();
  closing->letStoreClose();
  const bool is_closed = closing->waitUntilDone(closed_by);
  if (is_closed)
    closer->join();
  else
    closer->detach();
  parts_->flushes.endRest();
  finish(is_closed, deadline, closing->status().value_or(statusPastTheStore(*parts_)), last);
}

void InstanceEnding::finish(bool is_closed, steady_clock::time_point deadline, Status status,
                            const std::function<void()>& last) {
  // As in close(): the end of a flush may have been told on this thread.
  if (!parts_->life->isOwnProcess())
    return;
  const auto left = static_cast<unsigned long>(parts_->life->closePosted());
  const auto marked = parts_->lines.postFromHere();
  if (left > 0) {
    MORVIK_LOG(parts_->logger, kit::lcl_vError, kStopOperation,
               "Morvik host: %lu calls that waited for the main queue could not run any more; stop the kit while that "
               "queue runs, and let no callback take long",
               left);
  }
  MorvikCoreLib::withdrawSharedPorts(parts_->ports);
  parts_->observations.instanceDidStop(std::move(status));
  parts_->facade.setDelegate({});
  if (last)
    last();
  writeLastLines(is_closed, deadline);
  // Without another thread, the app's sink took them on this one and may have forked.
  if (!parts_->life->isOwnProcess())
    return;
  parts_->log_sink->close(deadline);
  parts_->life->end();
  setStage(Stage::kStopped);
}

/// The app's thread may hold a lock that the sink takes. So another thread writes, and this one waits for it, but not
/// for a sink that does not return.
void InstanceEnding::writeLastLines(bool is_closed, steady_clock::time_point deadline) {
  if (!parts_->lines.areWaiting())
    return;
  const auto write = [is_closed](InstanceParts& parts) {
    if (is_closed)
      parts.lines.writeAll();
    else
      parts.lines.tryWriteAll(parts.clock->steadyNow() + kLastLinesTime / 2);  // before the waiting thread gives up
  };
  if (!parts_->has_threads)
    return write(*parts_);
  const auto written = std::make_shared<std::promise<void>>();
  const auto writer = startThread("morvik-log", [write, parts = parts_.get(), written] {
    write(*parts);
    written->set_value();
  });
  if (writer == nullptr)
    return parts_->lines.tryWriteAll(parts_->clock->steadyNow());
  const auto give_up = std::max(deadline, parts_->clock->steadyNow() + kLastLinesTime);
  if (written->get_future().wait_until(give_up) == std::future_status::ready) {
    writer->join();
  } else {
    keepForGood(parts_);
    writer->detach();
  }
}

/// Null: the system has none left.
std::unique_ptr<MachineThread> InstanceEnding::startThread(const char* name, std::function<void()> body) {
  auto started = parts_->threads->start(name, std::move(body));
  auto* const thread = std::get_if<std::unique_ptr<MachineThread>>(&started);
  return thread != nullptr ? std::move(*thread) : nullptr;
}

void InstanceEnding::setStage(Stage stage) {
  const std::scoped_lock hold(mutex_);
  stage_ = stage;
  stopped_.notify_all();
}

void InstanceEnding::stopOrLeave() {
  if (!parts_->life->isOwnProcess())
    return keepItself();
  if (!isWithinCallback()) {
    // What the first attempt closed may have freed memory for the second.
    if (!stop() && !stop())
      leaveWithoutMemory();
    return;
  }
  if (!services::guarded(parts_->logger.withoutWaiting(), kStopGuard, MORVIK_HERE(kStopOperation), [this] { leave(); }))
    leaveWithoutMemory();
}

void InstanceEnding::keepItself() {
  if (itself_ != nullptr)
    return;
  itself_ = shared_from_this();
  KeptForGood<InstanceEnding>::add(*this);
}

/// Allocates nothing. Permanent: threads that nobody can end go on using the parts.
void InstanceEnding::leaveWithoutMemory() {
  keepItself();
  parts_->store->beginToEnd();
  parts_->life->beginToEnd();
  parts_->flushes.endWaits();
  parts_->shared_state.stop_request.make();
  parts_->main_loop->cease();
  parts_->background->cease();
  parts_->life->end();
  setStage(Stage::kStopped);
}

void InstanceEnding::leave() {
  bool is_first = false;
  {
    const std::scoped_lock hold(mutex_);
    is_first = stage_ == Stage::kRunning;
    if (is_first)
      stage_ = Stage::kStopping;
  }
  const auto closed_by = parts_->clock->steadyNow() + kClosingTime;
  keepForGood(parts_);
  parts_->store->beginToEnd();
  parts_->log_sink->waitUntil(parts_->clock->steadyNow());
  parts_->life->beginToEnd();
  parts_->flushes.endWaits();
  parts_->shared_state.stop_request.make();
  parts_->main_loop->cease();
  parts_->background->cease();
  parts_->transport->shutdown();
  leaveQueues(closed_by, is_first);
  if (!parts_->life->isInLogSink())
    parts_->store->commitTurn();
  // Otherwise the thread that stops the instance waits for this very callback, and finishes.
  if (!is_first)
    return;
  const auto deadline = parts_->life->isInLogSink() ? parts_->clock->steadyNow() : closed_by + kLastLinesTime;
  finish(false, deadline, statusPastTheStore(*parts_));
}

/// Waits for the queues, except the one that runs this block. A thread that is stopping the instance already joins
/// theirs; otherwise a thread that cannot be joined here ends by itself.
void InstanceEnding::leaveQueues(steady_clock::time_point deadline, bool is_first) {
  MachineLoop& main_loop = *parts_->main_loop;
  MachineBackground& background = *parts_->background;
  const bool is_main_idle = !main_loop.isInTurn() && main_loop.waitUntilIdle(deadline);
  const bool is_background_idle = !background.isInBlock() && background.drain(deadline);
  if (!is_first)
    return;
  if (is_main_idle)
    main_loop.stop();
  else
    main_loop.letGo();
  if (is_background_idle)
    background.stop(parts_->clock->steadyNow());
  else
    background.letGo();
}

namespace {

/// Running instances. Never destroyed: an instance may end after everything else.
struct AtExit {
  explicit AtExit(const OwnProcess& first) : process(first) {}

  const OwnProcess process;  ///< in which the first instance ran
  std::mutex mutex;
  std::vector<std::weak_ptr<InstanceEnding>> endings;

  static std::atomic<AtExit*> made;
  static AtExit& list(const OwnProcess& process) {
    static auto& list = *new AtExit(process);
    made = &list;
    return list;
  }
  static void stopAll() {
    is_process_ending = true;
    AtExit* const list = made;
    if (list == nullptr)
      return;  // there never was an instance
    std::vector<std::weak_ptr<InstanceEnding>> endings;
    {
      std::unique_lock hold(list->mutex, std::defer_lock);
      if (list->process.isHere())
        hold.lock();
      else if (!hold.try_lock())
        return;  // forked in the middle of a start: nobody will release the lock
      endings = list->endings;
    }
    for (const auto& each : endings) {
      if (const auto ending = each.lock())
        ending->stopOrLeave();
    }
    // What is being destroyed now, on any thread, is gone before a library cleans up; anything later stays. A fork has
    // no such threads, and their lock may never be released.
    if (list->process.isHere())
      GoingParts::all().waitForOthers(kStopTime);
  }
};
std::atomic<AtExit*> AtExit::made{nullptr};

}  // namespace

void prepareForExit() {
  static const bool is_prepared = [] { return std::atexit(&AtExit::stopAll) == 0; }();
  static_cast<void>(is_prepared);
}

void stopAtExit(const std::shared_ptr<InstanceEnding>& ending, const OwnProcess& process) {
  AtExit& list = AtExit::list(process);
  const std::scoped_lock hold(list.mutex);
  std::erase_if(list.endings, [](const auto& each) { return each.expired(); });
  list.endings.push_back(ending);
}

}  // namespace morvik::runtime
