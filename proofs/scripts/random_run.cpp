#include "proofs/scripts/random_run.h"

#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "proofs/run/app.h"
#include "proofs/run/power_cut_loss.h"
#include "proofs/run/weighted.h"
#include "services/json_writer.h"
#include "simulation/durations.h"

namespace morvik::proofs {
namespace {

constexpr double kYearSeconds = 365.25 * simulation::kDaySeconds;
/// A cut in the middle of what the disk does comes within so many of its changes.
constexpr uint64_t kChangesToACut = 60;
constexpr uint64_t kMostFailingCalls = 30;
constexpr uint64_t kMostTurnsBeforeADeath = 12;
constexpr int kLogLevels = 9;  // from -1 on
constexpr size_t kPaddedParamBytes = 700;
constexpr uint64_t kBurst = 25;
constexpr uint64_t kHealthySessions = 3;
/// Of a hundred processes, those on a slow disk.
constexpr double kOnASlowDisk = 0.1;
/// A user may be found by these keys; few, so that they meet.
constexpr int64_t kKeys[] = {0, 5001, 5002, 5003, 5004, 5005};

/// How a service and its network behave, for a while.
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

class RandomRun final : private Driver {
 public:
  explicit RandomRun(const RandomRunOptions& options)
      : Driver({.seed = options.seed, .sabotage = options.sabotage, .trace = options.trace}), days_(options.days) {
    drawTraits();
  }

  RandomRunResult play() {
    const double began = now();
    try {
      while (complaints_.empty() && now() - began < days_ * simulation::kDaySeconds)
        step();
      if (complaints_.empty())
        playHealthyEnd();
    } catch (const std::exception& thrown) {
      complain(kBroken, thrown.what());
    }
    figures_.days = (now() - began) / simulation::kDaySeconds;
    end();
    return {figures_, transcript_.hash(), complaints_};
  }

 private:
  void drawTraits() {
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
    return drawWeighted(kVerbs, dice);
  }

  void step() {
    const Verb& verb = drawVerb(dice_);
    ++figures_.steps;
    note(verb.name);
    (this->*verb.act)();
    pass();
    if (std::exchange(is_dying_, false) && process_ && !isCut())
      die(RunEnd::kCrashed);
    dieIfCut();
    check();
  }

  std::string nextName(const char* what) { return std::string(what) + "-" + std::to_string(++last_name_); }

  void recordAnEvent() { recordEvent(dice_.happens(0.1) ? kPaddedParamBytes : 0); }
  void recordABurst() {
    for (uint64_t events = dice_.below(kBurst); events > 0; --events)
      recordEvent(0);
  }
  void recordEvent(size_t padding) {
    const std::string name = nextName("look");
    switch (dice_.below(12)) {
      case 0:
        return app_does_.recordEvent(name, std::nullopt);
      case 1:
        return app_does_.recordEvent(name, "\xc3\x28 not UTF-8 \xff");
      case 2:
        return app_does_.recordEvent(name, "\"\\\n\t\x01 \xf0\x9f\x98\x80");
      case 3:
        return app_does_.recordEventWithoutGroup(name);
      default:
        return app_does_.recordEvent(name, "sku" + std::string(padding, '.'));
    }
  }
  /// Its neighbours are those of the other verbs.
  void recordSomethingTooLarge() { app_does_.offerTooLarge(static_cast<LimitedCall>(dice_.below(kLimitedCalls))); }
  void recordAnEventCalledEnd() { app_does_.recordEventCalledEnd(nextName("level")); }
  void recordARefusedEvent() { app_does_.offerEventOfForgotten(); }
  void addAnImpression() { app_does_.addImpression(nextName("space")); }

  int64_t drawKey() { return kKeys[dice_.below(std::size(kKeys))]; }
  std::string reEngagementUrl() {
    return "shop://offer?id=" + nextName("click") + "&ck=" + std::to_string(drawKey()) + "&sn=9001";
  }
  void openAReEngagementLink() { app_does_.openUrl(reEngagementUrl() + (dice_.happens(0.5) ? "&mrvk_eng=1" : "")); }
  void openALinkByIdentifier() { app_does_.openUrl(reEngagementUrl() + "&isFacebookCpi=1&mrvk_deeplink_cvr=1"); }
  void openACommerceLink() { app_does_.openCommerceUrl("shop://offer?cid=", nextName("deal")); }
  void openALinkOfBothKinds() {
    const std::string url = reEngagementUrl() + "&cid=";
    app_does_.openCommerceUrl(url, nextName("deal"));
  }
  void openAnOddUrl() {
    static constexpr const char* kUrls[] = {"",          "?",      "shop://",     "shop://offer?",
                                            "::%%%",     "%zz?=&", "shop://a#?b", "shop://offer?sn=1&mrvk_eng=1",
                                            "\xff\xfe?", "a b c"};
    app_does_.openUrl(kUrls[dice_.below(std::size(kUrls))]);
  }
  void keepAUrl() { app_does_.keepUrl(reEngagementUrl()); }

  void reportACrash() {
    const bool concerns_the_kit = dice_.happens(0.8);
    app_does_.reportCrash(nextName(concerns_the_kit ? "fendo crash" : "somebody else's crash"), concerns_the_kit);
  }

  void setAnAge() { app_does_.setAge(static_cast<int32_t>(++last_name_)); }
  void setAGender() { app_does_.setGender(static_cast<int32_t>(++last_name_)); }
  void setAUserId() { app_does_.setUserId(nextName("user")); }
  void takeAnAgeBack() { app_does_.takeAgeBack(); }
  void takeAGenderBack() { app_does_.takeGenderBack(); }

  void askToBeForgotten() { app_does_.wish(true); }
  /// More than the host has places for.
  void askToBeForgottenBehindManyLinks() {
    const uint64_t links = runtime::kMaxConnectionsPerHost + 1 + dice_.below(runtime::kMaxConnectionsPerHost);
    for (uint64_t link = 0; link < links; ++link)
      app_does_.openUrl(reEngagementUrl() + "&mrvk_eng=1");
    perform([this] {
      if (process_->pending().requests > runtime::kMaxConnectionsPerHost)
        ++figures_.full_queues;
    });
    app_does_.wish(true);
  }
  void withdraw() {
    if (process_ && process_->isGdprForgetMe())
      app_does_.wish(false);
  }
  /// Where there is a network an accepted withdrawal counts as another wish to be forgotten.
  void withdrawOffline() {
    if (!process_ || !process_->isGdprForgetMe())
      return;
    app_does_.setOffline(true);
    app_does_.wish(false);
    app_does_.setOffline(is_app_offline_);
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
    const auto level = static_cast<int>(dice_.below(kLogLevels)) - 1;
    perform([this, level] { process_->setLogLevel(level); });
  }

  void push() { app_does_.push(); }
  void comeToTheForeground() {
    needProcess();
    if (!process_ || (is_active_ && !dice_.happens(0.1)))
      return;
    app_does_.enterForeground();
    is_active_ = true;
  }
  void leaveTheForeground() {
    if (!process_ || !is_active_)
      return;
    app_does_.leaveForeground();
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
      app_does_.setOffline(is_app_offline_);
  }
  void changeTheNetwork() {
    is_offline_ = !is_offline_ && dice_.happens(0.5);
    if (!is_offline_)
      return machine_.transport.goOnline();
    ++figures_.offline_phases;
    machine_.transport.goOffline();
  }
  void changeTheWeather() { weather_ = static_cast<Weather>(dice_.below(std::size(kMisbehavesInWeather))); }
  void setTheClock() {
    constexpr double kFarthest[] = {simulation::kMinuteSeconds, simulation::kDaySeconds, 3 * kYearSeconds};
    const double farthest = kFarthest[dice_.below(std::size(kFarthest))];
    machine_.loop.moveWallClock(dice_.between(-farthest, farthest));
    ++figures_.clock_jumps;
  }
  void failTheDisk() {
    const auto fault = static_cast<FlakyDiskFault>(dice_.below(kFlakyDiskFaults));
    note(nameOf(fault));
    if (fault == FlakyDiskFault::kUnwritable)
      return flaky_disk_.fail(fault, 0, now() + dice_.between(0, 20 * simulation::kMinuteSeconds));
    const bool for_a_while = dice_.happens(0.3);
    flaky_disk_.fail(fault, dice_.happens(0.5) ? 1 : 1 + dice_.below(kMostFailingCalls),
                     for_a_while ? now() + dice_.between(0, 20 * simulation::kMinuteSeconds) : 0);
  }
  void repairTheDisk() { flaky_disk_.recover(); }

  // ------------------------------------------------------------------------------------------------- starts and ends

  void processStarted() override {
    process_->setDelegate(delegate_);
    if (is_app_offline_)
      app_does_.setOffline(true);
  }
  double drawSyncSeconds() override { return dice_.happens(kOnASlowDisk) ? dice_.between(0, kSlowestSyncSeconds) : 0; }

  void killTheProcess() { dieAfterSomeTurns(RunEnd::kKilled); }
  void cutThePower() { dieAfterSomeTurns(drawPowerLoss()); }
  RunEnd drawPowerLoss() {
    constexpr RunEnd kLosses[] = {RunEnd::kPowerLost, RunEnd::kPowerLostTorn, RunEnd::kPowerLostScattered};
    return kLosses[dice_.below(std::size(kLosses))];
  }
  void dieAfterSomeTurns(RunEnd death) {
    if (!process_)
      return;
    turn(dice_.below(kMostTurnsBeforeADeath));
    if (!isOver())
      die(death);
  }
  void layACut() {
    death_ahead_ = dice_.happens(0.4) ? RunEnd::kKilled : drawPowerLoss();
    if (!isCut())
      flaky_disk_.disk.cutAt(flaky_disk_.disk.changes() + 1 + dice_.below(kChangesToACut));
  }
  void dieIfCut() {
    if (!isCut())
      return;
    ++figures_.ends_at_a_change;
    die(death_ahead_);
  }

  void die(RunEnd death) { Driver::die(death, cutBy(death)); }

  simulation::DiskCut cutBy(RunEnd death) {
    switch (death) {
      case RunEnd::kPowerLost:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, dice_.next());
      case RunEnd::kPowerLostTorn:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kTorn, dice_.next());
      case RunEnd::kPowerLostScattered:
        return simulation::DiskCut::powerLost(simulation::PowerLoss::kScattered, dice_.next());
      default:
        return simulation::DiskCut::killed();
    }
  }

  void pass() {
    const Pause& pause = drawWeighted(kPauses, dice_);
    if (pause.most_seconds > 0)
      return advance(dice_.between(pause.least_seconds, pause.most_seconds));
    turn(dice_.below(kMostTurnsBeforeADeath));
  }

  // ------------------------------------------------------------------------------------------------------- the service

  Treatment treatmentOf(const kit::Request&) override {
    const bool misbehaves = !is_healthy_ && dice_.happens(kMisbehavesInWeather[static_cast<size_t>(weather_)]);
    return drawTreatment(misbehaves ? drawMisbehaviour(dice_) : Misbehaviour::kNone, dice_);
  }
  std::span<const int64_t> otherKeys() const override { return kKeys; }

  // ------------------------------------------------------------------------------------------------------- the end

  void playHealthyEnd() {
    note("a healthy end");
    makeHealthy();
    is_offline_ = is_app_offline_ = false;
    dieIfCut();
    takeTheStoreBack();
    app_does_.setOffline(false);
    advance(2 * simulation::kMinuteSeconds);
    withdrawOffline();
    advance(1);
    // A process that began with a forgotten user starts no session.
    endInOrder();
    for (uint64_t session = 0; session < kHealthySessions && complaints_.empty(); ++session) {
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
    checkHealthyEnd();
  }

  const double days_;
  RunApp app_does_{*this};
  std::shared_ptr<MorvikCoreDelegate> delegate_;
  Weather weather_ = Weather::kFine;
  bool is_offline_ = false;
  bool is_app_offline_ = false;
  RunEnd death_ahead_ = RunEnd::kKilled;
  uint64_t last_name_ = 0;
};

}  // namespace

RandomRunResult playRandomRun(const RandomRunOptions& options) {
  return RandomRun(options).play();
}

}  // namespace morvik::proofs
