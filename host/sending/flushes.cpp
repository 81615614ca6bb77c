#include "host/sending/flushes.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "services/guard.h"
#include "services/locked.h"

namespace morvik::host {
namespace {

constexpr const char* kFlush = "-[MorvikCore flush:timeout:]";
constexpr const char* kWait = "-[MorvikCore waitUntilDelivered:]";
/// Longer times are cut to this, about ten years.
constexpr std::chrono::hours kMaxTimeout{87'600};

constexpr services::GuardClause kThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: what a flush was to call threw and ended there: %@");
constexpr services::Guard kDoneGuard{kThrew, kThrew};

std::chrono::milliseconds within(std::chrono::milliseconds timeout) {
  return std::clamp<std::chrono::milliseconds>(timeout, std::chrono::milliseconds(0), kMaxTimeout);
}

/// `reason`: why something waits, if it does.
FlushResult resultOf(const RecordedSoFar& recorded, FlushReason reason) {
  const uint64_t waiting = recorded.waiting();
  if (waiting == 0)
    return {.is_delivered = true};
  return {.waiting = waiting, .reason = reason};
}

}  // namespace

/// Of one flush. What changes does so on the main queue; what was recorded is looked at by whoever waits, too.
struct Flushes::Flush {
  explicit Flush(const services::MorvikGVUserDefaults& store) { take(store); }
  void take(const services::MorvikGVUserDefaults& store) { recorded_.set(RecordedSoFar(store)); }
  RecordedSoFar recorded() const { return *recorded_.get(); }

  Done done;
  std::shared_ptr<Waiter> waiter;  ///< null: nobody waits on a thread
  std::optional<MachineLoop::TimerKey> limit;
  bool has_begun = false;   ///< on the main queue; before that it waits for what was posted earlier
  bool was_pushed = false;  ///< a batch with all of it was asked for

 private:
  services::Locked<std::optional<RecordedSoFar>> recorded_;
};

struct Flushes::Waiter {
  std::mutex mutex;
  std::condition_variable told;
  std::optional<FlushResult> result;

  void tell(const FlushResult& told_result) {
    const std::scoped_lock hold(mutex);
    result = told_result;
    told.notify_all();
  }
};

Flushes::Flushes(Parts parts) : parts_(std::move(parts)) {}
Flushes::~Flushes() = default;

void Flushes::follow(MorvikCoreLib& core) {
  core_ = &core;
  core.setDeliveryObserver(
      {.batchDidEnd = [this](BatchEnd end) { batchDidEnd(end); }, .attributionDidEnd = [this] { advance(); }});
}

// --------------------------------------------------------------------------------------------------------- from the
// app

Flushes::Begun Flushes::begin(Done done, std::chrono::milliseconds timeout) {
  auto flush = std::make_shared<Flush>(parts_.store);
  flush->done = std::move(done);
  return add(flush, timeout);
}

FlushResult Flushes::resultNow(FlushReason reason) const {
  return resultOf(RecordedSoFar(parts_.store), reason);
}

Flushes::Begun Flushes::add(const FlushPointer& flush, std::chrono::milliseconds timeout) {
  const Begun begun = [&] {
    const std::scoped_lock hold(mutex_);
    if (has_ended_)
      return Begun::kEnded;
    if (flushes_.size() >= kMaxFlushes)
      return Begun::kTooMany;
    flushes_.push_back(flush);
    return Begun::kYes;
  }();
  if (begun == Begun::kTooMany) {
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kFlush,
               "Morvik host: a flush was refused: %lu wait for their end already; wait for one before asking again",
               kMaxFlushes);
  }
  if (begun != Begun::kYes)
    return begun;
  const double seconds = std::chrono::duration<double>(within(timeout)).count();
  parts_.main_loop.async([this, flush, seconds] {
    // What was posted before has recorded what it had to by now.
    flush->take(parts_.store);
    flush->has_begun = true;
    flush->limit = parts_.main_loop.schedule(seconds, [this, flush] {
      flush->limit.reset();
      finish(flush, obstacle().value_or(FlushReason::kTimeout));
    });
    advance();
  });
  return begun;
}

bool Flushes::isInsideACallback() const {
  return parts_.main_loop.isInTurn() || parts_.gate.isInTurn();
}

FlushResult Flushes::wait(std::chrono::milliseconds timeout) {
  if (isInsideACallback()) {
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kWait,
               "Morvik host: a callback cannot wait for a delivery, which would have to go on behind it; call flush() "
               "there");
    return {.waiting = RecordedSoFar(parts_.store).waiting(), .reason = FlushReason::kInsideACallback};
  }
  const auto flush = std::make_shared<Flush>(parts_.store);
  flush->waiter = std::make_shared<Waiter>();
  Waiter& waiter = *flush->waiter;
  const auto deadline = std::chrono::steady_clock::now() + within(timeout);
  const Begun begun = add(flush, timeout);
  if (begun != Begun::kYes)
    return resultOf(flush->recorded(), begun == Begun::kEnded ? FlushReason::kStopped : FlushReason::kTooMany);
  std::unique_lock lock(waiter.mutex);
  while (!waiter.result && parts_.main_loop.canPump()) {
    lock.unlock();
    parts_.main_loop.pumpOnce(std::chrono::duration<double>(within(timeout)).count());
    lock.lock();
  }
  if (waiter.told.wait_until(lock, deadline, [&waiter] { return waiter.result.has_value(); }))
    return *waiter.result;
  lock.unlock();
  // The main queue is busy, or nobody pumps it.
  remove(flush);
  return resultOf(flush->recorded(), obstacle().value_or(FlushReason::kTimeout));
}

void Flushes::endAll() {
  std::list<FlushPointer> waiting;
  {
    const std::scoped_lock hold(mutex_);
    has_ended_ = true;
    waiting = flushes_;
  }
  for (const FlushPointer& flush : waiting) {
    if (flush->waiter && remove(flush))
      flush->waiter->tell(resultOf(flush->recorded(), FlushReason::kStopped));
  }
  waiting.remove_if([](const FlushPointer& flush) { return flush->waiter != nullptr; });
  if (waiting.empty())
    return;
  parts_.main_loop.runWithin(kEndFlushesSeconds, [this, waiting] {
    for (const FlushPointer& flush : waiting)
      finish(flush, FlushReason::kStopped);
  });
}

// --------------------------------------------------------------------------------------------------- on the main queue

std::optional<FlushReason> Flushes::obstacle() const {
  if (parts_.services.isGDPRForgetMe())
    return FlushReason::kForgotten;
  if (parts_.services.isSendingOff())
    return FlushReason::kSendingOff;
  if (parts_.shared_state.kAESSuperKeyForTracking.empty())
    return FlushReason::kNoTrackingKey;
  if (parts_.store.fendoUserInfo_fendoUserNo() == -1 || parts_.store.fendoUserInfo_referralKey() == -1)
    return FlushReason::kNotAttributed;
  return std::nullopt;
}

void Flushes::advance() {
  finishDelivered();
  if (begun().empty() || core_->isBatchUnderWay())
    return;
  const auto found = obstacle();
  if (!found)
    return push();
  // The answer may be on its way, and brings a batch of its own.
  if (found != FlushReason::kNotAttributed || !core_->isAttributionUnderWay())
    finishAll(*found);
}

void Flushes::push() {
  if (core_->_isTrackingCalled())
    return finishAll(FlushReason::kSlotHeld);
  for (const FlushPointer& flush : begun())
    flush->was_pushed = true;
  core_->pushTracking();
  if (core_->isBatchUnderWay())
    return;
  // Nothing left: there was no activity, or no batch could be made of what is stored.
  finishDelivered();
  finishAll(core_->_isTrackingCalled() ? FlushReason::kSlotHeld : FlushReason::kNoActivity);
}

/// A batch that was built before a flush began says nothing about what came after it: the rest is pushed.
void Flushes::batchDidEnd(BatchEnd end) {
  finishDelivered();
  if (core_->isBatchUnderWay())
    return;
  const bool has_network = parts_.util.getNetworkStatus() != kit::kNetworkUnknown;
  const FlushReason without_answer = has_network ? FlushReason::kNoAnswer : FlushReason::kNoNetwork;
  // Who is not forgotten was held.
  if (end == BatchEnd::kNotSent)
    return finishAll(obstacle().value_or(FlushReason::kSendingOff));
  for (const FlushPointer& flush : begun()) {
    // Accepted, and not all gone: there are records that no answer removes.
    if (flush->was_pushed)
      finish(flush, end == BatchEnd::kNoAnswer ? without_answer : FlushReason::kRefused);
  }
  advance();
}

void Flushes::finishDelivered() {
  for (const FlushPointer& flush : begun()) {
    if (flush->recorded().waiting() == 0)
      finish(flush, FlushReason::kDelivered);
  }
}

void Flushes::finishAll(FlushReason reason) {
  for (const FlushPointer& flush : begun())
    finish(flush, reason);
}

void Flushes::finish(const FlushPointer& flush, FlushReason reason) {
  if (!remove(flush))
    return;
  if (flush->limit)
    parts_.main_loop.cancel(*flush->limit);
  tell(*flush, resultOf(flush->recorded(), reason));
}

void Flushes::tell(const Flush& flush, const FlushResult& result) const {
  if (flush.waiter)
    flush.waiter->tell(result);
  if (flush.done && parts_.life.mayCallApp())
    services::guarded(parts_.logger, kDoneGuard, MORVIK_HERE(kFlush), [&] { flush.done(result); });
}

bool Flushes::remove(const FlushPointer& flush) {
  const std::scoped_lock hold(mutex_);
  return flushes_.remove(flush) > 0;
}

/// Those that have begun.
std::list<Flushes::FlushPointer> Flushes::begun() const {
  const std::scoped_lock hold(mutex_);
  std::list<FlushPointer> found;
  std::copy_if(flushes_.begin(), flushes_.end(), std::back_inserter(found),
               [](const FlushPointer& flush) { return flush->has_begun; });
  return found;
}

}  // namespace morvik::host
