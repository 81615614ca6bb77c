#include "proofs/scripts/random_run.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "host/store/store_database.h"
#include "host/store/store_files.h"
#include "proofs/oracle/tracker.h"
#include "proofs/run/newer_program.h"
#include "proofs/run/power_cut_loss.h"
#include "proofs/run/stored_keys.h"
#include "proofs/run/transcript.h"
#include "proofs/run/watched_machine.h"
#include "runtime/instance.h"
#include "services/json_writer.h"
#include "simulation/durations.h"
#include "simulation/virtual_service.h"
#include "testing/json_reader.h"

namespace morvik::proofs {
namespace {

using testing::Answer;
using testing::ServiceEndpoint;

constexpr double kYearSeconds = 365.25 * simulation::kDaySeconds;
/// A cut in the middle of what the disk does comes within so many of its changes.
constexpr uint64_t kChangesToACut = 60;
constexpr uint64_t kMostFailingCalls = 30;
constexpr uint64_t kMostTurnsBeforeADeath = 12;
constexpr int kMostTalkative = 6;
constexpr size_t kPaddedParamBytes = 700;
constexpr uint64_t kBurst = 25;
constexpr uint64_t kHealthySessions = 3;
/// Of a hundred processes, those on a slow disk.
constexpr double kOnASlowDisk = 0.1;
/// A user may be found by these keys; few, so that they meet.
constexpr int64_t kKeys[] = {0, 5001, 5002, 5003, 5004, 5005};

/// How a service and its network are, for a while.
enum class Weather : uint8_t { kFine, kRough, kStorm };
constexpr double kMisbehavesInWeather[] = {0, 0.3, 0.92};

/// A way in which time passes after something was done.
struct Pause {
  double weight;
  double least_seconds;
  double most_seconds;
};
constexpr Pause kPauses[] = {
    {12, 0, 0},  // some turns, and no time
    {20, 0, 0.6},
    {30, 0.6, 5},
    {18, 5, simulation::kMinuteSeconds},
    {12, simulation::kMinuteSeconds, 20 * simulation::kMinuteSeconds},
    {6, 20 * simulation::kMinuteSeconds, 5 * simulation::kHourSeconds},
    {1, 5 * simulation::kHourSeconds, 1.5 * simulation::kDaySeconds},
};

template <class Row, size_t kCount>
const Row& drawn(const Row (&rows)[kCount], simulation::Dice& dice) {
  double sum = 0;
  for (const Row& row : rows)
    sum += row.weight;
  double left = dice.between(0, sum);
  for (const Row& row : rows) {
    if (left < row.weight)
      return row;
    left -= row.weight;
  }
  return rows[0];
}

/// What the core takes for a success: a good status, and an object.
std::optional<kit::Value> successIn(const kit::TransportOutcome& outcome) {
  if (outcome.error || !outcome.response)
    return std::nullopt;
  const kit::Response& response = *outcome.response;
  if (response.status_code < 200 || response.status_code > 299)
    return std::nullopt;
  auto read = testing::readJson(response.body);
  auto* json = std::get_if<kit::Value>(&read);
  return json != nullptr && json->isDictionary() ? std::optional(std::move(*json)) : std::nullopt;
}

class RandomRun final : private MachineWatcher {
 public:
  explicit RandomRun(const RandomRunOptions& options)
      : options_(options),
        dice_(options.seed),
        sabotage_(options.sabotage),
        disk_([this] { return now(); }, [this](const simulation::DiskCall& call) { diskChanges(call); }),
        machine_(machineOptions(), *this, &sabotage_),
        invariants_(makeInvariants(tracker_.facts, [this](const char* invariant, const std::string& text) {
          complain(std::string(invariant) + ": " + text);
        })) {
    machine_.transport.setObserver([this](const kit::Request& request) { leaves(request); });
    machine_.transport.on("").alwaysBy([this](const kit::Request& request) { return serve(request); });
    drawTraits();
  }

  RandomRunResult live() {
    const double began = now();
    try {
      while (result_.complaints.empty() && now() - began < options_.days * simulation::kDaySeconds)
        step();
      if (result_.complaints.empty())
        playHealthyEnd();
    } catch (const std::exception& thrown) {
      complain(std::string("broken: ") + thrown.what());
    }
    result_.figures.days = (now() - began) / simulation::kDaySeconds;
    end();
    return std::move(result_);
  }

 private:
  simulation::VirtualMachineOptions machineOptions() {
    simulation::VirtualMachineOptions options;
    options.seed = dice_.next();
    options.disk = &disk_.disk;
    return options;
  }

  void drawTraits() {
    app_ = simulation::simulatedApp();
    app_.log_level = kMostTalkative;
    app_.log_sink = [this](std::string_view line) { hear(sabotage_.logged(line)); };
    if (dice_.happens(0.1))
      app_.device.idfa = Identifier::none();
    if (dice_.happens(0.1)) {
      app_.device.puid = Identifier::none();
      tracker_.hasNoIdentifier();
    }
    if (dice_.happens(0.04))
      app_.tracking_key = "";
    if (dice_.happens(0.04))
      app_.device.multitasking = false;
    if (dice_.happens(0.15)) {
      app_.ad_client.determineAppInstallationAttribution = [this](const AdClient::InstallationAttribution& answer) {
        answer(dice_.happens(0.5));
      };
    }
    service_->setPremiumPostback(dice_.happens(0.5));
    if (dice_.happens(0.5))
      plugInModules();
  }

  /// What they are told becomes part of the transcript.
  void plugInModules() {
    const auto note_text = [this](const std::string& text) { transcript_.add(text); };
    Module fendo;
    fendo.getSDKVersion = [] { return "1.2.3"; };
    fendo.saveCommerceEventAndSend = [note_text] { note_text("commerce events"); };
    fendo.didGetSchedule = note_text;
    Module fendo_lib;
    fendo_lib.resetRetainedConversionCache = [note_text](const std::map<std::string, std::string>& query) {
      for (const auto& [name, value] : query)
        note_text(std::string(name).append("=").append(value));
    };
    fendo_lib.saveRetainedConversionKey = [note_text](int64_t key) { note_text("key " + std::to_string(key)); };
    Module push;
    push.setRemotePushEnable = [note_text](bool enable) { note_text(enable ? "push on" : "push off"); };
    app_.modules = {{"Fendo", fendo}, {"FendoLib", fendo_lib}, {"QuintPush", push}};
    delegate_ = std::make_shared<MorvikCoreDelegate>();
    delegate_->didReceiveDeeplink = note_text;
    delegate_->didSaveConversionKey = [note_text](int64_t key, const std::string& sub_key) {
      note_text("saved " + std::to_string(key) + " " + sub_key);
    };
  }

  // -------------------------------------------------------------------------------------------------------- the verbs

  struct Verb {
    const char* name;
    double weight;
    void (RandomRun::*act)();
  };

  static const Verb& drawVerb(simulation::Dice& dice) {
    static constexpr Verb kVerbs[] = {
        {"record an event", 60, &RandomRun::recordAnEvent},
        {"record a burst of events", 3, &RandomRun::recordABurst},
        {"record an event called end", 1, &RandomRun::recordAnEventCalledEnd},
        {"record an event that is refused", 1, &RandomRun::recordARefusedEvent},
        {"record something over a limit", 1, &RandomRun::recordSomethingTooLarge},
        {"add an impression", 8, &RandomRun::addAnImpression},
        {"open a re-engagement link", 10, &RandomRun::openAReEngagementLink},
        {"open a link by the advertising identifier", 2, &RandomRun::openALinkByIdentifier},
        {"open a commerce link", 8, &RandomRun::openACommerceLink},
        {"open a link of both kinds", 2, &RandomRun::openALinkOfBothKinds},
        {"open an odd URL", 3, &RandomRun::openAnOddUrl},
        {"keep a URL for the next start", 1, &RandomRun::keepAUrl},
        {"report a crash", 4, &RandomRun::reportACrash},
        {"set an age", 3, &RandomRun::setAnAge},
        {"set a gender", 3, &RandomRun::setAGender},
        {"set a user id", 3, &RandomRun::setAUserId},
        {"take an age back", 1, &RandomRun::takeAnAgeBack},
        {"take a gender back", 1, &RandomRun::takeAGenderBack},
        {"ask to be forgotten", 0.4, &RandomRun::askToBeForgotten},
        {"ask to be forgotten while many requests wait", 0.2, &RandomRun::askToBeForgottenBehindManyLinks},
        {"withdraw the wish", 2, &RandomRun::withdraw},
        {"withdraw the wish offline", 6, &RandomRun::withdrawOffline},
        {"look at what there is", 3, &RandomRun::lookAround},
        {"set the log's level", 1, &RandomRun::setTheLogLevel},
        {"push", 14, &RandomRun::push},
        {"come to the foreground", 22, &RandomRun::comeToTheForeground},
        {"leave the foreground", 18, &RandomRun::leaveTheForeground},
        {"leave and come back", 5, &RandomRun::leaveAndComeBack},
        {"report a third party conversion", 1, &RandomRun::reportThirdParty},
        {"report a Facebook referral", 2, &RandomRun::reportFacebook},
        {"switch the app offline or online", 2, &RandomRun::switchOffline},
        {"the network goes or comes", 4, &RandomRun::changeTheNetwork},
        {"the weather changes", 6, &RandomRun::changeTheWeather},
        {"the clock is set", 2, &RandomRun::setTheClock},
        {"the disk fails", 3, &RandomRun::failTheDisk},
        {"the disk is well again", 2, &RandomRun::repairTheDisk},
        {"a newer program uses the store", 1.5, &RandomRun::letANewerProgramUseTheStore},
        {"the newer program comes back", 5, &RandomRun::takeTheStoreBack},
        {"the process is killed", 4, &RandomRun::killTheProcess},
        {"the power goes", 3, &RandomRun::cutThePower},
        {"a cut lies ahead", 4, &RandomRun::layACut},
        {"the process ends in order", 3, &RandomRun::endInOrder},
    };
    return drawn(kVerbs, dice);
  }

  void step() {
    const Verb& verb = drawVerb(dice_);
    ++result_.figures.steps;
    note(verb.name);
    (this->*verb.act)();
    pass();
    if (std::exchange(is_dying_, false) && process_ && !isCut())
      die(RandomRunEnd::kCrashed);
    dieIfCut();
    check();
  }

  std::string nextName(const char* what) { return std::string(what) + "-" + std::to_string(++last_name_); }

  /// What the app does, on the main queue.
  void perform(std::function<void()> block) {
    needProcess();
    if (!process_)
      return;
    process_->mainQueue().async([this, block = std::move(block)] {
      if (!isOver())
        block();
    });
  }

  void recordAnEvent() { recordEvent(dice_.happens(0.1) ? kPaddedParamBytes : 0); }
  void recordABurst() {
    for (uint64_t events = dice_.below(kBurst); events > 0; --events)
      recordEvent(0);
  }
  void recordEvent(size_t padding) {
    const std::string name = nextName("look");
    const uint64_t oddness = dice_.below(12);
    perform([this, name, padding, oddness] {
      if (process_->isGdprForgetMe())
        return answered(process_->addActivity("shop", name, "refused"), Recorded::kRefusedForgotten);
      if (oddness == 3)
        return answered(process_->addActivity("", name, "refused"), Recorded::kRefusedEmpty);
      std::optional<std::string> param = "sku" + std::string(padding, '.');
      if (oddness == 0)
        param.reset();
      if (oddness == 1)
        param = "\xc3\x28 not UTF-8 \xff";
      if (oddness == 2)
        param = "\"\\\n\t\x01 \xf0\x9f\x98\x80";
      tracker_.addRecord(RecordKind::kActivities, name);
      isAnsweredByTheStore(process_->addActivity("shop", name, param));
    });
  }
  void isAnsweredByTheStore(Recorded answer) {
    answer = sabotage_.told(answer);
    if (answer == Recorded::kKeptInMemory)
      ++result_.figures.kept_in_memory;
    // What a stop still lets run may come behind the store's end.
    if (!is_stopping_)
      answered(answer, trouble_since_ ? Recorded::kKeptInMemory : Recorded::kKept);
  }
  void answered(Recorded told, Recorded rightly) {
    if (!isCut())
      tell([&](Invariant& invariant) { invariant.answered(told, rightly); });
  }
  /// Its neighbours are those of the other verbs.
  void recordSomethingTooLarge() {
    const uint64_t what = dice_.below(4);
    perform([this, what] {
      const std::string text(kMaxEventBytes + 1, 'x');
      const Recorded rightly =
          process_->isGdprForgetMe() && what < 2 ? Recorded::kRefusedForgotten : Recorded::kRefusedTooLarge;
      if (what == 0)
        answered(process_->addActivity("shop", "look", text), rightly);
      else if (what == 1)
        answered(process_->addImpression({.campaign_key = 7, .space_key = text}), rightly);
      else
        answered(what == 2 ? process_->setUserId(text) : process_->passOpenURL("shop://offer?cid=" + text), rightly);
      ++result_.figures.too_large;
    });
  }
  void recordAnEventCalledEnd() {
    const std::string name = nextName("level");
    perform([this, name] {
      if (process_->isGdprForgetMe())
        return;
      const RecordNumber number = tracker_.addRecord(RecordKind::kActivities, name);
      tracker_.facts.records.permit(number, RemovalReason::kKeptSession);
      process_->addActivity("game", "end", name);
    });
  }
  void recordARefusedEvent() {
    perform([this] {
      if (process_->isGdprForgetMe())
        process_->addActivity("shop", "never", std::nullopt);
    });
  }

  void addAnImpression() {
    const std::string name = nextName("space");
    perform([this, name] {
      const kit::Value impression =
          kit::Dictionary{{"campaignKey", 7}, {"spaceKey", name}, {"createdAt", kit::Value(machine_.loop.now())}};
      tracker_.addRecord(RecordKind::kImpressions, name);
      const auto properties = process_->properties();
      properties.inOneStep([&] {
        kit::MutableArray impressions(properties.fendoImpressionInfos());
        impressions.append(impression);
        properties.setFendoImpressionInfos(kit::Value(std::move(impressions)));
      });
      properties.synchronize();
    });
  }

  int64_t drawKey() { return kKeys[dice_.below(std::size(kKeys))]; }
  std::string reEngagementUrl() {
    return "shop://offer?id=" + nextName("click") + "&ck=" + std::to_string(drawKey()) + "&sn=9001";
  }
  void openUrl(const std::string& url) {
    perform([this, url] { process_->passOpenURL(url); });
  }
  void openAReEngagementLink() { openUrl(reEngagementUrl() + (dice_.happens(0.5) ? "&mrvk_eng=1" : "")); }
  void openALinkByIdentifier() { openUrl(reEngagementUrl() + "&isFacebookCpi=1&mrvk_deeplink_cvr=1"); }
  void openACommerceLink() { openCommerceUrl("shop://offer?cid="); }
  void openALinkOfBothKinds() { openCommerceUrl(reEngagementUrl() + "&cid="); }
  /// Without an advertising identifier only a re-engagement link counts as one.
  void openCommerceUrl(const std::string& beginning) {
    const std::string name = nextName("deal");
    const bool counts =
        app_.device.idfa.source() != Identifier::Source::kNone || beginning.find("ck=") != std::string::npos;
    perform([this, counts, name, url = beginning + name] {
      if (counts)
        tracker_.addRecord(RecordKind::kCommerceClicks, name);
      process_->passOpenURL(url);
    });
  }
  void openAnOddUrl() {
    static constexpr const char* kUrls[] = {"",          "?",      "shop://",     "shop://offer?",
                                            "::%%%",     "%zz?=&", "shop://a#?b", "shop://offer?sn=1&mrvk_eng=1",
                                            "\xff\xfe?", "a b c"};
    openUrl(kUrls[dice_.below(std::size(kUrls))]);
  }
  void keepAUrl() {
    const std::string url = reEngagementUrl();
    perform([this, url] { process_->storeOpenedUrl(url); });
  }

  void reportACrash() {
    const bool concerns_the_kit = dice_.happens(0.8);
    const std::string reason = nextName(concerns_the_kit ? "fendo crash" : "somebody else's crash");
    perform([this, reason, concerns_the_kit] {
      process_->reportUncaughtException({.reason = reason, .call_stack_symbols = {"0 app"}, .moment = std::nullopt});
      const auto is_among = [&reason](const kit::Array& reports) {
        return std::any_of(reports.begin(), reports.end(), [&reason](const kit::Value& report) {
          return report["exception_reason"].string() == reason;
        });
      };
      const bool is_kept = is_among(process_->properties().MorvikCoreUserInfo_Crash().array()) ||
                           is_among(machine_.report_shelf.reports());
      if (is_kept != concerns_the_kit)
        complain(std::string(kNothingIsLost) + ": " + reason + (is_kept ? " was kept" : " was not kept"));
      is_dying_ = true;
    });
  }

  void setAnAge() {
    const auto age = static_cast<int32_t>(++last_name_);
    perform([this, age] {
      tracker_.setDemographic("age=" + std::to_string(age), true, "age");
      process_->setAge(age);
    });
  }
  void setAGender() {
    const auto gender = static_cast<int32_t>(++last_name_);
    perform([this, gender] {
      tracker_.setDemographic("gender=" + std::to_string(gender), true, "gender");
      process_->setGender(gender);
    });
  }
  void setAUserId() {
    const std::string name = nextName("user");
    perform([this, name] {
      tracker_.setDemographic("userId=" + name, true, "userId");
      process_->setUserId(name);
    });
  }
  void takeAnAgeBack() {
    perform([this] {
      tracker_.setDemographic("", false, "age");
      process_->setAge(-1);
    });
  }
  void takeAGenderBack() {
    perform([this] {
      tracker_.setDemographic("", false, "gender");
      process_->setGender(-1);
    });
  }

  void wish(bool forget_me) {
    perform([this, forget_me] {
      process_->gdprForgetMe(forget_me);
      isWished(forget_me);
    });
  }
  void isWished(bool forget_me) {
    tracker_.facts.wants_to_be_forgotten = forget_me;
    wish_kept_from_ = wish_in_file_from_ = kNever;
    tracker_.facts.wish_is_in_its_file = false;
    whenCommitted([this] {
      wish_kept_from_ = now();
      lookAtTheWishFile();
    });
  }
  /// A wish is safe in either of its homes.
  void lookAtTheWishFile() {
    RunFacts& facts = tracker_.facts;
    if (!facts.wants_to_be_forgotten || !process_ || !process_->isGdprForgetMe() || wish_in_file_from_ != kNever ||
        process_->status().wish_file != WishFileState::kGood)
      return;
    wish_in_file_from_ = now();
    facts.wish_is_in_its_file = true;
  }
  void askToBeForgotten() { wish(true); }
  /// More than the host has places for.
  void askToBeForgottenBehindManyLinks() {
    const uint64_t links = runtime::kMaxConnectionsPerHost + 1 + dice_.below(runtime::kMaxConnectionsPerHost);
    for (uint64_t link = 0; link < links; ++link)
      openUrl(reEngagementUrl() + "&mrvk_eng=1");
    perform([this] {
      if (process_->pending().requests > runtime::kMaxConnectionsPerHost)
        ++result_.figures.full_queues;
    });
    wish(true);
  }
  void withdraw() {
    if (process_ && process_->isGdprForgetMe())
      wish(false);
  }
  /// Where there is a network an accepted withdrawal counts as another wish to be forgotten.
  void withdrawOffline() {
    if (!process_ || !process_->isGdprForgetMe())
      return;
    perform([this] { machine_.setOffline(true); });
    wish(false);
    perform([this] { machine_.setOffline(is_app_offline_); });
  }

  /// As an app, and a program that inspects, may at any moment.
  void lookAround() {
    perform([this] {
      transcript_.add(static_cast<uint64_t>(process_->isGdprForgetMe()));
      transcript_.add(static_cast<uint64_t>(process_->properties().fendoUserInfo_referralKey()));
      transcript_.add(services::jsonDescription(process_->storedValue("fendoUserInfo_install_datetime")));
      transcript_.add(process_->pending().requests);
      transcript_.add(process_->allStored().size());
    });
  }
  /// Of this process; the next one is as talkative as ever.
  void setTheLogLevel() {
    const auto level = static_cast<int>(dice_.below(kMostTalkative + 3)) - 1;
    perform([this, level] { process_->setLogLevel(level); });
  }

  void push() {
    perform([this] { process_->pushTracking(); });
  }
  void comeToTheForeground() {
    needProcess();
    if (!process_ || (is_active_ && !dice_.happens(0.1)))
      return;
    perform([this] {
      tracker_.sessionRequested();
      tell([](Invariant& invariant) { invariant.sessionRequested(); });
      process_->applicationDidBecomeActive();
    });
    is_active_ = true;
  }
  void leaveTheForeground() {
    if (!process_ || !is_active_)
      return;
    perform([this] { process_->applicationDidEnterBackground(); });
    is_active_ = false;
    if (dice_.happens(0.5))
      advance(simulation::kGrantSeconds);
  }
  /// Within the half second in which the session's end is worked on, within the minute in which it goes on, or later.
  void leaveAndComeBack() {
    comeToTheForeground();
    advance(2);
    leaveTheForeground();
    constexpr double kLongest[] = {0.6, 58, 70};
    advance(dice_.between(0, kLongest[dice_.below(std::size(kLongest))]));
    comeToTheForeground();
  }

  void reportThirdParty() {
    perform([this] { process_->thirdPartyConversion(); });
  }
  void reportFacebook() {
    const std::string url = "https://facebook.example/?ck=" + std::to_string(drawKey()) + "&sub_referral=s";
    perform([this, url] { process_->setReferralUrlForFacebook(url); });
  }

  void switchOffline() {
    is_app_offline_ = !is_app_offline_ && dice_.happens(0.5);
    if (process_)
      perform([this] { machine_.setOffline(is_app_offline_); });
  }
  void changeTheNetwork() {
    is_offline_ = !is_offline_ && dice_.happens(0.5);
    if (!is_offline_)
      return machine_.transport.goOnline();
    ++result_.figures.offline_phases;
    machine_.transport.goOffline();
  }
  void changeTheWeather() { weather_ = static_cast<Weather>(dice_.below(std::size(kMisbehavesInWeather))); }
  void setTheClock() {
    constexpr double kFarthest[] = {simulation::kMinuteSeconds, simulation::kDaySeconds, 3 * kYearSeconds};
    const double farthest = kFarthest[dice_.below(std::size(kFarthest))];
    machine_.loop.moveWallClock(dice_.between(-farthest, farthest));
    ++result_.figures.clock_jumps;
  }
  void failTheDisk() {
    const auto fault = static_cast<FlakyDiskFault>(dice_.below(kFlakyDiskFaults));
    note(nameOf(fault));
    if (fault == FlakyDiskFault::kUnwritable)
      return disk_.fail(fault, 0, now() + dice_.between(0, 20 * simulation::kMinuteSeconds));
    const bool for_a_while = dice_.happens(0.3);
    disk_.fail(fault, dice_.happens(0.5) ? 1 : 1 + dice_.below(kMostFailingCalls),
               for_a_while ? now() + dice_.between(0, 20 * simulation::kMinuteSeconds) : 0);
  }
  void repairTheDisk() { disk_.recover(); }

  void letANewerProgramUseTheStore() {
    if (tracker_.facts.is_next_to_newer)
      return;
    endInOrder();
    if (process_ || isCut())
      return;
    const bool is_used = sabotage_.ignoresTheVersion() ? !disk_.disk.bytesOf(disk_.disk.place().path()).empty()
                                                       : useWithNewerProgram(disk_.disk, kNewerStoreVersion);
    if (!is_used)
      return;
    sabotage_.storeIsLeft(disk_.disk);
    disk_.storeWasSynced();
    tracker_.facts.is_next_to_newer = true;
  }
  void takeTheStoreBack() {
    if (!tracker_.facts.is_next_to_newer)
      return;
    endInOrder();
    if (process_ || isCut())
      return;
    tracker_.facts.is_next_to_newer = false;
    static_cast<void>(useWithNewerProgram(disk_.disk, host::kStoreVersion));
    disk_.storeWasSynced();
  }

  // ------------------------------------------------------------------------------------------------ birth and death

  void needProcess() {
    if (process_ || isCut())
      return;
    ++result_.figures.processes;
    tell([](Invariant& invariant) { invariant.processBegins(); });
    tracker_.facts.now = now();
    const bool is_next_to_newer = tracker_.facts.is_next_to_newer;
    tracker_.facts.knows_its_store = !is_next_to_newer;
    tracker_.facts.is_unavailable = is_next_to_newer;
    if (is_next_to_newer) {
      ++result_.figures.newer_stores;
      trouble_since_ = now();
    }
    drawTheDisksSpeed();
    disk_.processStarts(true);
    is_starting_ = true;
    machine_.setOffline(false);
    process_ = machine_.start(app_);
    machine_.loop.runUntilIdle();
    is_starting_ = false;
    disk_.processStarts(false);
    name_while_unavailable_ = process_->storedValue(kInstallIdKey);
    is_active_ = false;
    is_unsettled_ = true;
    for (auto& each : std::exchange(committed_at_start_, {})) {
      if (!isCut())
        each();
    }
    if (isCut())
      return;
    made_device_at_ = std::min(made_device_at_, now());
    tracker_.processBegins(reader());
    // Not the bytes on the disk: SQLite salts its log from a source that all threads share.
    for (const auto& [name, value] : process_->allStored()) {
      transcript_.add(name);
      transcript_.add(services::jsonDescription(value));
    }
    process_->setDelegate(delegate_);
    if (is_app_offline_)
      perform([this] { machine_.setOffline(true); });
    check();
  }

  void drawTheDisksSpeed() {
    sync_seconds_ = dice_.happens(kOnASlowDisk) ? dice_.between(0, kSlowestSyncSeconds) : 0;
    machine_.sync_seconds = sabotage_.syncSeconds(sync_seconds_);
    if (sync_seconds_ > 0)
      ++result_.figures.slow_disks;
  }

  void killTheProcess() { dieAfterSomeTurns(RandomRunEnd::kKilled); }
  void cutThePower() { dieAfterSomeTurns(drawPowerLoss()); }
  RandomRunEnd drawPowerLoss() {
    constexpr RandomRunEnd kLosses[] = {RandomRunEnd::kPowerLost, RandomRunEnd::kPowerLostTorn,
                                        RandomRunEnd::kPowerLostScattered};
    return kLosses[dice_.below(std::size(kLosses))];
  }
  void dieAfterSomeTurns(RandomRunEnd death) {
    if (!process_)
      return;
    for (uint64_t turns = dice_.below(kMostTurnsBeforeADeath); turns > 0 && !isOver(); --turns)
      machine_.loop.step();
    if (!isOver())
      die(death);
  }
  void layACut() {
    death_ahead_ = dice_.happens(0.4) ? RandomRunEnd::kKilled : drawPowerLoss();
    if (!isCut())
      disk_.disk.cutAt(disk_.disk.changes() + 1 + dice_.below(kChangesToACut));
  }
  void dieIfCut() {
    if (!isCut())
      return;
    ++result_.figures.deaths_at_a_change;
    die(death_ahead_);
  }

  void die(RandomRunEnd death) {
    disk_.disk.cutNow();
    note(nameOf(death));
    ++result_.figures.deaths[static_cast<size_t>(death)];
    const bool power_lost = death != RandomRunEnd::kKilled && death != RandomRunEnd::kCrashed;
    machine_.kill(std::move(process_), cutBy(death));
    process_ = nullptr;
    isDead(undoneFrom(power_lost), power_lost);
    if (power_lost)
      disk_.powerWasLost();
    disk_.processDied();
  }

  simulation::DiskCut cutBy(RandomRunEnd death) {
    switch (death) {
      case RandomRunEnd::kPowerLost:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, dice_.next());
      case RandomRunEnd::kPowerLostTorn:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kTorn, dice_.next());
      case RandomRunEnd::kPowerLostScattered:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kScattered, dice_.next());
      default:
        return simulation::DiskCut::killed();
    }
  }

  double undoneFrom(bool power_lost) const {
    double undone_from = trouble_since_.value_or(kNever);
    return power_lost ? std::min(undone_from, unsyncedFrom()) : undone_from;
  }
  double unsyncedFrom() const {
    return std::min(now(), disk_.unsyncedForAReasonSince().value_or(kNever)) - powerCutLossSeconds(sync_seconds_);
  }

  void isDead(double undone_from, bool power_lost) {
    if (wish_in_file_from_ >= (power_lost ? unsyncedFrom() : kNever)) {
      wish_in_file_from_ = kNever;
      tracker_.facts.wish_is_in_its_file = false;
    }
    tell([](Invariant& invariant) { invariant.processEnds(); });
    tracker_.processEnds(undone_from, power_lost);
    tracker_.facts.is_alive = false;
    tracker_.facts.ledger.reset();
    if (wish_kept_from_ >= undone_from && !tracker_.facts.wish_is_in_its_file) {
      is_wish_in_doubt_ = true;
      tracker_.facts.wants_to_be_forgotten = false;
    }
    if (made_device_at_ >= undone_from) {
      other_devices_ = service_->installs();
      made_device_at_ = kNever;
      tracker_.facts.installs = 0;
    }
    is_active_ = false;
    trouble_since_.reset();
    committed_at_start_.clear();
  }

  void endInOrder() {
    if (!process_ || isOver())
      return;
    is_stopping_ = true;
    process_->stop();
    is_stopping_ = false;
    if (isCut())
      return;
    ++result_.figures.deaths[static_cast<size_t>(RandomRunEnd::kStopped)];
    process_.reset();
    machine_.loop.kill();
    isDead(trouble_since_.value_or(kNever), false);
    disk_.processDied();
  }

  // --------------------------------------------------------------------------------------------------------- the time

  double now() const { return machine_.loop.monotonicSeconds(); }
  bool isCut() const { return disk_.disk.isCut(); }
  /// Nothing more is to happen: the disk is cut off, or an exception ended the process.
  bool isOver() const { return isCut() || is_dying_; }

  void advance(double seconds) {
    if (!isOver())
      machine_.loop.advanceUntil([this] { return isOver(); }, seconds);
  }

  void pass() {
    const Pause& pause = drawn(kPauses, dice_);
    if (pause.most_seconds > 0)
      return advance(dice_.between(pause.least_seconds, pause.most_seconds));
    for (uint64_t turns = dice_.below(kMostTurnsBeforeADeath); turns > 0 && !isOver(); --turns)
      machine_.loop.step();
  }

  /// Runs once what the running turn wrote is committed; at once between turns.
  void whenCommitted(std::function<void()> block) {
    if (is_starting_) {
      committed_at_start_.push_back(std::move(block));
    } else if (machine_.loop.running() == testing::VirtualLoop::Running::kNothing) {
      block();
    } else {
      machine_.loop.afterCommit([this, block = std::move(block)] {
        if (isCut())
          return;
        tracker_.facts.now = now();
        block();
      });
    }
  }

  // ------------------------------------------------------------------------------------------------------ the watcher

  bool isHeard() {
    tracker_.facts.now = now();
    tracker_.facts.is_forgotten = process_ && process_->isGdprForgetMe();
    if (!isCut() && process_)
      noteRecovery();
    return !isCut();
  }

  /// Where the file can be read and not be written, no line tells that it has recovered; the install's name does.
  void noteRecovery() {
    RunFacts& facts = tracker_.facts;
    if (facts.is_next_to_newer)
      return;
    if (facts.is_unavailable && process_->storedValue(kInstallIdKey) != name_while_unavailable_) {
      facts.is_unavailable = false;
      has_recovered_ = true;
    }
    if (std::exchange(has_recovered_, false))
      tracker_.storeRecovered(reader());
  }

  void requestStarts(uint64_t exchange, const kit::Request& request) override {
    if (!isHeard())
      return;
    const bool is_in_background = machine_.loop.running() == testing::VirtualLoop::Running::kBackgroundBlock;
    tracker_.requestStarts(exchange, request, is_in_background);
    tell([&](Invariant& invariant) { invariant.requestStarts(tracker_.facts.exchanges.at(exchange)); });
  }
  void handlerBegins(uint64_t exchange, const kit::TransportOutcome& outcome) override {
    if (!isHeard())
      return;
    const std::optional<kit::Value> answer = successIn(outcome);
    tracker_.exchangeEnds(exchange, outcome.isNotSent(), answer);
    const RunExchange* const ended = tracker_.facts.handled();
    if (ended == nullptr)
      return;
    tell([&](Invariant& invariant) { invariant.exchangeEnds(*ended, answer); });
    if (ended->endpoint == ServiceEndpoint::kErasure && answer)
      isWished(true);
  }
  void handlerEnded(uint64_t exchange) override {
    if (isHeard())
      tracker_.handlerEnded(exchange);
  }
  void valueSet(std::string_view key, const kit::Value& value) override {
    if (!isHeard())
      return;
    if (options_.trace && kindStoredUnder(key))
      trace("  store ", std::string(key) + " is set, " + std::to_string(value.size()) + " records");
    tracker_.valueSet(key, value);
    tell([&](Invariant& invariant) { invariant.valueSet(key, value); });
  }
  void blockPostponed(double delay_seconds) override {
    if (isHeard())
      tell([&](Invariant& invariant) { invariant.blockPostponed(delay_seconds); });
  }

  void hear(std::string_view line) {
    if (isCut())
      return;
    ++result_.figures.log_lines;
    transcript_.add(line);
    trace("  log ", line);
    tell([&](Invariant& invariant) { invariant.lineLogged(line); });
  }
  void storeSays(std::string_view line) override {
    if (isCut())
      return;
    const auto says = [line](std::string_view part) { return line.find(part) != std::string_view::npos; };
    if (says("cannot be written (") || says("cannot be opened ("))
      trouble_since_ = trouble_since_.value_or(now());
    if (says("cannot be opened (") && is_starting_) {
      tracker_.facts.knows_its_store = false;
      tracker_.facts.is_unavailable = true;
    }
    if (says("can be written again")) {
      writeLate(trouble_since_.value_or(now()));
      trouble_since_.reset();
      has_recovered_ = std::exchange(tracker_.facts.is_unavailable, false);
    }
  }

  void writeLate(double since) {
    tracker_.facts.now = now();
    tracker_.writeLate(since);
    for (double* const kept_from : {&wish_kept_from_, &made_device_at_}) {
      if (*kept_from >= since && *kept_from != kNever)
        *kept_from = now();
    }
  }

  void diskChanges(const simulation::DiskCall& call) {
    ++result_.figures.disk_changes;
    if (options_.trace) {
      static constexpr const char* kKinds[] = {"reads",   "writes",  "syncs",   "truncates",
                                               "creates", "renames", "removes", "syncs the folder of"};
      static_assert(std::size(kKinds) == simulation::DiskCall::kKinds);
      trace("  disk ", std::string(kKinds[static_cast<size_t>(call.kind)]) + " " + std::string(call.path) + " at " +
                           std::to_string(call.offset) + ", " + std::to_string(call.size) + " bytes");
    }
    if (process_ && disk_.changesTheStore(call))
      tell([&](Invariant& invariant) { invariant.storeFileChanges(call.path); });
    transcript_.add(static_cast<uint64_t>(call.kind));
    transcript_.add(call.path);
    transcript_.add(static_cast<uint64_t>(call.offset));
    transcript_.add(static_cast<uint64_t>(call.size));
  }

  // ------------------------------------------------------------------------------------------------------- the service

  void leaves(const kit::Request& request) {
    if (!isHeard())
      return;
    ++result_.figures.requests;
    transcript_.add(request.url);
    transcript_.add(request.body);
    trace("  request ", request.url);
    leaving_ = tracker_.requestLeaves(request);
    if (leaving_ != nullptr)
      tell([&](Invariant& invariant) { invariant.requestLeaves(*leaving_); });
  }

  Answer serve(const kit::Request& request) {
    if (isCut())
      return Answer::silence();  // it never left
    const bool misbehaves = !is_healthy_ && dice_.happens(kMisbehavesInWeather[static_cast<size_t>(weather_)]);
    const Misbehaviour misbehaviour = misbehaves ? drawMisbehaviour(dice_) : Misbehaviour::kNone;
    ++result_.figures.misbehaviours[static_cast<size_t>(misbehaviour)];
    trace("  service ", nameOf(misbehaviour));
    TreatedRequest treated = treat(request, drawTreatment(misbehaviour, dice_), *service_, dice_, kKeys);
    if (treated.served.refusal)
      complain("the service understands what comes: " + request.url + ": " + *treated.served.refusal);
    if (treated.served.counted && leaving_ != nullptr)
      tracker_.arrives(*leaving_);
    noteInstalls();
    return treated.answer;
  }

  /// Who does not know yet who it is gives itself a name for the time being.
  void noteInstalls() {
    const bool is_another_for_now = leaving_ != nullptr && leaving_->was_made_while_unavailable;
    if (is_another_for_now && service_->installs() > other_devices_ + tracker_.facts.installs)
      ++other_devices_;
    tracker_.facts.installs = service_->installs() - other_devices_;
  }

  // ------------------------------------------------------------------------------------------------------- the checks

  Tracker::Read reader() const {
    return [this](std::string_view key) { return process_->storedValue(key); };
  }

  template <class Event>
  void tell(const Event& event) {
    for (const auto& invariant : invariants_)
      event(*invariant);
  }

  void check() {
    RunFacts& facts = tracker_.facts;
    facts.now = now();
    facts.is_alive = process_ != nullptr;
    if (process_) {
      facts.is_forgotten = process_->isGdprForgetMe();
      facts.ledger = process_->ledger();
      traceLedger(*facts.ledger);
      if (!facts.knows_its_store && !trouble_since_ && machine_.loop.waitingMainBlocks() == 0)
        facts.knows_its_store = true;
      for (const std::string& wrong : tracker_.look(reader()))
        complain(std::string(kStoreHoldsEachOnce) + ": " + wrong);
      tracker_.lookAtTheShelf(machine_.report_shelf.reports());
      if (facts.knows_its_store && std::exchange(is_wish_in_doubt_, false)) {
        facts.wants_to_be_forgotten = facts.is_forgotten;
        wish_kept_from_ = now();
      }
      lookAtTheWishFile();
      if (machine_.loop.waitingMainBlocks() == 0)
        tell([](Invariant& invariant) { invariant.loopIdle(); });
    }
    tell([](Invariant& invariant) { invariant.stepEnds(); });
    if (process_ && is_unsettled_ && facts.knows_its_store) {
      is_unsettled_ = false;
      tracker_.settle();
    }
    machine_.transport.clearRequests();
  }

  void complain(const std::string& text) {
    trace("! ", text);
    if (result_.complaints.size() < kMaxRunComplaints)
      result_.complaints.push_back(text);
  }

  // ------------------------------------------------------------------------------------------------------- the end

  void playHealthyEnd() {
    note("a healthy end");
    is_healthy_ = true;
    disk_.recover();
    is_offline_ = is_app_offline_ = false;
    machine_.transport.goOnline();
    dieIfCut();
    takeTheStoreBack();
    perform([this] { machine_.setOffline(false); });
    advance(2 * simulation::kMinuteSeconds);
    withdrawOffline();
    advance(1);
    // A process that began with a forgotten user starts no session.
    endInOrder();
    for (uint64_t session = 0; session < kHealthySessions && result_.complaints.empty(); ++session) {
      advance(simulation::kHourSeconds);
      comeToTheForeground();
      openACommerceLink();
      advance(simulation::kMinuteSeconds);
      leaveTheForeground();
      advance(simulation::kGrantSeconds);
      dieIfCut();
      check();
    }
    advance(5 * simulation::kMinuteSeconds);
    tracker_.facts.is_all_well = mayDeliverAll();
    check();
    if (process_ && process_->pending().background_tasks > 0)
      complain(std::string(kRequestsReturn) + ": a background task was never ended");
  }

  /// Not without a tracking key, without sessions that end, without the identifier without which a commerce link is
  /// none, or with a record of its install that names no user.
  bool mayDeliverAll() const {
    if (!process_ || process_->isGdprForgetMe() || app_.tracking_key.text().empty() ||
        app_.device.multitasking == false || app_.device.idfa.source() == Identifier::Source::kNone)
      return false;
    const auto properties = process_->properties();
    return properties.fendoUserInfo_fendoUserNo() != -1 && properties.fendoUserInfo_referralKey() != -1;
  }

  void end() {
    RandomRunFigures& figures = result_.figures;
    figures.lives = 1;
    for (size_t fault = 0; fault < kFlakyDiskFaults; ++fault)
      figures.disk_faults[fault] = disk_.failed()[fault];
    for (const ExpectedRecord& record : tracker_.facts.records.all()) {
      ++figures.recorded;
      if (record.has_arrived)
        ++figures.delivered;
      else if (record.is_stored)
        ++figures.stored;
      else if (record.is_undone || record.is_in_doubt)
        ++figures.undone;
      else
        ++figures.given_up;
    }
    if (process_ && !isCut())
      process_->stop();
    result_.hash = transcript_.hash();
  }

  void note(std::string_view what) {
    transcript_.add(what);
    transcript_.add(static_cast<uint64_t>(now() * 1e6));
    trace("", what);
  }

  void traceLedger(const Ledger& ledger) {
    for (const Ledger::Account& account : ledger.accounts) {
      if (!options_.trace || account.recorded == 0)
        continue;
      std::string text = account.kind + ": " + std::to_string(account.recorded) + " recorded, " +
                         std::to_string(account.delivered) + " delivered, " + std::to_string(account.stored) +
                         " stored, " + std::to_string(account.under_way) + " under way";
      for (const Ledger::GivenUp& each : account.given_up)
        text += ", " + std::to_string(each.count) + " " + each.reason;
      if (std::exchange(traced_accounts_[account.kind], text) != text)
        trace("  ledger ", text);
    }
  }

  void trace(std::string_view before, std::string_view what) {
    if (!options_.trace)
      return;
    char time[32];
    std::snprintf(time, sizeof time, "%12.3f ", now());
    options_.trace(std::string(time) + std::string(before) + std::string(what));
  }

  const RandomRunOptions options_;
  simulation::Dice dice_;
  RunSabotage sabotage_;
  FlakyDisk disk_;
  WatchedMachine machine_;
  simulation::VirtualService service_{[this] { return machine_.loop.now(); }, 0};
  simulation::VirtualService reader_{[this] { return machine_.loop.now(); }, 0};
  Tracker tracker_{*reader_, [this](std::function<void()> block) { whenCommitted(std::move(block)); }};
  const std::vector<std::unique_ptr<Invariant>> invariants_;
  StartOptions app_;
  std::shared_ptr<MorvikCoreDelegate> delegate_;
  std::unique_ptr<runtime::Instance> process_;

  Weather weather_ = Weather::kFine;
  bool is_healthy_ = false;
  bool is_active_ = false;
  bool is_offline_ = false;
  bool is_app_offline_ = false;
  bool is_starting_ = false;
  bool is_unsettled_ = false;
  kit::Value name_while_unavailable_;  ///< of the install, for the time being
  bool has_recovered_ = false;         ///< what the store holds, a moment ago
  bool is_wish_in_doubt_ = false;
  double wish_in_file_from_ = kNever;
  double sync_seconds_ = 0;  ///< that the disk takes, as the run counts with it
  bool is_stopping_ = false;
  bool is_dying_ = false;  ///< of an exception
  double wish_kept_from_ = 0;
  double made_device_at_ = kNever;
  size_t other_devices_ = 0;  ///< installs of devices that a death undid
  RandomRunEnd death_ahead_ = RandomRunEnd::kKilled;
  std::optional<double> trouble_since_;  ///< of the disk, as the store told it
  std::vector<std::function<void()>> committed_at_start_;
  const RunExchange* leaving_ = nullptr;
  uint64_t last_name_ = 0;
  std::map<std::string, std::string> traced_accounts_;  ///< by kind, as they were traced last
  Transcript transcript_;
  RandomRunResult result_;
};

}  // namespace

const char* nameOf(RandomRunEnd death) {
  static constexpr std::array<const char*, kRandomRunEnds> kNames = {
      "killed", "power lost", "power lost, torn", "power lost, scattered", "crashed", "ended in order"};
  return kNames[static_cast<size_t>(death)];
}

RandomRunFigures& RandomRunFigures::operator+=(const RandomRunFigures& other) {
  const auto add = [](auto& to, const auto& from) {
    for (size_t i = 0; i < to.size(); ++i)
      to[i] += from[i];
  };
  days += other.days;
  lives += other.lives;
  steps += other.steps;
  processes += other.processes;
  requests += other.requests;
  log_lines += other.log_lines;
  disk_changes += other.disk_changes;
  offline_phases += other.offline_phases;
  clock_jumps += other.clock_jumps;
  newer_stores += other.newer_stores;
  slow_disks += other.slow_disks;
  too_large += other.too_large;
  kept_in_memory += other.kept_in_memory;
  full_queues += other.full_queues;
  add(deaths, other.deaths);
  deaths_at_a_change += other.deaths_at_a_change;
  add(misbehaviours, other.misbehaviours);
  add(disk_faults, other.disk_faults);
  recorded += other.recorded;
  delivered += other.delivered;
  stored += other.stored;
  given_up += other.given_up;
  undone += other.undone;
  return *this;
}

RandomRunResult playRandomRun(const RandomRunOptions& options) {
  return RandomRun(options).live();
}

}  // namespace morvik::proofs
