#include "runtime/instance.h"

#include <chrono>
#include <mutex>
#include <utility>
#include <variant>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "runtime/after_recording.h"
#include "runtime/instance_parts.h"
#include "runtime/life/call_app.h"
#include "runtime/life/instance_ending.h"
#include "runtime/observe/status_of.h"
#include "services/guard.h"

namespace morvik::runtime {
namespace {

constexpr const char* kEraseOperation = "-[MorvikCore eraseLocalData]";
constexpr services::GuardClause kRecordThrew =
    services::oneLine(kit::lcl_vError, "Morvik host: something could not be recorded: %@");
constexpr services::Guard kRecordGuard{kRecordThrew, kRecordThrew};

constexpr services::GuardClause kCallThrew = services::oneLine(
    kit::lcl_vError, "Morvik host: a call could not be carried out: %@; make sure that the process has memory");
constexpr services::Guard kCallGuard{kCallThrew, kCallThrew};

/// There may be no later turn to retry a failed commit. What this commit takes is stored when the call returns.
Recorded tryToKeepNow(InstanceParts& parts) {
  const bool was_kept = parts.store->isKept();
  const bool all_kept = afterRecording(parts.logger, [&parts] { return parts.store->commitTurn(); }).value_or(false);
  afterRecording(parts.logger, [&parts, all_kept] { parts.commit_retry.turnEnded(all_kept); });
  return !was_kept && parts.store->isKept() ? Recorded::kKept : Recorded::kKeptInMemory;
}

}  // namespace

Instance::Instance(std::shared_ptr<InstanceParts> parts)
    : parts_(std::move(parts)),
      ending_(std::make_shared<InstanceEnding>(parts_)),
      erasing_(std::make_shared<Erasing>()) {}

Instance::~Instance() {
  ending_->stopOrLeave();
}

template <class Call>
auto Instance::guardedCall(const char* operation, Call call) const {
  return services::guarded(parts_->logger, kCallGuard, MORVIK_HERE(operation), call);
}

std::optional<kit::Error> Instance::open() {
  return parts_->main_loop->open();
}

void Instance::applicationDidBecomeActive() {
  callOnMain("-[MorvikCore applicationDidBecomeActive]",
             [parts = parts_.get()] { parts->start_hold.pass(kit::Notification::kApplicationDidBecomeActive); });
}

void Instance::applicationDidEnterBackground() {
  parts_->has_entered_background = true;
  callOnMain("-[MorvikCore applicationDidEnterBackground]",
             [parts = parts_.get()] { parts->start_hold.pass(kit::Notification::kApplicationDidEnterBackground); });
}

/// Takes no lock: the log may be the app's, and the store may be closed.
Recorded Instance::refuseNotRunning() {
  parts_->ledger.wasRefused(Recorded::kRefusedNotRunning);
  if (!is_not_running_told_.exchange(true)) {
    guardedCall("-[MorvikCore record]", [this] {
      MORVIK_LOG(
          parts_->logger, kit::lcl_vWarning, "-[MorvikCore record]",
          "Morvik host: something was handed over after the end of the kit had begun, and is refused, as all that "
          "follows: stop the kit once nothing records any more; the ledger counts the refusals");
    });
  }
  return Recorded::kRefusedNotRunning;
}

Recorded Instance::refuseNoMemory() {
  parts_->ledger.wasRefused(Recorded::kRefusedNoMemory);
  return Recorded::kRefusedNoMemory;
}

/// Records on the calling thread, unless the kit is stopping. An exception (no memory) ends here; nothing was recorded
/// then.
template <class Record>
Recorded Instance::recordNow(Record record) {
  const auto marked = parts_->lines.postFromHere();
  const CallGate::Call call(parts_->calls);
  if (!call.isIn() || !takesPlace())
    return refuseNotRunning();
  const auto recorded = services::guarded(parts_->logger, kRecordGuard, MORVIK_HERE("-[MorvikCore record]"), record);
  if (!recorded)
    return refuseNoMemory();
  // Nothing is committed for a forgotten user; only a flush notices that somebody removed the wish's files.
  if (*recorded == Recorded::kRefusedForgotten)
    afterRecording(parts_->logger, [this] { parts_->store->flushSoon(); });
  return *recorded == Recorded::kKeptInMemory ? tryToKeepNow(*parts_) : *recorded;
}

Recorded Instance::addActivity(std::string_view group, std::string_view name, std::optional<std::string_view> param) {
  return recordNow([&] { return parts_->services.addActivityOfApp(group, name, param, parts_->clock->now()); });
}

Recorded Instance::addImpression(const Impression& impression) {
  return recordNow([&] { return parts_->services.addImpressionOfApp(impression, parts_->clock->now()); });
}

void Instance::pushTracking() {
  callOnMain("-[MorvikCore pushTracking]", [parts = parts_.get()] { parts->core->pushTracking(); });
}

Recorded Instance::handOver(HandedOver::Kind kind, std::string_view text, const char* operation) {
  return recordNow([&] {
    const Recorded taken = parts_->handed_over.take(
        {.kind = kind,
         .text = text,
         .time = parts_->clock->now(),
         .is_first_launch = parts_->core->isFirstLaunchOk() && !parts_->has_entered_background});
    return isKept(taken) ? taken : parts_->services.refuse(taken, operation, "what was handed over");
  });
}

Recorded Instance::passOpenURL(std::string_view url) {
  return handOver(HandedOver::Kind::kOpenedUrl, url, "-[MorvikCore passOpenURL:]");
}

Recorded Instance::setReferralUrlForFacebook(std::string_view url) {
  return handOver(HandedOver::Kind::kFacebookUrl, url, "-[MorvikCore setReferralUrlForFacebook:]");
}

Recorded Instance::thirdPartyConversion() {
  return handOver(HandedOver::Kind::kThirdPartyConversion, "", "-[MorvikCore thirdPartyConversion]");
}

/// For setters: the values are committed without synchronize().
template <class Set>
Recorded Instance::setNow(Set set) {
  return recordNow([&] { return setAndCommit(set); });
}

template <class Set>
Recorded Instance::setAndCommit(Set set) {
  set(*parts_->core);
  const Recorded recorded = keptBy(parts_->logger, [this] { return parts_->store->synchronizeUntold(); });
  afterRecording(parts_->logger, [this] { parts_->store->tellWaiting(); });
  return recorded;
}

/// Sets both values or neither, even if memory runs out in between.
Recorded Instance::setTwice(const char* pending, const char* complete, const kit::Value& wanted,
                            const std::function<void(MorvikCoreLib&)>& set) {
  return setNow([&](MorvikCoreLib& core) {
    MachineStore& store = *parts_->plain_store;
    store.set(complete, store.get(complete));  // creates the entry, so that filling it takes no memory
    try {
      set(core);
    } catch (...) {
      const kit::Value stored = store.get(pending);
      if (stored != wanted)
        throw;
      store.set(complete, stored);
    }
  });
}

Recorded Instance::setAge(int32_t age) {
  return setTwice(services::property::fendoUserDemoInfo_age, services::property::fendoUserDemoInfoForComplete_age,
                  kit::Value(age), [age](MorvikCoreLib& core) { core.setAge(age); });
}

Recorded Instance::setGender(int32_t gender) {
  return setTwice(services::property::fendoUserDemoInfo_gender, services::property::fendoUserDemoInfoForComplete_gender,
                  kit::Value(gender), [gender](MorvikCoreLib& core) { core.setGender(gender); });
}

Recorded Instance::setUserId(std::string_view user_id) {
  if (user_id.size() > kMaxUserIdBytes) {
    return recordNow(
        [&] { return parts_->services.refuse(Recorded::kRefusedTooLarge, "-[MorvikCore setUserId:]", "a user id"); });
  }
  const auto marked = parts_->lines.postFromHere();
  const auto recorded = guardedCall("-[MorvikCore setUserId:]", [&] { return setUserIdTo(std::string(user_id)); });
  return recorded ? *recorded : refuseNoMemory();
}

Recorded Instance::clearUserId() {
  return setUserIdTo(std::nullopt);
}

Recorded Instance::setUserIdTo(const std::optional<std::string>& user_id) {
  return setTwice(services::property::fendoUserDemoInfo_userId, services::property::fendoUserDemoInfoForComplete_userId,
                  user_id ? kit::Value(*user_id) : kit::Value(),
                  [&user_id](MorvikCoreLib& core) { core.setUserId(user_id); });
}

Recorded Instance::gdprForgetMe(bool forget_me) {
  const auto marked = parts_->lines.postFromHere();
  const bool was_in_doubt = parts_->plain_store->fileState() == WishFileState::kNotRead;
  const Recorded recorded = recordNow([this, forget_me] {
    const Recorded in_store = setAndCommit([forget_me](MorvikCoreLib& core) { core.gdprForgetMe(forget_me); });
    afterRecording(parts_->logger, [this] { parts_->plain_store->writeOnceMore(); });
    return in_store;
  });
  afterRecording(parts_->logger, [this, was_in_doubt] {
    parts_->transport->wishDidChange();
    if (was_in_doubt)
      parts_->handed_over.handleLater();
  });
  if (!isKept(recorded))
    return recorded;
  // The wish has a file of its own next to the store.
  return parts_->plain_store->isWishKept(recorded == Recorded::kKept) ? Recorded::kKept : Recorded::kKeptInMemory;
}

void Instance::flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) {
  const auto marked = parts_->lines.postFromHere();
  guardedCall("-[MorvikCore flush:timeout:]", [&] {
    if (takesPlace())
      parts_->flushes.begin(std::move(done), timeout);
    else
      parts_->flushes.refuse(done);
  });
}

FlushResult Instance::waitUntilDelivered(std::chrono::milliseconds timeout) {
  const auto parts = parts_;
  return guardedCall("-[MorvikCore waitUntilDelivered:]", [&] { return parts->flushes.wait(timeout); })
      .value_or(FlushResult{.reason = FlushReason::kOutOfMemory});
}

void Instance::setSendingEnabled(bool enabled) {
  const auto marked = parts_->lines.postFromHere();
  guardedCall("-[MorvikCore setSendingEnabled:]", [&] {
    if (takesPlace())
      parts_->sending.set(enabled);
  });
}

bool Instance::isGdprForgetMe() const {
  return parts_->core->isGdprForgetMe();
}

void Instance::setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) {
  parts_->facade.setDelegate(std::move(delegate));
}

void Instance::setLogLevel(int level) {
  parts_->setLogLevel(level);
}

void Instance::perform(std::function<void()> block) {
  static constexpr const char* kOperation = "-[MorvikCore perform]";
  guardedCall(kOperation, [&] { post(kOperation, [block = std::move(block)] { callApp(block); }); });
}

int Instance::pollDescriptor() const {
  return parts_->main_loop->pollDescriptor();
}

int Instance::pollTimeoutMilliseconds() const {
  return parts_->main_loop->pollTimeoutMilliseconds();
}

void Instance::dispatch() {
  guardedCall("-[MorvikCore dispatch]", [parts = parts_] { parts->main_loop->dispatch(); });
}

void Instance::stop() {
  ending_->stop();
}

void Instance::tellThatItIsForked() const {
  const services::Logger logger = parts_->logger.withoutWaiting();
  MORVIK_LOG(
      logger, kit::lcl_vError, "-[MorvikCore]",
      "Morvik host: this process is a fork of the one that started the kit; here the kit does nothing: use it in "
      "the parent, or start one in a program of its own (fork and exec)");
}

void Instance::tellThatItStarted() {
  parts_->observations.hostDidStart(parts_->options.options.store_folder);
}

Status Instance::status() {
  const auto status = [this] {
    auto at_stop = parts_->observations.statusAtStop();
    return at_stop ? *std::move(at_stop) : statusOf(*parts_);
  };
  const auto marked = parts_->lines.postFromHere();
  return guardedCall("-[MorvikCore status]", status).value_or(Status());
}

void Instance::stop(std::chrono::milliseconds drain) {
  const auto ending = ending_;
  if (!ending->isWithinCallback())
    waitUntilDelivered(drain);
  ending->stop();
}

bool Instance::eraseLocalData() {
  if (ending_->isWithinCallback()) {
    const auto marked = parts_->lines.postFromHere();  // this may be within the log sink
    guardedCall(kEraseOperation, [this] {
      MORVIK_LOG(parts_->logger, kit::lcl_vError, kEraseOperation,
                 "Morvik host: nothing was erased: a callback runs, and the kit stops first; erase from outside");
    });
    return false;
  }
  const auto parts = parts_;
  const auto ending = ending_;
  const auto erasing = erasing_;
  std::unique_lock hold(erasing->mutex);
  if (erasing->is_under_way) {
    erasing->ended.wait(hold, [&erasing] { return !erasing->is_under_way; });
    return erasing->was_erased;
  }
  if (!parts->life->isRunning())
    return false;
  erasing->is_under_way = true;
  hold.unlock();
  bool is_erased = guardedCall(kEraseOperation, [&] { return erase(*parts, *ending); }).value_or(false);
  is_erased &= parts->life->isOwnProcess();  // in a child forked meanwhile, the parent erased
  hold.lock();
  erasing->is_under_way = false;
  erasing->was_erased = is_erased;
  erasing->ended.notify_all();
  return is_erased;
}

bool Instance::erase(InstanceParts& parts, InstanceEnding& ending) {
  const auto marked = parts.lines.postFromHere();
  // Bypasses the wish's file: an unreadable one is a doubt, and stays where it is.
  const services::MorvikGVUserDefaults stored(*parts.bare_store, parts.list_lock);
  const auto wish = [&stored] {
    return KeptWish{stored.MorvikCoreUserInfo_isGDPRForgetMe(), stored.MorvikCoreUserInfo_isGDPRForgetMeServerSynced()};
  };
  const auto tell = [&parts](const std::optional<kit::Error>& error) {
    if (error)
      MORVIK_LOG(parts.logger, kit::lcl_vError, kEraseOperation, "Morvik host: not all was erased: %@", *error);
    return !error;
  };
  if (const auto error = parts.eraser->begin(wish())) {
    MORVIK_LOG(parts.logger, kit::lcl_vError, kEraseOperation, "Morvik host: nothing was erased: %@", *error);
    return false;
  }
  bool is_erased = false;
  ending.stopAndThen([&] { is_erased = tell(parts.eraser->finish(wish())); });
  return is_erased;
}

kit::MainQueue& Instance::mainQueue() {
  return *parts_->main_loop;
}

void Instance::afterThisTurn(kit::Block block) {
  parts_->main_loop->afterThisTurn(std::move(block));
}

services::MorvikGVUserDefaults Instance::properties() {
  return parts_->properties;
}

kit::Value Instance::storedValue(std::string_view key) {
  return parts_->plain_store->get(key);
}

void Instance::storeOpenedUrl(std::string_view url) {
  keepOpenedUrl(*parts_, kit::Url(std::string(url)));
}

std::vector<std::pair<std::string, kit::Value>> Instance::allStored() const {
  return parts_->store->all();
}

void Instance::setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate) {
  parts_->services.setSaveFendoUserInfoDelegate(std::move(delegate));
}

void Instance::reportUncaughtException(const kit::UncaughtException& exception) {
  parts_->core->makeCrashParameter(exception);
}

bool Instance::mayRecordHere() const {
  const std::unique_lock hold(parts_->list_lock.door, std::try_to_lock);
  return hold.owns_lock();
}

Ledger Instance::ledger() {
  const auto marked = parts_->lines.postFromHere();
  return guardedCall("-[MorvikCore ledger]", [this] { return parts_->ledger.read(); }).value_or(Ledger());
}

Explanation Instance::explain(std::string_view event_id) {
  const auto marked = parts_->lines.postFromHere();
  return guardedCall("-[MorvikCore explain:]", [&] { return parts_->ledger.explain(event_id); })
      .value_or(Explanation());
}

Pending Instance::pending() const {
  return parts_->pending();
}

void Instance::settle(double limit_seconds, std::function<void(bool settled)> done) {
  parts_->settle_watch.begin(limit_seconds, std::move(done));
}

bool Instance::takesPlace() const {
  return parts_->life->admits(parts_->main_loop->isInTurn() || parts_->background->isInBlock());
}

void Instance::callOnMain(const char* operation, kit::Block block) {
  if (!parts_->main_loop->isMainThread())
    post(operation, std::move(block));
  else if (takesPlace())
    guardedCall(operation, [&] { parts_->main_loop->runOnMain(std::move(block)); });
}

void Instance::post(const char* operation, kit::Block block) {
  InstanceParts& parts = *parts_;
  const auto marked = parts.lines.postFromHere();
  switch (parts.life->post(kMaxPostedCalls)) {
    case InstanceLife::Admission::kNotRunning:
      return;
    case InstanceLife::Admission::kTooMany:
      guardedCall(operation, [&parts] {
        MORVIK_LOG(
            parts.logger, kit::lcl_vError, "-[MorvikCore perform]",
            "Morvik host: a call was refused: %lu calls wait for the main queue already; call less often, or let "
            "the main queue run",
            kMaxPostedCalls);
      });
      return;
    case InstanceLife::Admission::kAdmitted:
      break;
  }
  const bool is_posted = guardedCall(operation, [&] {
    parts.main_loop->async([&life = *parts.life, block = std::move(block)] {
      if (life.beginPosted())
        block();
    });
  });
  if (!is_posted)
    static_cast<void>(parts.life->beginPosted());  // it no longer waits
}

}  // namespace morvik::runtime
