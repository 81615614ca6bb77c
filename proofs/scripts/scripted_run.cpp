#include "proofs/scripts/scripted_run.h"

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/store/store_files.h"
#include "proofs/run/app.h"
#include "proofs/run/driver.h"
#include "proofs/run/power_cut_loss.h"
#include "simulation/durations.h"
#include "simulation/workers.h"

namespace morvik::proofs {
namespace {

using Endpoint = testing::ServiceEndpoint;
using simulation::DiskCall;
using simulation::DiskCut;
using simulation::PowerLoss;

/// So much comes with an event of the long queue that its log has to begin again.
constexpr size_t kLongParamBytes = 760;
constexpr int kLongQueueEvents = 90;
constexpr uint64_t kWrittenBackCallsPerEvent = 5;
/// A commit that could not be made is retried every ten seconds; after this it was, and can be synced.
constexpr double kStoreRetriedSeconds = 12;

RunEnd endOf(const DiskCut& cut) {
  if (!cut.power_lost)
    return RunEnd::kKilled;
  switch (cut.loss) {
    case PowerLoss::kTorn:
      return RunEnd::kPowerLostTorn;
    case PowerLoss::kScattered:
      return RunEnd::kPowerLostScattered;
    case PowerLoss::kNothingUnsynced:
      break;
  }
  return RunEnd::kPowerLost;
}

class ScriptedRun final : private Driver {
 public:
  explicit ScriptedRun(const ScriptedRunOptions& options)
      : Driver({.seed = options.seed, .sabotage = options.sabotage, .trace = options.trace}), cut_(options.cut) {
    if (options.cut_before_change != 0)
      flaky_disk_.disk.cutAt(options.cut_before_change);
    if (options.fault)
      flaky_disk_.plan(*options.fault);
  }

  ScriptedRunResult play() {
    try {
      simulation::callFor("the run", [this] { playAll(); });
      end();
    } catch (const std::runtime_error& thrown) {
      complain(kBroken, thrown.what());
      die(DiskCut::killed());
    }
    result_.figures = figures_;
    result_.changes = flaky_disk_.disk.changes();
    result_.installs = tracker_.facts.installs;
    result_.complaints = complaint_counts_;
    result_.texts = complaints_;
    return std::move(result_);
  }

 private:
  void playAll() {
    for (const auto& chapter : chapters()) {
      chapter();
      endCutProcess();
      takeTheStoreBack();
    }
    playHealthyEnd();
    if (isCut())  // in the end itself
      playHealthyEnd();
    checkHealthyEnd();
  }

  // ------------------------------------------------------------------------------------------------------ the script

  std::vector<std::function<void()>> chapters() {
    return {
        [this] { firstStart(); },
        [this] { keptSession(); },
        [this] { lostAnswers(); },
        [this] { crash(); },
        [this] { longQueue(); },
        [this] { powerCut(); },
        [this] { crossings(); },
        [this] { wishToBeForgotten(); },
        [this] { withdrawal(); },
        [this] { afterTheWithdrawal(); },
        [this] { tooLarge(); },
        [this] { slowSyncs(); },
        [this] { unwritable(); },
        [this] { wishBehindAFullQueue(); },
        [this] { forgottenNextToANewerStore(); },
        [this] { withdrawal(); },
        [this] { wishNextToANewerStore(); },
        [this] { withdrawal(); },
    };
  }

  void firstStart() {
    misbehaviours_[Endpoint::kReEngagement] = Misbehaviour::kRefuses;
    openSession();
    addImpression();
    record(12);
    openCommerceLink();
    openReEngagementLink();
    setUserId();
    leaveSession();
  }

  /// The user is back within the minute; the batch at the end is refused.
  void keptSession() {
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kRefuses;
    openSession();
    record(4);
    openReEngagementLink();
    leaveSession();
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kSaysNo;
    pass(simulation::kHourSeconds);
  }

  void lostAnswers() {
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kClosesAfter;
    misbehaviours_[Endpoint::kDemographics] = Misbehaviour::kClosesBefore;
    openSession();
    record(3);
    setUserId();
    addImpression();
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kGarbage;
    pushTracking();
    record(2);
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kNone;
    pushTracking();
    leaveSession();
    misbehaviours_.clear();
    pass(simulation::kHourSeconds);
  }

  /// The app dies of its own fault in a session; the next start reports it.
  void crash() {
    misbehaviours_[Endpoint::kCommerce] = Misbehaviour::kRefuses;
    openSession();
    record(3);
    openCommerceLink();
    reportCrash();
    die(DiskCut::killed());
    misbehaviours_[Endpoint::kCrash] = Misbehaviour::kClosesBefore;
    openSession();
    pass(5);
    die(DiskCut::killed());
    misbehaviours_.clear();
    openSession();
    openCommerceLink();
    leaveSession();
  }

  /// Without a network the queue grows until the store's log is long; then everything goes.
  void longQueue() {
    machine_.transport.goOffline();
    openSession();
    record(kLongQueueEvents, kLongParamBytes);
    leaveSession();
    pass(simulation::kHourSeconds);
    machine_.transport.goOnline();
    openSession();
    leaveSession();
    stop();
  }

  void powerCut() {
    openSession();
    record(4);
    addImpression();
    pass(2);
    die(DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
    pass(simulation::kHourSeconds);
    openSession();
    record(2);
    leaveSession();
  }

  /// Uploads cross each other and what is recorded meanwhile: the rules let a part of it go.
  void crossings() {
    pass(simulation::kHourSeconds);
    openSession();
    record(1);
    startBatch();
    addImpression();
    openCommerceLink(0);
    misbehaviours_[Endpoint::kCommerce] = Misbehaviour::kRefuses;
    openCommerceLink();
    setUserId();
    setUserId();
    crossBatches();
    misbehaviours_.clear();
    pass(5);
    misbehaviours_[Endpoint::kReEngagement] = Misbehaviour::kClosesBefore;
    openReEngagementLink(0);
    die(DiskCut::killed());
    misbehaviours_.clear();
  }

  /// A session starts again while a batch is under way: the next one leaves next to it, with the demographics.
  void crossBatches() {
    record(1);
    startBatch();
    recordEvent();
    misbehaviours_[Endpoint::kTracking] = Misbehaviour::kSaysNo;
    app_does_.leaveForeground();
    runTurns();
    app_does_.enterForeground();
    runTurns();
    setUserId();
  }

  void wishToBeForgotten() {
    openSession();
    record(2);
    pushTracking();
    wish(true);
    if (const std::optional<kit::Request> request = sabotage_.requestOfForgotten())
      machine_.transport.start(*request, [](const kit::TransportOutcome&) {});
    pass(5);
    die(DiskCut::killed());
    openSession();
    leaveSession();
    die(DiskCut::killed());
  }

  void withdrawal() {
    withdraw();
    pass(2);
    stop();
  }

  void afterTheWithdrawal() {
    pass(simulation::kHourSeconds);
    openSession();
    record(11);
    pushTracking();
    leaveSession();
  }

  /// Each is refused and told so, and costs its neighbours nothing.
  void tooLarge() {
    openSession();
    record(1);
    offerTooMuch();
    app_does_.setNextToRefused(true);
    recordEvent();
    setUserId();
    app_does_.setNextToRefused(false);
    die(DiskCut::killed());
    openSession();
    leaveSession();
    stop();
  }

  /// The disk takes its time, while the app goes on as ever; then the power goes.
  void slowSyncs() {
    slow_sync_seconds_ = dice_.between(kPowerCutLossSeconds / 4, kSlowestSyncSeconds);
    openSession();
    record(8);
    addImpression();
    setUserId();
    leaveSession();
    openSession();
    record(3);
    die(DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
    slow_sync_seconds_ = 0;
    openSession();
    leaveSession();
    stop();
  }

  /// The store can be read, and not written: what is recorded lives as long as the process, unless it is stored later.
  void unwritable() {
    pass(simulation::kHourSeconds);
    flaky_disk_.fail(FlakyDiskFault::kUnwritable, 0, kNever);
    openSession();
    record(3);
    setUserId();
    pushTracking();
    record(2);
    die(DiskCut::killed());
    openSession();
    record(2);
    flaky_disk_.fail(FlakyDiskFault::kUnwritable, 0, 0);
    pass(kStoreRetriedSeconds);
    die(DiskCut::killed());
    openSession();
    leaveSession();
  }

  /// More requests than the host has connections for, and then the wish: those that wait never leave.
  void wishBehindAFullQueue() {
    pass(simulation::kHourSeconds);
    openSession();
    for (uint64_t links = runtime::kMaxConnectionsPerHost + 1 + dice_.below(runtime::kMaxConnectionsPerHost); links > 0;
         --links)
      openReEngagementLink(0);
    if (process_ && !isCut() && process_->pending().requests > runtime::kMaxConnectionsPerHost)
      ++figures_.full_queues;
    wish(true);
    pass(5);
    die(DiskCut::killed());
  }

  /// A newer program has used the store. This one finds it so, and the wish next to it.
  void forgottenNextToANewerStore() {
    leaveTheStore();
    openSession();
    offerToTheForgotten();
    leaveSession();
    die(DiskCut::killed());
    takeTheStoreBack();
    openSession();
    leaveSession();
  }
  void offerToTheForgotten() {
    app_does_.offerEventOfForgotten();
    runTurns();
  }

  /// Nothing is stored; the wish is, and outlives the newer program's coming back.
  void wishNextToANewerStore() {
    leaveTheStore();
    openSession();
    record(3);
    addImpression();
    openCommerceLink();
    setUserId();
    pushTracking();
    record(1);
    dice_.happens(0.5) ? stop() : die(DiskCut::killed());
    openSession();
    record(2);
    wish(true);
    pass(5);
    die(DiskCut::killed());
    openSession();
    leaveSession();
    stop();
    takeTheStoreBack();
    openSession();
    leaveSession();
  }

  void playHealthyEnd() {
    endCutProcess();
    misbehaviours_.clear();
    if (!is_healthy_)
      result_.fault_points = flaky_disk_.points();
    makeHealthy();
    needProcess();
    if (process_ && !isCut() && process_->isGdprForgetMe()) {
      withdraw();
      stop();
    }
    for (int session = 0; session < 2; ++session) {
      pass(simulation::kHourSeconds);
      openSession();
      record(1);
      openCommerceLink();
      leaveSession();
    }
    pass(simulation::kHourSeconds);
    openSession();
    leaveSession();
  }

  // ---------------------------------------------------------------------------------------------------- its operations

  std::string nextName(const char* what) { return std::string(what) + "-" + std::to_string(++last_name_); }

  /// What was asked for happens, and no time passes.
  void runTurns() {
    if (!isCut())
      machine_.loop.runUntilIdle();
    checkIfAlive();
  }
  /// Time passes, until the disk is cut off at the latest.
  void pass(double seconds) {
    advance(seconds);
    checkIfAlive();
  }
  void checkIfAlive() {
    ++figures_.steps;
    if (!isCut())
      check();
  }

  void openSession() {
    if (is_active_ && process_)
      return;
    app_does_.enterForeground();
    runTurns();
    is_active_ = true;
    pass(3);
  }
  void leaveSession() {
    app_does_.leaveForeground();
    runTurns();
    is_active_ = false;
    pass(simulation::kGrantSeconds);
  }

  void startBatch() {
    app_does_.push();
    runTurns();
  }
  void pushTracking() {
    startBatch();
    pass(2);
  }

  void record(int count, size_t padding = 0) {
    for (int i = 0; i < count; ++i) {
      recordEvent(padding);
      pass(1.5);
    }
  }
  void recordEvent(size_t padding = 0) {
    app_does_.recordEvent(nextName("event"), "sku" + std::string(padding, '.'));
    runTurns();
  }
  void offerTooMuch() {
    for (size_t call = 0; call < kLimitedCalls; ++call) {
      app_does_.offerTooLarge(static_cast<LimitedCall>(call));
      runTurns();
    }
  }
  void addImpression() {
    app_does_.addImpression(nextName("impression"));
    runTurns();
    pass(1);
  }
  void openReEngagementLink(double then_pass_seconds = 5) {
    const std::string name = nextName("click");
    app_does_.openUrl("shop://offer?id=" + name + "&ck=" + std::to_string(5000 + last_name_) + "&sn=9001&mrvk_eng=1");
    runTurns();
    pass(then_pass_seconds);
  }
  void openCommerceLink(double then_pass_seconds = 5) {
    app_does_.openCommerceUrl("shop://offer?cid=", nextName("click"));
    runTurns();
    pass(then_pass_seconds);
  }
  void setUserId() {
    app_does_.setUserId(nextName("user"));
    runTurns();
    pass(1);
  }
  /// The process dies of it, and not by itself.
  void reportCrash() {
    app_does_.reportCrash(nextName("fendo crash"), true);
    runTurns();
    is_dying_ = false;
  }

  void wish(bool forget_me) {
    app_does_.wish(forget_me);
    runTurns();
  }
  /// Where there is a network an accepted withdrawal would count as another wish to be forgotten.
  void withdraw() {
    app_does_.setOffline(true);
    wish(false);
    app_does_.setOffline(false);
    runTurns();
  }

  void stop() { endInOrder(); }
  /// What was cut off already died of that, whatever the script has in store for it.
  void die(const DiskCut& scripted) {
    const DiskCut& cut = isCut() ? cut_ : scripted;
    if (process_ || isCut())
      Driver::die(endOf(cut), cut);
  }
  void endCutProcess() {
    if (isCut())
      die(cut_);
  }
  void leaveTheStore() {
    letANewerProgramUseTheStore();
    if (!isCut() && !tracker_.facts.is_next_to_newer)
      throw std::runtime_error("a run that came this far has a store");
  }

  // -------------------------------------------------------------------------------------------- the service, the disk

  Treatment treatmentOf(const kit::Request& request) override {
    const std::optional<Endpoint> endpoint = testing::endpointOf(request.url);
    const auto found = endpoint ? misbehaviours_.find(*endpoint) : misbehaviours_.end();
    return steadyTreatment(found == misbehaviours_.end() ? Misbehaviour::kNone : found->second);
  }
  double drawSyncSeconds() override { return slow_sync_seconds_; }

  /// On a machine the log is synced and written back while the app goes on: now and then something is recorded between
  /// two calls of it.
  void diskCalled(const DiskCall& call) override {
    const bool goes_on = isFirstSyncOfASlowDisk(call) || isWrittenBack(call);
    if (!goes_on || is_healthy_ || !process_ || process_->isGdprForgetMe() ||
        ++written_back_calls_ % kWrittenBackCallsPerEvent != 0)
      return;
    app_does_.recordMeanwhile(nextName("event"));
  }
  /// What goes to the file itself in a turn of the loop, but for its first page, which is also written when a fresh
  /// file is made, with commits held off.
  bool isWrittenBack(const DiskCall& call) {
    return (call.kind == DiskCall::Kind::kSync || (call.kind == DiskCall::Kind::kWrite && call.offset > 0)) &&
           call.path == flaky_disk_.disk.place().path() &&
           machine_.loop.running() == testing::VirtualLoop::Running::kMainBlock;
  }
  bool isFirstSyncOfASlowDisk(const DiskCall& call) {
    if (call.kind != DiskCall::Kind::kSync || !call.path.ends_with("-wal") || !isBeforeFirstSync())
      return false;
    noteFirstSync();
    return slow_sync_seconds_ > 0;
  }

  const DiskCut cut_;
  RunApp app_does_{*this};
  std::map<Endpoint, Misbehaviour> misbehaviours_;
  double slow_sync_seconds_ = 0;  ///< of processes that start
  uint64_t written_back_calls_ = 0;
  uint64_t last_name_ = 0;
  ScriptedRunResult result_;
};

}  // namespace

ScriptedRunResult playScriptedRun(const ScriptedRunOptions& options) {
  return ScriptedRun(options).play();
}

}  // namespace morvik::proofs
