#include "proofs/scripts/scripted_run.h"

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "proofs/run/power_cut_loss.h"
#include "proofs/scripts/scripted_device.h"
#include "simulation/durations.h"
#include "simulation/workers.h"

namespace morvik::proofs {
namespace {

using Endpoint = testing::ServiceEndpoint;
using simulation::DiskCut;
using simulation::PowerLoss;

/// So much comes with an event of the long queue that its log has to begin again.
constexpr size_t kLongParamBytes = 760;
constexpr int kLongQueueEvents = 90;
/// A commit that could not be made is retried every ten seconds; after this it was, and can be synced.
constexpr double kStoreRetriedSeconds = 12;

class ScriptedRun final : private ScriptedDevice {
 public:
  explicit ScriptedRun(const ScriptedRunOptions& options)
      : ScriptedDevice({.seed = options.seed, .sabotage = options.sabotage, .trace = options.trace}, options.cut) {
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

  ScriptedRunResult result_;
};

}  // namespace

ScriptedRunResult playScriptedRun(const ScriptedRunOptions& options) {
  return ScriptedRun(options).play();
}

}  // namespace morvik::proofs
