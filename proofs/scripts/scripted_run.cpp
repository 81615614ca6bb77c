#include "proofs/scripts/scripted_run.h"

#include <sqlite3.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "proofs/oracle/expected_records.h"
#include "proofs/run/misbehaviours.h"
#include "proofs/run/newer_program.h"
#include "proofs/run/power_cut_loss.h"
#include "proofs/run/watched_machine.h"
#include "runtime/instance.h"
#include "runtime/machine/machine.h"
#include "services/json_writer.h"
#include "simulation/dice.h"
#include "simulation/durations.h"
#include "simulation/virtual_machine.h"
#include "simulation/virtual_service.h"
#include "simulation/workers.h"
#include "testing/simulated_service.h"

namespace morvik::proofs {
namespace {

using Kind = RecordKind;
using Reason = RemovalReason;
using testing::Answer;
using testing::ServedRequest;
using testing::ServiceEndpoint;

/// So much comes with an event of the long queue that its log has to begin again.
constexpr size_t kLongParamBytes = 700;
constexpr int kLongQueueEvents = 90;
constexpr size_t kNameBytes = 16;  // of a name in a complaint
constexpr uint64_t kWrittenBackCallsPerEvent = 5;
/// A commit that could not be made is retried every ten seconds; after this it was, and can be synced.
constexpr double kStoreRetriedSeconds = 12;

/// A rule may let something go, from a moment of virtual time on.
struct Permission {
  Reason reason = Reason::kProcessEnded;
  double from = 0;
};

/// Something that the app recorded.
struct Item {
  Kind kind = Kind::kActivities;
  std::string name;
  double kept_from = kNever;  ///< virtual time from which on it must outlive a kill; never: not yet
  bool arrived = false;
  std::vector<Permission> permissions;
  bool not_kept_yet = false;
  std::optional<Recorded> told;     ///< to the app, of what is in the store or nowhere once that is answered
  int session_ends = 0;             ///< since it was recorded
  std::optional<Complaint> cut_by;  ///< the first cut after it was recorded
};

/// The latest time that an event was on the wire.
struct Sending {
  double left_at = 0;
  double answered_at = 0;
  bool accepted = false;
  bool overlapped = false;
};

/// Of one kind of records, what became of them as seen from outside the kit.
struct Sides {
  uint64_t kept = 0;      ///< recorded by the app, and no death may have undone it
  uint64_t arrived = 0;   ///< at the service, each once
  uint64_t stored = 0;    ///< in the store
  uint64_t given_up = 0;  ///< neither, and a rule may have let them go
};
using AllSides = std::array<Sides, kRecordKinds>;

/// A death: when, and from when on what was done may be undone by it.
struct Death {
  double at = 0;
  double undone_from = kNever;
  double undone_from_of_kept = kNever;        ///< of what the app was told is kept
  double undone_from_of_wish = kNever;        ///< a wish is lost only where both of its homes were in trouble
  double undone_from_of_withdrawal = kNever;  ///< and a withdrawal where one was
};

std::string textOf(const Sides& sides) {
  return std::to_string(sides.kept) + " kept, " + std::to_string(sides.arrived) + " arrived, " +
         std::to_string(sides.stored) + " stored, " + std::to_string(sides.given_up) + " given up";
}

std::string textOf(const Ledger::Account& account) {
  std::string text = account.kind + ": " + std::to_string(account.recorded) + " recorded, " +
                     std::to_string(account.delivered) + " delivered, " + std::to_string(account.stored) + " stored, " +
                     std::to_string(account.under_way) + " under way, " + std::to_string(account.found_uncounted) +
                     " found uncounted";
  for (const Ledger::GivenUp& each : account.given_up)
    text += ", " + std::to_string(each.count) + " " + each.reason;
  return text;
}

class ScriptedRun final : private MachineWatcher {
 public:
  explicit ScriptedRun(const ScriptedRunOptions& options) : options_(options) {
    machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return serve(request); });
    disk_.decide([this](const simulation::DiskCall& call) { return decide(call); });
    if (options.cut_before_change != 0)
      disk_.cutAt(options.cut_before_change);
  }

  ScriptedRunResult live() {
    try {
      simulation::callFor("the life", [this] { playAndSettle(); });
    } catch (const std::runtime_error& thrown) {
      complain(Complaint::kBroken, thrown.what());
      die(simulation::DiskCut::killed());
    }
    result_.changes = disk_.changes();
    result_.installs = service_->installs() - other_installs_;
    return std::move(result_);
  }

 private:
  void playAndSettle() {
    for (const auto& chapter : chapters()) {
      chapter();
      endCutProcess();
      takeTheStoreBack();
    }
    playHealthyEnd();
    if (isCut())  // in the end itself
      playHealthyEnd();
    settleTotals();
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
        [this] { forgottenBesideANewerStore(); },
        [this] { withdrawal(); },
        [this] { wishBesideANewerStore(); },
        [this] { withdrawal(); },
    };
  }

  void firstStart() {
    misbehaviours_[ServiceEndpoint::kReEngagement] = Misbehaviour::kRefuses;
    openSession();
    addImpression();
    record(12);
    openLink(Kind::kCommerceClicks);
    openLink(Kind::kReEngagementClicks);
    setUserId();
    leaveSession();
  }

  /// The user is back within the minute; the batch at the end is refused.
  void keptSession() {
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kRefuses;
    openSession();
    record(4);
    openLink(Kind::kReEngagementClicks);
    leaveSession();
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kSaysNo;
    pass(simulation::kHourSeconds);
  }

  void lostAnswers() {
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kClosesAfter;
    misbehaviours_[ServiceEndpoint::kDemographics] = Misbehaviour::kClosesBefore;
    openSession();
    record(3);
    setUserId();
    addImpression();
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kGarbage;
    pushTracking();
    record(2);
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kNone;
    pushTracking();
    leaveSession();
    misbehaviours_.clear();
    pass(simulation::kHourSeconds);
  }

  /// The app dies of its own fault in a session; the next start reports it.
  void crash() {
    misbehaviours_[ServiceEndpoint::kCommerce] = Misbehaviour::kRefuses;
    openSession();
    record(3);
    openLink(Kind::kCommerceClicks);
    reportCrash();
    die(simulation::DiskCut::killed());
    misbehaviours_[ServiceEndpoint::kCrash] = Misbehaviour::kClosesBefore;
    openSession();
    pass(5);
    die(simulation::DiskCut::killed());
    misbehaviours_.clear();
    openSession();
    openLink(Kind::kCommerceClicks);
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
    die(simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, 1));
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
    openLink(Kind::kCommerceClicks, 0);
    misbehaviours_[ServiceEndpoint::kCommerce] = Misbehaviour::kRefuses;
    openLink(Kind::kCommerceClicks);
    setUserId();
    setUserId();
    crossBatches();
    misbehaviours_.clear();
    pass(5);
    misbehaviours_[ServiceEndpoint::kReEngagement] = Misbehaviour::kClosesBefore;
    openLink(Kind::kReEngagementClicks, 0);
    die(simulation::DiskCut::killed());
    misbehaviours_.clear();
  }

  /// A session starts again while a batch is under way: the next one leaves next to it, with the demographics.
  void crossBatches() {
    record(1);
    startBatch();
    recordEvent();
    misbehaviours_[ServiceEndpoint::kTracking] = Misbehaviour::kSaysNo;
    doNow([](runtime::Instance& instance) { instance.applicationDidEnterBackground(); });
    doNow([](runtime::Instance& instance) { instance.applicationDidBecomeActive(); });
    setUserId();
  }

  void wishToBeForgotten() {
    openSession();
    record(2);
    pushTracking();
    wish(true);
    if (sabotage_.asksForTheForgotten())
      askForTheSchedule();
    pass(5);
    die(simulation::DiskCut::killed());
    openSession();
    leaveSession();
    die(simulation::DiskCut::killed());
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
    is_beside_the_refused_ = true;
    recordEvent();
    setUserId();
    is_beside_the_refused_ = false;
    die(simulation::DiskCut::killed());
    openSession();
    leaveSession();
    stop();
  }

  /// The disk takes its time, while the app goes on as ever; then the power goes.
  void slowSyncs() {
    sync_seconds_ = dice_.between(kPowerCutLossSeconds / 4, kSlowestSyncSeconds);
    machine_.sync_seconds = sabotage_.syncSeconds(sync_seconds_);
    openSession();
    record(8);
    addImpression();
    setUserId();
    leaveSession();
    openSession();
    record(3);
    die(simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, 1));
    sync_seconds_ = machine_.sync_seconds = 0;
    openSession();
    leaveSession();
    stop();
  }

  /// The store can be read, and not written: what is recorded lives as long as the process, unless it is stored later.
  void unwritable() {
    pass(simulation::kHourSeconds);
    is_writable_ = false;
    openSession();
    record(3);
    setUserId();
    pushTracking();
    record(2);
    die(simulation::DiskCut::killed());
    openSession();
    record(2);
    is_writable_ = true;
    pass(kStoreRetriedSeconds);
    die(simulation::DiskCut::killed());
    openSession();
    leaveSession();
  }

  /// More requests than the host has connections for, and then the wish: those that wait never leave.
  void wishBehindAFullQueue() {
    pass(simulation::kHourSeconds);
    openSession();
    const size_t first = items_.size();
    for (uint64_t links = runtime::kMaxConnectionsPerHost + 1 + dice_.below(runtime::kMaxConnectionsPerHost); links > 0;
         --links)
      openLink(Kind::kReEngagementClicks, 0);
    wish(true);
    if (!isCut())
      permitThoseThatNeverLeft(first);
    pass(5);
    die(simulation::DiskCut::killed());
  }
  void permitThoseThatNeverLeft(size_t first) {
    for (size_t number = first; number < items_.size(); ++number) {
      if (items_[number].arrived)
        continue;
      permit(items_[number], Reason::kForgotten, now());
      met(Occasion::kFullConnection);
    }
  }

  /// A newer program has used the store. This one finds it so, and the wish next to it.
  void forgottenBesideANewerStore() {
    leaveTheStoreToANewerProgram();
    openSession();
    offerToTheForgotten();
    leaveSession();
    die(simulation::DiskCut::killed());
    takeTheStoreBack();
    openSession();
    leaveSession();
  }
  void offerToTheForgotten() {
    if (!wish_)
      return;
    doNow([this](runtime::Instance& instance) {
      expectAnswer(instance.addActivity("shop", "never", {}), Recorded::kRefusedForgotten);
    });
  }

  /// Nothing is stored; the wish is, and outlives the newer program's coming back.
  void wishBesideANewerStore() {
    leaveTheStoreToANewerProgram();
    openSession();
    record(3);
    addImpression();
    openLink(Kind::kCommerceClicks);
    setUserId();
    pushTracking();
    record(1);
    dice_.happens(0.5) ? stop() : die(simulation::DiskCut::killed());
    openSession();
    record(2);
    wish(true);
    pass(5);
    die(simulation::DiskCut::killed());
    openSession();
    leaveSession();
    stop();
    takeTheStoreBack();
    openSession();
    leaveSession();
  }

  void playHealthyEnd() {
    endCutProcess();
    is_healthy_ = true;
    misbehaviours_.clear();
    machine_.transport.goOnline();
    needProcess();
    sabotage_.healthyEndStarts();
    if (process_->isGdprForgetMe()) {
      withdraw();
      stop();
    }
    for (int session = 0; session < 2; ++session) {
      pass(simulation::kHourSeconds);
      openSession();
      record(1);
      openLink(Kind::kCommerceClicks);
      leaveSession();
    }
    pass(simulation::kHourSeconds);
    openSession();
    leaveSession();
  }

  // ------------------------------------------------------------------------------------------------- doing and living

  double now() const { return machine_.loop.monotonicSeconds(); }
  bool isCut() const { return disk_.isCut(); }

  static StartOptions startOptions(ScriptedRun& life) {
    StartOptions options = simulation::simulatedApp();
    options.log_level = kit::lcl_vError;
    options.log_sink = [&life](std::string_view line) { life.hear(line); };
    return options;
  }

  void needProcess() {
    if (process_ || isCut())
      return;
    sabotage_.processStarts(disk_);
    is_starting_ = true;
    machine_.setOffline(false);
    process_ = machine_.start(startOptions(*this));
    machine_.loop.runUntilIdle();
    is_starting_ = false;
    is_active_ = false;
    is_wish_unchecked_ = true;
    if (is_beside_newer_)
      met(Occasion::kNewerStore);
    checkWish();
    checkLedger();
  }

  void checkLedger() {
    if (isCut() || !process_)
      return;
    for (const Ledger::Account& account : process_->ledger().accounts) {
      if (!account.isSound())
        complain(Complaint::kUnsoundLedger, textOf(account));
    }
  }

  /// Once for each process; a store that could not be read at first says later what it holds.
  void checkWish() {
    const bool may_be_unknown = trouble_since_ && !wish_;
    if (isCut() || !process_ || may_be_unknown || !std::exchange(is_wish_unchecked_, false))
      return;
    if (process_->isGdprForgetMe() != wish_ && isWishKept())
      complain(Complaint::kForgottenWish, wish_ ? "the wish to be forgotten" : "the withdrawal");
    setWish(process_->isGdprForgetMe());
  }

  /// Time passes, until the disk is cut off at the latest.
  void pass(double seconds) {
    machine_.loop.advanceUntil([this] { return isCut(); }, isCut() ? 0 : seconds);
  }

  void doNow(const std::function<void(runtime::Instance&)>& action) {
    needProcess();
    if (isCut())
      return;
    action(*process_);
    machine_.loop.runUntilIdle();
    checkWish();
  }

  void openSession() {
    if (is_active_ && process_)
      return;
    sabotage_.sessionStarts(disk_);
    doNow([](runtime::Instance& instance) { instance.applicationDidBecomeActive(); });
    is_active_ = true;
    pass(3);
  }

  void leaveSession() {
    countSessionEnd();
    doNow([](runtime::Instance& instance) { instance.applicationDidEnterBackground(); });
    is_active_ = false;
    pass(simulation::kGrantSeconds);
  }

  /// A click that failed at its first sending and at five session ends is given up at the sixth. An end that is cut off
  /// may count or not.
  void countSessionEnd() {
    if (isCut())
      return;
    for (Item& item : items_) {
      if (item.kind == Kind::kReEngagementClicks && !item.not_kept_yet && item.permissions.empty() &&
          ++item.session_ends > kLastClickFailureToResend)
        permit(item, Reason::kSixthSessionEnd, now());
    }
  }

  void startBatch() {
    doNow([](runtime::Instance& instance) { instance.pushTracking(); });
  }

  void pushTracking() {
    startBatch();
    pass(2);
  }

  /// The app ends in order.
  void stop() {
    if (!process_ || isCut())
      return;
    process_->stop();
    if (isCut())
      return;
    // What a failing disk did not take goes with the process, however orderly.
    if (trouble_since_ || is_beside_newer_)
      noteDeath(deathBy(simulation::DiskCut::killed()), false);
    process_.reset();
    machine_.loop.kill();
    endUploads();
    beginWithoutTrouble();
    checkNewerStore();
  }

  void endCutProcess() {
    if (isCut())
      die(options_.cut);
  }

  /// Records what `action` does under a name of its own. Where it tells what the app is told, that is held against what
  /// the store said.
  using Action = std::function<std::optional<Recorded>(runtime::Instance&)>;
  void record(Kind kind, const std::string& name, double kept_after, const Action& action) {
    needProcess();
    if (isCut() || process_->isGdprForgetMe())
      return;
    items_.push_back({.kind = kind, .name = name});
    const std::optional<double> due = acceptanceDue(endpointTaking(kind));
    if (due && mayGo(kind, Reason::kAddedDuringUpload))
      permit(items_.back(), Reason::kAddedDuringUpload, *due);
    const size_t number = items_.size() - 1;
    const RecordingMoment moment{.kind = kind,
                                 .is_healthy_end = is_healthy_,
                                 .is_excused = !items_.back().permissions.empty(),
                                 .is_next_to_refused = is_beside_the_refused_,
                                 .is_writable = is_writable_};
    if (!sabotage_.losesRecord(moment))
      doNow([&](runtime::Instance& instance) { items_[number].told = heldAgainstTheStore(action(instance)); });
    else if (!is_writable_)
      items_[number].told = Recorded::kKeptInMemory;
    if (!isCut() && !isInMemory(items_[number]))
      items_[number].kept_from = now() + kept_after;
  }

  /// Neither the store nor what waits next to it has it.
  bool isInMemory(const Item& item) const {
    return is_beside_newer_ ? item.kind != Kind::kCrashReports : item.told == Recorded::kKeptInMemory;
  }

  std::optional<Recorded> heldAgainstTheStore(std::optional<Recorded> answer) {
    if (!answer || isCut())
      return std::nullopt;
    const bool is_taken = !trouble_since_ && !is_beside_newer_;
    answer = sabotage_.told(*answer);
    expectAnswer(*answer, is_taken ? Recorded::kKept : Recorded::kKeptInMemory);
    if (!is_writable_ && answer == Recorded::kKeptInMemory)
      met(Occasion::kUnwritable);
    return answer;
  }
  void expectAnswer(Recorded answer, Recorded expected) {
    if (!isCut() && answer != expected)
      complain(Complaint::kWrongAnswer,
               std::string(toText(answer)) + " in the place of: " + std::string(toText(expected)));
  }
  void met(Occasion occasion) { ++result_.occasions[static_cast<size_t>(occasion)]; }

  std::string nextName(const char* what) { return std::string(what) + "-" + std::to_string(1000 + items_.size()); }

  void record(int count, size_t padding = 0) {
    for (int i = 0; i < count; ++i) {
      recordEvent(padding);
      pass(1.5);
    }
  }

  void recordEvent(size_t padding = 0) {
    const std::string name = nextName("event");
    record(Kind::kActivities, name, 0, [&](runtime::Instance& instance) {
      return instance.addActivity("shop", "purchase", name + std::string(padding, '.'));
    });
  }

  /// One more than each operation takes.
  void offerTooMuch() {
    const std::string event(kMaxEventBytes + 1, 'x');
    const std::string user(kMaxUserIdBytes + 1, 'x');
    const std::string url = "shop://offer?cid=" + std::string(kMaxHandedOverBytes, 'x');
    offer([&](runtime::Instance& instance) { return instance.addActivity("shop", "purchase", event); });
    offer([&](runtime::Instance& instance) { return instance.addImpression({.campaign_key = 7, .space_key = event}); });
    offer([&](runtime::Instance& instance) { return instance.setUserId(user); });
    offer([&](runtime::Instance& instance) { return instance.passOpenURL(url); });
  }
  void offer(const std::function<Recorded(runtime::Instance&)>& too_much) {
    doNow([&](runtime::Instance& instance) {
      if (instance.isGdprForgetMe())  // a withdrawal that did not outlive its process
        return;
      expectAnswer(sabotage_.told(too_much(instance)), Recorded::kRefusedTooLarge);
      if (!isCut())
        met(Occasion::kTooLarge);
    });
  }

  void addImpression() {
    const std::string name = nextName("impression");
    record(Kind::kImpressions, name, 0, [this, &name](runtime::Instance& instance) {
      const kit::Value impression =
          kit::Dictionary{{"campaignKey", 7}, {"spaceKey", name}, {"createdAt", kit::Value(machine_.loop.now())}};
      instance.perform([&instance, impression] {
        const auto properties = instance.properties();
        properties.inOneStep([&] {
          kit::MutableArray impressions(properties.fendoImpressionInfos());
          impressions.append(impression);
          properties.setFendoImpressionInfos(kit::Value(std::move(impressions)));
        });
        properties.synchronize();
      });
      return std::nullopt;
    });
    pass(1);
  }

  void openLink(Kind kind, double then_pass_seconds = 5) {
    const std::string name = nextName("click");
    const bool is_commerce = kind == Kind::kCommerceClicks;
    // A re-engagement click is kept once its request has failed, and not before.
    record(kind, name, is_commerce ? 0 : kSteadyDelaySeconds, [&](runtime::Instance& instance) {
      instance.passOpenURL(is_commerce ? "shop://offer?cid=" + name
                                       : "shop://offer?ck=" + std::to_string(5000 + items_.size()) +
                                             "&sn=9001&mrvk_eng=1&sub_referral=" + name);
      return std::nullopt;  // what is told is told of the URL
    });
    pass(then_pass_seconds);
  }

  void setUserId() {
    const std::string name = nextName("user");
    record(Kind::kDemographics, name, 0, [this, &name](runtime::Instance& instance) {
      permitReplacement(instance.properties().fendoUserDemoInfo_userId(), name);
      return instance.setUserId(name);
    });
    pass(1);
  }

  /// The newer value will stand in the place of the one that is pending; and of one that recovers later, which
  /// may be any.
  void permitReplacement(const std::optional<std::string>& pending, const std::string& newer) {
    for (Item& item : items_) {
      if (item.kind == Kind::kDemographics && item.name != newer && (item.name == pending || is_unavailable_))
        permit(item, Reason::kReplaced, now());
    }
  }

  void reportCrash() {
    const std::string name = nextName("crash");
    record(Kind::kCrashReports, name, 0, [&name](runtime::Instance& instance) {
      instance.reportUncaughtException({.reason = "fendo " + name, .call_stack_symbols = {}, .moment = std::nullopt});
      return std::nullopt;
    });
  }

  void setWish(bool forget_me) {
    wish_ = forget_me;
    wish_kept_from_ = now();
  }

  void wish(bool forget_me) {
    is_wish_unchecked_ = false;
    wish_kept_from_ = kNever;
    doNow([forget_me](runtime::Instance& instance) { instance.gdprForgetMe(forget_me); });
    if (!isCut())
      setWish(forget_me);
  }

  /// As the process did before, and must not now.
  void askForTheSchedule() {
    const auto asked = machine_.transport.requests(testing::nameOf(ServiceEndpoint::kSchedule));
    if (asked.empty())
      throw std::logic_error("no schedule was ever asked for");
    machine_.transport.start(asked.back(), [](const kit::TransportOutcome&) {});
    machine_.loop.runUntilIdle();
  }

  /// Where there is a network an accepted withdrawal would count as another wish to be forgotten.
  void withdraw() {
    doNow([this](runtime::Instance&) { machine_.setOffline(true); });
    wish(false);
    doNow([this](runtime::Instance&) { machine_.setOffline(false); });
  }

  // ------------------------------------------------------------------------------------------------- the newer program

  void leaveTheStoreToANewerProgram() {
    stop();
    if (isCut())
      return;
    if (!sabotage_.ignoresTheVersion() && !useWithNewerProgram(disk_, kNewerStoreVersion))
      throw std::logic_error("a run that came this far has a store");
    sabotage_.storeIsLeft(disk_);
    is_beside_newer_ = true;
    beside_since_ = now();
    newer_store_ = storeFilesOn(disk_);
  }
  void takeTheStoreBack() {
    if (!is_beside_newer_ || isCut())
      return;
    checkNewerStore();
    is_beside_newer_ = false;
    static_cast<void>(useWithNewerProgram(disk_, host::kStoreVersion));
  }
  /// Between processes.
  void checkNewerStore() {
    if (is_beside_newer_ && storeFilesOn(disk_) != newer_store_)
      complain(Complaint::kTouchedNewerStore, disk_.place().path());
  }

  // ------------------------------------------------------------------------------------------------------------ dying

  /// What was cut off already died of that, whatever the script has in store for it.
  void die(const simulation::DiskCut& scripted) {
    if (!process_)
      return;
    const simulation::DiskCut cut = isCut() ? options_.cut : scripted;
    disk_.cutNow();
    noteDeath(deathBy(cut), cut.power_lost);
    ++result_.cuts;
    result_.power_cuts += cut.power_lost ? 1 : 0;
    machine_.kill(std::move(process_), cut);
    process_ = nullptr;
    is_active_ = false;
    endUploads();
    beginWithoutTrouble();
    sabotage_.processDied(disk_);
    checkNewerStore();
  }

  Death deathBy(const simulation::DiskCut& cut) const {
    const double store = is_beside_newer_ ? beside_since_ : trouble_since_.value_or(kNever);
    const double file = wish_trouble_since_.value_or(kNever);
    Death death{.at = now(),
                .undone_from = store,
                .undone_from_of_wish = std::max(store, file),
                .undone_from_of_withdrawal = std::min(store, file)};
    if (!cut.power_lost)
      return death;
    for (double* const undone_from :
         {&death.undone_from, &death.undone_from_of_kept, &death.undone_from_of_wish, &death.undone_from_of_withdrawal})
      *undone_from =
          std::min({*undone_from, now(), unsynced_since_.value_or(kNever)}) - powerCutLossSeconds(sync_seconds_);
    return death;
  }

  void noteDeath(const Death& death, bool power_lost) {
    deaths_.push_back(death);
    for (Item& item : items_) {
      if (!item.cut_by)
        item.cut_by = power_lost ? Complaint::kLostAtPowerCut : Complaint::kLostAtKill;
      if (item.kept_from >= (item.told ? death.undone_from_of_kept : death.undone_from))
        item.not_kept_yet = true;
      else if (item.kind == Kind::kReEngagementClicks && item.kept_from >= death.at)
        permit(item, Reason::kProcessEnded, death.at);  // its request was under way
    }
  }

  /// What an earlier process could not sync stays unsynced.
  void beginWithoutTrouble() {
    trouble_since_.reset();
    is_unavailable_ = false;
    wish_trouble_since_.reset();
  }

  /// Whether what was done then outlived every death since.
  bool kept(double when, double Death::*undone_from) const {
    return when != kNever && std::none_of(deaths_.begin(), deaths_.end(), [&](const Death& death) {
             return when <= death.at && when >= death.*undone_from;
           });
  }
  bool isWishKept() const {
    return kept(wish_kept_from_, wish_ ? &Death::undone_from_of_wish : &Death::undone_from_of_withdrawal);
  }

  // ---------------------------------------------------------------------------------------------------------- the disk

  int decide(const simulation::DiskCall& call) {
    if (!is_writable_ && isOfTheStore(call.path) && changesFiles(call))
      return SQLITE_READONLY;
    if (!is_healthy_) {
      if (const int code = faultOf(call); code != SQLITE_OK)
        return code;
    }
    if (call.kind == simulation::DiskCall::Kind::kSync && call.path.ends_with("-wal"))
      unsynced_since_.reset();
    recordMeanwhile(call);
    return sabotage_.diskAnswer(call);
  }

  bool isOfTheStore(std::string_view path) const { return path == store_path_ || path == log_path_; }
  static bool changesFiles(const simulation::DiskCall& call) {
    return call.kind != simulation::DiskCall::Kind::kRead && call.kind != simulation::DiskCall::Kind::kSync &&
           call.kind != simulation::DiskCall::Kind::kSyncFolder;
  }

  /// On a machine the log is synced and written back while the app goes on: now and then something is recorded between
  /// two calls of it.
  void recordMeanwhile(const simulation::DiskCall& call) {
    const bool goes_on = isFirstSyncOfASlowDisk(call) || isWrittenBack(call);
    if (!goes_on || is_healthy_ || !process_ || process_->isGdprForgetMe() ||
        ++written_back_calls_ % kWrittenBackCallsPerEvent != 0)
      return;
    const std::string name = nextName("event");
    items_.push_back({.kind = Kind::kActivities, .name = name});
    const size_t number = items_.size() - 1;
    process_->addActivity("shop", "look", name);
    ++result_.recorded_meanwhile;
    if (!isCut())
      items_[number].kept_from = now();
  }
  /// What goes to the file itself in a turn of the loop, but for its first page, which is also written when a fresh
  /// file is made, with commits held off.
  bool isWrittenBack(const simulation::DiskCall& call) const {
    return (call.kind == simulation::DiskCall::Kind::kSync ||
            (call.kind == simulation::DiskCall::Kind::kWrite && call.offset > 0)) &&
           call.path == store_path_ && machine_.loop.running() == testing::VirtualLoop::Running::kMainBlock;
  }
  bool isFirstSyncOfASlowDisk(const simulation::DiskCall& call) {
    if (call.kind != simulation::DiskCall::Kind::kSync || call.path != log_path_ || !is_before_first_sync_)
      return false;
    is_before_first_sync_ = false;
    if (sync_seconds_ == 0)
      return false;
    met(Occasion::kSlowSync);
    return true;
  }

  int faultOf(const simulation::DiskCall& call) {
    switch (call.kind) {
      case simulation::DiskCall::Kind::kWrite:
      case simulation::DiskCall::Kind::kTruncate:
      case simulation::DiskCall::Kind::kCreate:
        return faultAt(DiskFault::At::kWrite, SQLITE_FULL);
      case simulation::DiskCall::Kind::kSync:
      case simulation::DiskCall::Kind::kSyncFolder:
        return faultAt(DiskFault::At::kSync, SQLITE_IOERR_FSYNC);
      case simulation::DiskCall::Kind::kRead:
        // A wish that cannot be read counts as made, which would silence the whole run.
        return is_starting_ && !call.path.ends_with(".wish") ? faultAt(DiskFault::At::kReadAtStart, SQLITE_IOERR_READ)
                                                             : SQLITE_OK;
      default:
        return SQLITE_OK;
    }
  }

  int faultAt(DiskFault::At at, int code) {
    const uint64_t number = ++result_.fault_points[static_cast<size_t>(at)];
    const auto& fault = options_.fault;
    return fault && fault->at == at && number >= fault->first && number - fault->first < fault->calls ? code
                                                                                                      : SQLITE_OK;
  }

  void storeSays(std::string_view line) override {
    const auto says = [line](std::string_view part) { return line.find(part) != std::string_view::npos; };
    if (isCut())
      return;
    if (says("cannot be read (") || says("are damaged"))
      complain(Complaint::kUnreadableStore, std::string(line));
    if (says("cannot be written (") || says("cannot be opened ("))
      trouble_since_ = trouble_since_.value_or(now());
    is_unavailable_ = is_unavailable_ || says("cannot be opened (");
    if (says("can be written again")) {
      writeLate(trouble_since_.value_or(now()));
      trouble_since_.reset();
      is_unavailable_ = false;
    }
    if (says("cannot be synced to the disk ("))
      unsynced_since_ = unsynced_since_.value_or(now());
  }
  void hear(std::string_view line) {
    if (isCut() || line.find("keeps the wish to be forgotten") == std::string_view::npos)
      return;
    if (line.find("cannot be written (") != std::string_view::npos)
      wish_trouble_since_ = wish_trouble_since_.value_or(now());
    else if (line.find("can be written again") != std::string_view::npos)
      wish_trouble_since_.reset();
  }
  /// What was held in memory since then is in the store from now on, and not before.
  void writeLate(double since) {
    const auto is_late = [since](double when) { return when >= since && when != kNever; };
    for (Item& item : items_) {
      const bool was_in_memory = item.told == Recorded::kKeptInMemory && item.kept_from == kNever && !item.not_kept_yet;
      if (was_in_memory || is_late(item.kept_from))
        item.kept_from = now();
    }
    for (auto& [id, sending] : sendings_) {
      if (is_late(sending.answered_at))
        sending.answered_at = std::max(sending.answered_at, now());
    }
    for (double* const when : {&wish_kept_from_, &installed_at_}) {
      if (is_late(*when))
        *when = now();
    }
  }

  // What a flush of the store does first is its first sync, with no commit held off.
  void flushBegins() override { is_before_first_sync_ = true; }
  void flushEnded() override { is_before_first_sync_ = false; }
  void requestStarts(uint64_t, const kit::Request&) override {}
  void handlerBegins(uint64_t, const kit::TransportOutcome&) override {}
  void handlerEnded(uint64_t) override {}
  void valueSet(std::string_view, const kit::Value&) override {}
  void blockPostponed(double) override {}

  // ------------------------------------------------------------------------------------------------------- the service

  Answer serve(const kit::Request& request) {
    if (isCut())
      return Answer::silence();  // it never left
    const std::optional<ServiceEndpoint> endpoint = testing::endpointOf(request.url);
    if (process_ && endpoint != ServiceEndpoint::kErasure && process_->isGdprForgetMe())
      complain(Complaint::kRequestOfForgotten, request.url);
    const Misbehaviour misbehaviour =
        endpoint && misbehaviours_.contains(*endpoint) ? misbehaviours_[*endpoint] : Misbehaviour::kNone;
    const TreatedRequest treated = treat(request, steadyTreatment(misbehaviour), *service_, service_dice_, {});
    const ServedRequest& served = treated.served;
    if (served.refusal)
      complain(Complaint::kBroken, "the service refused " + request.url + ": " + *served.refusal);
    if (endpoint == ServiceEndpoint::kTracking)
      noteSent(served, misbehaviour);
    if (endpoint && misbehaviour == Misbehaviour::kNone)
      acceptances_[*endpoint].push_back(now() + kSteadyDelaySeconds);
    if (endpoint == ServiceEndpoint::kConversion)
      installed_at_ = std::min(installed_at_, now());
    if (served.counted)
      noteArrived(served);
    // Who may not read its store does not know who it is.
    if (is_beside_newer_)
      other_installs_ = std::max(other_installs_, service_->installs() - own_installs_);
    else
      own_installs_ = service_->installs() - other_installs_;
    return treated.answer;
  }

  void noteSent(const ServedRequest& served, Misbehaviour misbehaviour) {
    const bool overlaps = now() < batch_under_way_until_;
    batch_under_way_until_ = std::max(batch_under_way_until_, now() + kSteadyDelaySeconds);
    const bool accepted = misbehaviour == Misbehaviour::kNone;
    for (const kit::Value& event : served.payload["activity_info"].array()) {
      const std::string id(event["event_id"].string());
      const auto before = sendings_.find(id);
      if (before != sendings_.end()) {
        before->second.overlapped |= overlaps;
        if (isExplained(before->second))
          ++result_.sent_twice;
        else
          complain(Complaint::kSentTwice, id + " " + std::string(event["param"].string().substr(0, kNameBytes)));
      }
      sendings_[id] = {
          .left_at = now(), .answered_at = now() + kSteadyDelaySeconds, .accepted = accepted, .overlapped = overlaps};
    }
    if (const std::optional<double> due = acceptanceDue(ServiceEndpoint::kTracking))
      permitToLoseItsPlace(served, *due);
  }

  bool isExplained(const Sending& sending) const {
    return !sending.accepted || sending.overlapped ||
           std::any_of(deaths_.begin(), deaths_.end(), [&](const Death& death) {
             return death.at >= sending.left_at && std::min(death.at, death.undone_from) <= sending.answered_at;
           });
  }

  /// The answer to the batch before it, when it comes, deletes what this one carries.
  void permitToLoseItsPlace(const ServedRequest& served, double due) {
    const std::string text = services::jsonDescription(served.payload);
    for (Item& item : items_) {
      if (mayGo(item.kind, Reason::kPlaceTaken) && text.find(item.name) != std::string::npos)
        permit(item, Reason::kPlaceTaken, due);
    }
  }

  void noteArrived(const ServedRequest& served) {
    for (const kit::Value& event : served.payload["activity_info"].array())
      arrived_activities_.emplace(event["event_id"].string());
    const std::string text = services::jsonDescription(served.payload);
    for (Item& item : items_) {
      if (!item.arrived && endpointTaking(item.kind) == served.endpoint && text.find(item.name) != std::string::npos)
        item.arrived = true;
    }
  }

  // --------------------------------------------------------------------------------------------- what may be given up

  /// What the ledger's table has no rule for is given up for no reason.
  static void permit(Item& item, Reason reason, double from) {
    if (!mayGo(item.kind, reason))
      throw std::logic_error("no rule gives up " + item.name + " for that reason");
    item.permissions.push_back({reason, from});
  }

  /// When the next answer comes that accepts an upload under way there, and empties what it was made of.
  std::optional<double> acceptanceDue(ServiceEndpoint endpoint) const {
    const auto found = acceptances_.find(endpoint);
    if (found == acceptances_.end())
      return std::nullopt;
    const auto due = std::upper_bound(found->second.begin(), found->second.end(), now());
    return due == found->second.end() ? std::nullopt : std::optional(*due);
  }

  /// The process ends: the answers that are due never come.
  void endUploads() {
    batch_under_way_until_ = 0;
    acceptances_.clear();
    for (Item& item : items_)
      std::erase_if(item.permissions, [this](const Permission& each) { return each.from > now(); });
  }

  // ------------------------------------------------------------------------------------------------------- the account

  void complain(Complaint complaint, const std::string& text) {
    ++result_.complaints[static_cast<size_t>(complaint)];
    result_.texts.push_back(std::string(nameOf(complaint)) + ": " + text);
  }

  void settleTotals() {
    if (own_installs_ > 1 && kept(installed_at_, &Death::undone_from))
      complain(Complaint::kAnotherDevice, std::to_string(own_installs_) + " installs");
    checkLedger();
    AllSides sides;
    const std::array<std::string, kRecordKinds> stored = readStore(sides);
    for (const Item& item : items_) {
      const auto kind = static_cast<size_t>(item.kind);
      settle(item, stored[kind].find(item.name) != std::string::npos, sides[kind]);
    }
    // Those of the kit's own making are not among the items.
    sides[static_cast<size_t>(Kind::kActivities)].arrived = arrived_activities_.size();
    compareWithLedger(sides);
    process_->stop();
    process_.reset();
  }

  /// What is stored of each kind, as text; and how much it is.
  std::array<std::string, kRecordKinds> readStore(AllSides& sides) const {
    std::array<std::string, kRecordKinds> texts;
    for (const auto& [key, value] : process_->allStored()) {
      const std::optional<Kind> kind = kindStoredUnder(key);
      if (!kind)
        continue;
      texts[static_cast<size_t>(*kind)] += services::jsonDescription(value);
      sides[static_cast<size_t>(*kind)].stored += recordsIn(*kind, value);
    }
    return texts;
  }

  void settle(const Item& item, bool is_stored, Sides& sides) {
    ScriptedRunTotals& totals = result_.totals;
    ++totals.recorded;
    sides.kept += item.not_kept_yet ? 0 : 1;
    if (item.arrived) {
      ++totals.delivered;
      ++sides.arrived;
    } else if (is_stored) {
      ++totals.stored;
    } else if (item.not_kept_yet && item.told == Recorded::kKeptInMemory) {
      ++totals.kept_in_memory;
    } else if (item.not_kept_yet) {
      ++totals.not_kept_yet;
    } else if (const std::optional<size_t> row = firstRuleOf(item)) {
      ++totals.given_up[*row];
      ++sides.given_up;
    } else {
      complain(item.cut_by.value_or(Complaint::kLostOtherwise), item.name);
    }
  }

  /// The row of the table.
  static std::optional<size_t> firstRuleOf(const Item& item) {
    std::optional<size_t> first;
    for (const Permission& permission : item.permissions) {
      const std::optional<size_t> row = removalRuleOf(item.kind, permission.reason);
      if (row)
        first = std::min(first.value_or(*row), *row);
    }
    return first;
  }

  /// The ledger also counts what the kit records of itself, and what a death took with it is in neither account for
  /// certain. So it knows of at least what was kept, of no more deliveries than there were arrivals, of just what is
  /// stored, and of at least what a rule let go.
  void compareWithLedger(const AllSides& all) {
    const std::vector<Ledger::Account> accounts = process_->ledger().accounts;
    for (size_t kind = 0; kind < accounts.size(); ++kind) {
      const Ledger::Account& account = accounts[kind];
      const Sides& seen = all[kind];
      if (account.recorded < seen.kept || account.delivered > seen.arrived || account.stored != seen.stored ||
          account.givenUp() < seen.given_up)
        complain(Complaint::kUnbalancedAccount, textOf(account) + "; seen: " + textOf(seen));
    }
  }

  const ScriptedRunOptions options_;
  simulation::Dice dice_{options_.seed};
  simulation::Dice service_dice_{options_.seed};  ///< draws what a misbehaving service says
  simulation::SimulatedDisk disk_;
  RunSabotage sabotage_{options_.sabotage};
  WatchedMachine machine_{{.disk = &disk_}, *this, &sabotage_};
  bool is_before_first_sync_ = false;  ///< of a flush
  simulation::VirtualService service_{[this] { return machine_.loop.now(); }, 0};
  std::map<ServiceEndpoint, Misbehaviour> misbehaviours_;
  std::unique_ptr<runtime::Instance> process_;
  bool is_active_ = false;
  bool is_starting_ = false;
  bool is_healthy_ = false;
  bool is_writable_ = true;  ///< the store's files are
  bool is_beside_newer_ = false;
  double beside_since_ = 0;
  std::map<std::string, std::string> newer_store_;  ///< its files as they were found
  double sync_seconds_ = 0;                         ///< that the disk takes, as the run counts with it
  bool is_beside_the_refused_ = false;

  std::vector<Item> items_;
  std::map<std::string, Sending> sendings_;   ///< by event id
  std::set<std::string> arrived_activities_;  ///< event ids
  std::vector<Death> deaths_;
  bool wish_ = false;
  bool is_wish_unchecked_ = false;
  double wish_kept_from_ = kNever;
  double installed_at_ = kNever;
  size_t own_installs_ = 0;
  size_t other_installs_ = 0;  ///< next to a newer store
  double batch_under_way_until_ = 0;
  /// Of this process: when answers come that accept an upload, the earliest first.
  std::map<ServiceEndpoint, std::vector<double>> acceptances_;
  std::optional<double> trouble_since_;       ///< of the disk, as the store told it
  bool is_unavailable_ = false;               ///< the file could not be opened, and has not recovered
  std::optional<double> wish_trouble_since_;  ///< the same of the file that keeps the wish
  std::optional<double> unsynced_since_;      ///< the same, until the log is synced
  const std::string store_path_ = disk_.place().path();
  const std::string log_path_ = store_path_ + "-wal";
  uint64_t written_back_calls_ = 0;
  ScriptedRunResult result_;
};

}  // namespace

const char* nameOf(Complaint complaint) {
  switch (complaint) {
    case Complaint::kUnreadableStore:
      return "unreadable store";
    case Complaint::kLostAtKill:
      return "lost at a kill";
    case Complaint::kLostAtPowerCut:
      return "lost at a power cut";
    case Complaint::kLostOtherwise:
      return "lost without a cut";
    case Complaint::kSentTwice:
      return "sent twice without a reason";
    case Complaint::kUnbalancedAccount:
      return "unbalanced account";
    case Complaint::kForgottenWish:
      return "forgotten wish";
    case Complaint::kRequestOfForgotten:
      return "request of a forgotten user";
    case Complaint::kUnsoundLedger:
      return "unsound ledger";
    case Complaint::kAnotherDevice:
      return "installed again";
    case Complaint::kTouchedNewerStore:
      return "changed a newer store";
    case Complaint::kWrongAnswer:
      return "told the app what is not so";
    case Complaint::kBroken:
      return "broken";
  }
  return "";
}

const char* nameOf(Occasion occasion) {
  static constexpr std::array<const char*, kOccasions> kNames = {
      "processes with a newer store", "answers of a store that takes nothing", "slow syncs", "values over a limit",
      "requests that waited at the wish"};
  return kNames[static_cast<size_t>(occasion)];
}

uint64_t ScriptedRunTotals::givenUp() const {
  return std::accumulate(given_up.begin(), given_up.end(), uint64_t{0});
}

ScriptedRunTotals& ScriptedRunTotals::operator+=(const ScriptedRunTotals& other) {
  recorded += other.recorded;
  delivered += other.delivered;
  stored += other.stored;
  for (size_t row = 0; row < given_up.size(); ++row)
    given_up[row] += other.given_up[row];
  not_kept_yet += other.not_kept_yet;
  kept_in_memory += other.kept_in_memory;
  return *this;
}

ScriptedRunResult playScriptedRun(const ScriptedRunOptions& options) {
  return ScriptedRun(options).live();
}

}  // namespace morvik::proofs
