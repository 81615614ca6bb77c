#include "runtime/sending/flushes.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "runtime/life/call_app.h"
#include "services/guard.h"

namespace morvik::runtime {
namespace {

constexpr const char* kFlush = "-[MorvikCore flush:timeout:]";
constexpr const char* kWait = "-[MorvikCore waitUntilDelivered:]";
/// Longer times are cut to this, about ten years.
constexpr std::chrono::hours kMaxTimeout{87'600};

constexpr services::GuardClause kThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: what a flush was to call threw and ended there: %@");
constexpr services::Guard kDoneGuard{kThrew, kThrew};

constexpr services::GuardClause kFlushThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: a flush could not be asked for: %@");
constexpr services::Guard kFlushGuard{kFlushThrew, kFlushThrew};

std::chrono::milliseconds within(std::chrono::milliseconds timeout) {
  return std::clamp<std::chrono::milliseconds>(timeout, std::chrono::milliseconds(0), kMaxTimeout);
}

double seconds(std::chrono::milliseconds timeout) {
  return std::chrono::duration<double>(within(timeout)).count();
}

}  // namespace

/// The state of one flush. Changes on the main queue.
struct Flushes::Flush {
  explicit Flush(LedgerBook& ledger)
      : ledger_(ledger), moments_(ledger.moments()), begun_(ledger.momentNow()), moment_(begun_) {}
  Flush(const Flush&) = delete;
  Flush& operator=(const Flush&) = delete;
  /// A block that never runs may outlive the book.
  ~Flush() {
    moments_->forget(begun_);
    moments_->forget(moment_);
  }
  /// Everything recorded by now belongs to it. Once.
  void takeNow() { moment_ = ledger_.momentNow(); }
  LedgerMoments::Left left() const { return ledger_.left(moment_); }
  /// As the book knew it last; waits for nobody.
  LedgerMoments::Left lastKnownLeft() const { return moments_->left(moment_); }

  Done done;
  std::shared_ptr<Waiter> waiter;  ///< null: nobody waits on a thread
  MachineLoop::TimerKey limit{};   ///< ends it; set once, before it can be found
  bool is_next = false;            ///< the waiting block begins it: by then all that was posted before it has run
  bool begins = false;             ///< by the running block
  bool has_begun = false;          ///< on the main queue; before that it waits for earlier posts
  bool was_pushed = false;         ///< a batch with all of it was requested, and has not ended
  size_t pushes = 0;

 private:
  LedgerBook& ledger_;
  const std::shared_ptr<LedgerMoments> moments_;
  const LedgerMoments::Moment begun_;
  std::atomic<LedgerMoments::Moment> moment_;
};

struct Flushes::Waiter {
  mutable std::mutex mutex;
  std::condition_variable told;
  std::optional<FlushResult> result;

  void tell(const FlushResult& told_result) {
    const std::scoped_lock hold(mutex);
    result = told_result;
    told.notify_all();
  }
  bool isTold() const {
    const std::scoped_lock hold(mutex);
    return result.has_value();
  }
};

/// Removes the flush when whoever waited for it goes, told or not.
class Flushes::Withdrawal {
 public:
  Withdrawal(Flushes& flushes, FlushPointer flush) : flushes_(flushes), flush_(std::move(flush)) {}
  Withdrawal(const Withdrawal&) = delete;
  Withdrawal& operator=(const Withdrawal&) = delete;
  ~Withdrawal() { flushes_.remove(flush_); }

 private:
  Flushes& flushes_;
  const FlushPointer flush_;
};

Flushes::Flushes(Parts parts) : parts_(std::move(parts)) {}
Flushes::~Flushes() = default;

void Flushes::follow(MorvikCoreLib& core, std::function<void(size_t activities)> batch_leaves) {
  core_ = &core;
  core.setDeliveryObserver({.batchDidEnd = [this](BatchEnd end) { batchDidEnd(end); },
                            .attributionDidEnd = [this] { advance(); },
                            .nextBatchWasDropped = [this] { advance(); },
                            .batchLeaves = std::move(batch_leaves)});
  parts_.sending.setWhenNotResuming([this] { advance(); });
}

// -------------------------------------------------------------------------------------------------------- from the app

void Flushes::begin(Done done, std::chrono::milliseconds timeout) {
  FlushPointer flush;
  const auto refusal = services::guarded(parts_.logger, kFlushGuard, MORVIK_HERE(kFlush), [&] {
    flush = std::make_shared<Flush>(parts_.ledger);
    flush->done = std::move(done);
    return add(flush, timeout);
  });
  const Done& told = flush != nullptr ? flush->done : done;
  if (!refusal)
    refuse(told, FlushReason::kOutOfMemory);
  else if (*refusal)
    refuse(told, **refusal);
}

/// A caller that asks again from within its answer would be answered endlessly: so in a later turn, if there is one.
void Flushes::refuse(const Done& done, FlushReason reason) {
  if (!parts_.life.isInDone())
    tellNow(done, reason);
  else if (reason != FlushReason::kStopped)
    parts_.main_loop.async([this, done, reason] { tellNow(done, reason); });
}

/// `reason`: why something still waits, if it does. The unknown content of an unreadable file counts as waiting.
FlushResult Flushes::resultOf(const LedgerMoments::Left& left, FlushReason reason) const {
  if (parts_.start_hold.isUnavailable())
    return {.waiting = left.waiting, .given_up = left.given_up, .reason = reason};
  if (left.waiting == 0 && left.given_up == 0)
    return {.is_delivered = true};
  return {
      .waiting = left.waiting, .given_up = left.given_up, .reason = left.waiting > 0 ? reason : FlushReason::kGivenUp};
}

FlushResult Flushes::resultNow(FlushReason reason) const {
  return resultOf({.waiting = waitingNow(), .given_up = 0}, reason);
}

uint64_t Flushes::waitingNow() const {
  return parts_.store.fendoActivityInfos().size() + parts_.store.fendoImpressionInfos().size() +
         parts_.ledger.moments()->underWay();
}

std::optional<FlushReason> Flushes::add(const FlushPointer& flush, std::chrono::milliseconds timeout) {
  const auto refusal = [&]() -> std::optional<FlushReason> {
    const std::scoped_lock hold(mutex_);
    if (has_ended_)
      return FlushReason::kStopped;
    if (flushes_.size() >= kMaxFlushes)
      return FlushReason::kTooMany;
    flush->is_next = !is_block_posted_;
    postBlock();
    flushes_.push_back(flush);
    try {
      flush->limit = parts_.main_loop.schedule(seconds(timeout), [this, flush] { timeIsUp(flush); });
    } catch (const std::bad_alloc&) {
      flushes_.pop_back();
      throw;
    }
    return std::nullopt;
  }();
  if (refusal == FlushReason::kTooMany) {
    const auto marked = parts_.lines.postFromHere();
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kFlush,
               "Morvik host: a flush was refused: %lu wait for their end already; wait for one before asking again",
               kMaxFlushes);
  }
  return refusal;
}

/// Holds mutex_.
void Flushes::postBlock() {
  if (is_block_posted_)
    return;
  parts_.main_loop.async([this] { beginThoseThatWait(); });
  is_block_posted_ = true;
}

/// False: there is no memory for another block, and the flushes left begin with the one that runs. Holds mutex_.
bool Flushes::tryPostBlock() {
  try {
    postBlock();
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

/// On the main queue. A flush that came while the block waited begins with the next block: by then all that was posted
/// before it has been recorded.
void Flushes::beginThoseThatWait() {
  {
    const std::scoped_lock hold(mutex_);
    is_block_posted_ = false;
    for (const FlushPointer& flush : flushes_) {
      flush->begins = !flush->has_begun && (flush->is_next || !tryPostBlock());
      flush->is_next = true;
    }
  }
  bool has_any = false;
  while (const FlushPointer flush = nextToBegin()) {
    has_any = true;
    if (!services::guarded(parts_.logger, kFlushGuard, MORVIK_HERE(kFlush), [&] { beginNow(flush); }))
      finish(flush, FlushReason::kOutOfMemory);
  }
  if (has_any)
    advance();
}

/// Null: none is left. A waiting caller may have gone meanwhile, and its flush with it.
Flushes::FlushPointer Flushes::nextToBegin() const {
  const std::scoped_lock hold(mutex_);
  const auto found =
      std::find_if(flushes_.begin(), flushes_.end(), [](const FlushPointer& flush) { return flush->begins; });
  if (found == flushes_.end())
    return nullptr;
  (*found)->begins = false;
  return *found;
}

void Flushes::beginNow(const FlushPointer& flush) {
  flush->takeNow();
  flush->has_begun = true;
}

/// Counted from the call, whatever the main queue had to do first. A flush without a turn so far has requested nothing.
void Flushes::timeIsUp(const FlushPointer& flush) {
  if (!flush->has_begun) {
    services::guarded(parts_.logger, kFlushGuard, MORVIK_HERE(kFlush), [&] {
      beginNow(flush);
      advance();
    });
  }
  finish(flush, obstacle().value_or(FlushReason::kTimeout));
}

bool Flushes::isInsideACallback() const {
  return parts_.main_loop.isInTurn() || parts_.gate.isInTurn();
}

FlushResult Flushes::wait(std::chrono::milliseconds timeout) {
  if (isInsideACallback()) {
    const auto marked = parts_.lines.postFromHere();
    MORVIK_LOG(parts_.logger, kit::lcl_vError, kWait,
               "Morvik host: a callback cannot wait for a delivery, which would have to go on behind it; call flush() "
               "there");
    return {.waiting = waitingNow(), .reason = FlushReason::kInsideACallback};
  }
  const auto flush = std::make_shared<Flush>(parts_.ledger);
  flush->waiter = std::make_shared<Waiter>();
  Waiter& waiter = *flush->waiter;
  const auto deadline = parts_.clock.steadyNow() + within(timeout);
  if (const auto refusal = add(flush, timeout))
    return resultOf(flush->left(), *refusal);
  const Withdrawal withdrawal(*this, flush);
  parts_.main_loop.pumpFor(seconds(timeout), [&waiter] { return waiter.isTold(); });
  // A child forked within a callback returns here too, with nobody left to tell it.
  if (!parts_.life.isOwnProcess())
    return {.reason = FlushReason::kStopped};
  std::unique_lock lock(waiter.mutex);
  if (waiter.told.wait_until(lock, deadline, [&waiter] { return waiter.result.has_value(); }))
    return *waiter.result;
  lock.unlock();
  // The main queue is busy, or nobody pumps it.
  remove(flush);
  return resultOf(flush->left(), obstacle().value_or(FlushReason::kTimeout));
}

void Flushes::endWaits() {
  const std::scoped_lock hold(mutex_);
  has_ended_ = true;
  flushes_.remove_if([this](const FlushPointer& flush) {
    if (!flush->waiter)
      return false;
    flush->waiter->tell(resultOf(flush->lastKnownLeft(), FlushReason::kStopped));
    return true;
  });
}

void Flushes::endAll() {
  endWaits();
  const std::list<FlushPointer> waiting = all();
  if (waiting.empty())
    return;
  parts_.main_loop.runWithin(kEndFlushesSeconds, [this, waiting] {
    for (const FlushPointer& flush : waiting)
      finish(flush, FlushReason::kStopped);
  });
}

void Flushes::endRest() {
  for (const FlushPointer& flush : all()) {
    if (remove(flush))
      tell(*flush, resultOf(flush->lastKnownLeft(), FlushReason::kStopped));
  }
}

// --------------------------------------------------------------------------------------------------- on the main queue

std::optional<FlushReason> Flushes::obstacle() const {
  if (parts_.services.isGDPRForgetMe())
    return FlushReason::kForgotten;
  // The switch takes effect at once; the kit's own flag follows in a turn.
  if (!parts_.sending.isOn() || parts_.services.isSendingOff())
    return FlushReason::kSendingOff;
  if (parts_.shared_state.kAESSuperKeyForTracking.empty())
    return FlushReason::kNoTrackingKey;
  const bool has_record =
      parts_.store.fendoUserInfo_fendoUserNo() != -1 && parts_.store.fendoUserInfo_referralKey() != -1;
  if (!has_record && !parts_.start_hold.isHolding())
    return FlushReason::kNotAttributed;
  return std::nullopt;
}

void Flushes::advance() {
  finishDelivered();
  if (parts_.start_hold.isHolding() || isAllButTheFileDelivered())
    return;
  if (begun().empty() || core_->isBatchUnderWay() || core_->isNextBatchDue())
    return;
  // Requests that resume with sending, first of all the attribution, are started in a turn of their own.
  if (parts_.sending.isResuming())
    return;
  const auto found = obstacle();
  if (!found)
    return push();
  // The answer may be on its way, and brings its own batch.
  if (found != FlushReason::kNotAttributed || !core_->isAttributionUnderWay())
    finishAll(*found);
}

void Flushes::push() {
  if (core_->_isTrackingCalled())
    return finishAll(FlushReason::kSlotHeld);
  for (const FlushPointer& flush : begun()) {
    flush->was_pushed = true;
    ++flush->pushes;
  }
  core_->pushTracking();
  if (core_->isBatchUnderWay())
    return;
  // Nothing left: there was no activity, or no batch could be made from what is stored.
  finishDelivered();
  finishAll(core_->_isTrackingCalled() ? FlushReason::kSlotHeld : FlushReason::kNoActivity);
}

/// A batch built before a flush began covers nothing recorded later: the rest is pushed.
void Flushes::batchDidEnd(BatchEnd end) {
  finishDelivered();
  if (core_->isBatchUnderWay())
    return;
  // Batches follow one another, each in a turn of its own.
  if (end == BatchEnd::kGoesOn) {
    for (const FlushPointer& flush : begun()) {
      flush->was_pushed = false;
      flush->pushes = 0;
    }
    return parts_.main_loop.async([this] { advance(); });
  }
  const bool has_network = parts_.util.getNetworkStatus() != kit::kNetworkUnknown;
  const FlushReason without_answer = has_network ? FlushReason::kNoAnswer : FlushReason::kNoNetwork;
  // A wish or the switch stopped it. Either may have been withdrawn since; only another one stops the next attempt.
  if (end == BatchEnd::kNotSent)
    return advance();
  for (const FlushPointer& flush : begun()) {
    if (!std::exchange(flush->was_pushed, false))
      continue;
    if (end != BatchEnd::kAccepted)
      finish(flush, end == BatchEnd::kNoAnswer ? without_answer : FlushReason::kRefused);
    else if (flush->pushes >= kMaxPushesOfAFlush)
      finish(flush, FlushReason::kStaysStored);
  }
  advance();
}

/// Only a file that may still recover is left to wait for.
bool Flushes::isAllButTheFileDelivered() const {
  const std::list<FlushPointer> waiting = begun();
  return parts_.start_hold.isUnavailable() &&
         std::all_of(waiting.begin(), waiting.end(),
                     [](const FlushPointer& flush) { return flush->left().waiting == 0; });
}

void Flushes::finishDelivered() {
  if (parts_.start_hold.isUnavailable())
    return;
  for (const FlushPointer& flush : begun()) {
    if (flush->left().waiting == 0)
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
  const auto left =
      services::guarded(parts_.logger, kFlushGuard, MORVIK_HERE(kFlush), [&flush] { return flush->left(); });
  tell(*flush, left ? resultOf(*left, reason) : FlushResult{.reason = FlushReason::kOutOfMemory});
}

void Flushes::tell(const Flush& flush, const FlushResult& result) const {
  if (flush.waiter)
    flush.waiter->tell(result);
  if (!flush.done || !parts_.life.mayCallApp())
    return;
  const InstanceLife::Within within = parts_.life.goIntoDone();
  services::guarded(parts_.logger, kDoneGuard, MORVIK_HERE(kFlush), [&] { callApp(flush.done, result); });
}

/// On this thread, even while the end forbids other calls: it answers this very call.
void Flushes::tellNow(const Done& done, FlushReason reason) const {
  if (!done)
    return;
  const auto marked = parts_.lines.postFromHere();
  const InstanceLife::Within within = parts_.life.goIntoDone();
  const auto result =
      services::guarded(parts_.logger, kFlushGuard, MORVIK_HERE(kFlush), [&] { return resultNow(reason); });
  services::guarded(parts_.logger, kDoneGuard, MORVIK_HERE(kFlush),
                    [&] { callApp(done, result.value_or(FlushResult{.reason = reason})); });
}

bool Flushes::remove(const FlushPointer& flush) {
  {
    const std::scoped_lock hold(mutex_);
    if (flushes_.remove(flush) == 0)
      return false;
  }
  parts_.main_loop.cancel(flush->limit);
  return true;
}

/// Flushes that have begun.
std::list<Flushes::FlushPointer> Flushes::begun() const {
  std::list<FlushPointer> found = all();
  found.remove_if([](const FlushPointer& flush) { return !flush->has_begun; });
  return found;
}

std::list<Flushes::FlushPointer> Flushes::all() const {
  const std::scoped_lock hold(mutex_);
  return flushes_;
}

}  // namespace morvik::runtime
