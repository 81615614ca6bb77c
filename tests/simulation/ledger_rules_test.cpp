// The ledger of a complete instance: what is delivered, and each rule by which records are removed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>

#include "runtime/life/start_hold.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"

namespace morvik::simulation {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using ::morvik::testing::Answer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr const char* kTracking = "v1/tracking";
constexpr const char* kReEngagement = "v1/reengagement-conversion";
constexpr const char* kCommerce = "v1/commerce-conversion";
constexpr const char* kCrash = "v1/crash";
constexpr const char* kDemographics = "v1/demographics";

Answer accepted() {
  return Answer::json(Dictionary{{"Result", true}});
}
Answer clickAccepted(int64_t key) {
  return Answer::json(
      Dictionary{{"Result", true}, {"Data", Dictionary{{"conversion_result", Dictionary{{"conversion_key", key}}}}}});
}
Answer failed() {
  return Answer::error("down");
}
std::string click(int64_t key, const std::string& session = "1") {
  return "app://open?mrvk_eng=1&sn=" + session + "&ck=" + std::to_string(key);
}

class LedgerRules : public ::testing::Test {
 protected:
  LedgerRules() {
    machine.transport.setDefaultAnswer(failed());
    start();
  }
  ~LedgerRules() override {
    if (phone) {
      EXPECT_TRUE(phone->ledger().balances());
      EXPECT_TRUE(phone->ledger().isSound());
    }
  }

  static VirtualMachineOptions attributed() {
    VirtualMachineOptions options;
    options.store = {{"fendoUserInfo_fendoUserNo", 1001}, {"fendoUserInfo_referralKey", 7}};
    return options;
  }
  void start() { phone = machine.start(options); }
  void restart() {
    machine.kill(std::move(phone));
    start();
  }
  void wait(double seconds) {
    machine.loop.runUntilIdle();
    machine.loop.advance(seconds);
  }
  void open() {
    phone->applicationDidBecomeActive();
    machine.loop.runUntilIdle();
  }
  void leave(double seconds = 1) {
    phone->applicationDidEnterBackground();
    wait(seconds);
  }
  void record(const std::string& name) {
    phone->addActivity("shop", name, std::nullopt);
    machine.loop.runUntilIdle();
  }
  void follow(const std::string& url) {
    phone->passOpenURL(url);
    machine.loop.runUntilIdle();
  }
  void crash(const std::string& reason) {
    phone->reportUncaughtException({.reason = reason, .call_stack_symbols = {}, .moment = std::nullopt});
    machine.loop.runUntilIdle();
  }
  void addImpression(int64_t key) {
    const auto properties = phone->properties();
    kit::MutableArray impressions(properties.fendoImpressionInfos());
    impressions.append(Dictionary{{"campaignKey", key}, {"createdAt", machine.loop.now()}});
    properties.setFendoImpressionInfos(std::move(impressions));
  }
  ::morvik::testing::ScriptedTransport::Script& at(const char* path) { return machine.transport.on(path); }

  Ledger::Account of(const char* kind) { return phone->ledger().of(kind); }
  std::map<std::string, uint64_t> givenUp(const char* kind) {
    std::map<std::string, uint64_t> reasons;
    for (const Ledger::GivenUp& each : of(kind).given_up)
      reasons[each.reason] = each.count;
    return reasons;
  }
  /// A batch is under way for 10 seconds; in that time a second one, with one more event and impression, leaves.
  void letTwoBatchesOverlap(const Answer& second) {
    at(kTracking).then(accepted().after(10)).then(second);
    open();
    record("in the second alone");
    addImpression(1);
    leave(0.1);
    open();
  }

  StartOptions options = simulatedApp();
  VirtualMachine machine{attributed()};
  std::unique_ptr<runtime::Instance> phone;
};

// ---------------------------------------------------------------------------------------------------------- activities

TEST_F(LedgerRules, CountWhatIsRecordedStoredAndDelivered) {
  record("one");
  record("two");
  EXPECT_EQ(of("activities").recorded, 2U);
  EXPECT_EQ(of("activities").stored, 2U);
  at(kTracking).always(accepted());
  phone->pushTracking();
  wait(1);
  EXPECT_EQ(of("activities").delivered, 2U);
  EXPECT_EQ(of("activities").stored, 0U);
  EXPECT_THAT(givenUp("activities"), IsEmpty());
}

TEST_F(LedgerRules, KnowTheEndOfAKeptSession) {
  at(kTracking).always(accepted());
  open();
  wait(10);
  leave(2);
  record("in between");
  open();
  wait(1);
  EXPECT_THAT(givenUp("activities"), ElementsAre(Pair("the \"end\" of a session that went on within a minute", 1U)));
}

TEST_F(LedgerRules, KnowTheEndOfAKeptSessionThatHadNothingElseToSend) {
  at(kTracking).always(accepted());
  open();
  wait(10);
  leave(2);
  open();
  wait(1);
  EXPECT_THAT(givenUp("activities"), ElementsAre(Pair("the \"end\" of a session that went on within a minute", 1U)));
}

TEST_F(LedgerRules, KeepUnderWayWhatAnotherBatchsAnswerDeletedUntilItsOwnFails) {
  letTwoBatchesOverlap(failed().after(14));
  machine.loop.advance(11);
  const uint64_t under_way = of("activities").under_way;
  EXPECT_GT(under_way, 0U);
  EXPECT_TRUE(of("activities").balances());
  machine.loop.advance(10);
  EXPECT_EQ(of("activities").under_way, 0U);
  EXPECT_EQ(givenUp("activities")["deleted by the answer to another batch, and their own was not accepted"], under_way);
}

TEST_F(LedgerRules, CountAsDeliveredWhatAnotherBatchsAnswerDeletedOnceItsOwnIsAccepted) {
  letTwoBatchesOverlap(accepted().after(14));
  machine.loop.advance(11);
  const uint64_t under_way = of("activities").under_way;
  const uint64_t delivered = of("activities").delivered;
  EXPECT_GT(under_way, 0U);
  machine.loop.advance(10);
  EXPECT_EQ(of("activities").delivered, delivered + under_way);
}

TEST_F(LedgerRules, KnowABatchThatWasRefusedAndThenDeletedByTheAnswerToAnEarlierOne) {
  letTwoBatchesOverlap(Answer::json(Dictionary{{"Result", false}}).after(3));
  machine.loop.advance(5);
  EXPECT_THAT(givenUp("activities"), IsEmpty());
  EXPECT_EQ(of("activities").delivered, 0U);
  machine.loop.advance(6);
  EXPECT_GT(of("activities").delivered, 0U);
  EXPECT_GT(givenUp("activities")["deleted by the answer to another batch, and their own was not accepted"], 0U);
}

TEST_F(LedgerRules, KnowAnActivityThatIsTooLargeForTheService) {
  at(kTracking).then(Answer::body(413, "")).then(Answer::body(413, "")).always(accepted());
  phone->addActivity("shop", "large", std::string(kMaxEventBytes - 100, 'x'));
  record("small");
  wait(1);
  phone->pushTracking();
  wait(1);
  EXPECT_THAT(givenUp("activities"), ElementsAre(Pair("over 1 MiB, and too large for the service when sent alone", 1)));
  EXPECT_EQ(of("activities").delivered, 1U);
  EXPECT_EQ(of("activities").stored, 0U);
}

TEST_F(LedgerRules, CountTheImpressionsThatABatchCarriedInPart) {
  at(kTracking).then(Answer::body(413, "")).then(accepted()).always(failed());
  record("one");
  record("two");
  for (int key = 4; key > 0; --key)
    addImpression(key);
  phone->pushTracking();
  wait(1);
  EXPECT_EQ(of("impressions").delivered, 2U);
  EXPECT_EQ(of("impressions").stored, 2U);
  EXPECT_THAT(givenUp("impressions"), IsEmpty());
}

TEST_F(LedgerRules, GiveUpWhatWasUnderWayAloneWhenTheProcessEnded) {
  letTwoBatchesOverlap(accepted().after(14));
  machine.loop.advance(11);
  const uint64_t under_way = of("activities").under_way;
  ASSERT_GT(under_way, 0U);
  EXPECT_EQ(of("impressions").under_way, 1U);
  restart();
  EXPECT_EQ(of("activities").under_way, 0U);
  EXPECT_EQ(givenUp("activities")["in a request alone when the process ended"], under_way);
  EXPECT_THAT(givenUp("impressions"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
}

TEST_F(LedgerRules, OutliveAKillBetweenAnyTwoCommits) {
  at(kTracking).alwaysBy([](const kit::Request&) { return accepted().after(0.3); });
  uint64_t recorded = 0;
  for (int turns = 0; turns < 60; ++turns) {
    open();
    record("before the kill");
    phone->passOpenURL(click(turns) + "&cid=" + std::to_string(turns));
    phone->setAge(turns);
    phone->applicationDidEnterBackground();
    for (int turn = 0; turn < turns; ++turn)
      machine.loop.step();
    const uint64_t before = of("activities").recorded;
    restart();
    const Ledger ledger = phone->ledger();
    ASSERT_TRUE(ledger.isSound()) << "killed after " << turns << " turns";
    EXPECT_EQ(ledger.of("activities").recorded, before);
    EXPECT_GT(before, recorded);
    recorded = before;
  }
}

TEST_F(LedgerRules, TakeOverWhatAnOlderVersionLeft) {
  record("one");
  machine.kill(std::move(phone));
  machine.store.set("host.ledger", {});
  machine.store.synchronize();
  start();
  EXPECT_EQ(of("activities").recorded, 1U);
  EXPECT_TRUE(phone->ledger().isSound());
}

TEST_F(LedgerRules, SayWhatIsWrittenOverByHand) {
  record("one");
  record("two");
  machine.edit("fendoActivityInfos", Array());
  EXPECT_THAT(givenUp("activities"), ElementsAre(Pair("written over by hand", 2U)));
}

TEST_F(LedgerRules, SayAtAStartWhatTheStoreLacksAndWhatItHasTooMuch) {
  follow("app://open?cid=a");
  wait(1);
  ASSERT_EQ(of("commerce clicks").stored, 1U);
  machine.kill(std::move(phone));
  machine.store.set("commerceConversionInfos", Array());
  machine.store.set("reEngagementInfos", Array{1, 2, 3});
  machine.store.synchronize();
  start();
  const Ledger ledger = phone->ledger();
  EXPECT_TRUE(ledger.balances());
  EXPECT_FALSE(ledger.isSound());
  EXPECT_EQ(ledger.of("re-engagement clicks").found_uncounted, 3U);
  EXPECT_THAT(givenUp("commerce clicks"), ElementsAre(Pair("no longer in the store when it was opened", 1U)));
  machine.kill(std::move(phone));
}

TEST_F(LedgerRules, CountTheImpressionsThatAKillLeftBehindTheBook) {
  phone->addImpression({.campaign_key = 1});
  follow("app://open?cid=a");  // writes the ledger
  wait(1);
  phone->addImpression({.campaign_key = 2});
  phone->addImpression({.campaign_key = 3});
  restart();
  EXPECT_EQ(of("impressions").recorded, 3U);
  EXPECT_EQ(of("impressions").stored, 3U);
  EXPECT_EQ(of("impressions").found_uncounted, 0U);
}

TEST_F(LedgerRules, CountWhatWasRefusedByItsReasonOutsideOfTheAccounts) {
  phone->addActivity("", "no group", std::nullopt);
  phone->setUserId(std::string(kMaxUserIdBytes + 1, 'x'));
  phone->gdprForgetMe(true);
  phone->addActivity("shop", "forgotten", std::nullopt);
  phone->addImpression({});
  phone->stop();
  start();
  const Ledger ledger = phone->ledger();
  std::map<std::string, uint64_t> refused;
  for (const Ledger::Refused& each : ledger.refused)
    refused[each.reason] = each.count;
  EXPECT_THAT(refused,
              ::testing::UnorderedElementsAre(Pair("refused: no group or no name", 1U), Pair("refused: too large", 1U),
                                              Pair("refused: the user asked to be forgotten", 2U)));
  EXPECT_EQ(ledger.of("activities").recorded, 0U);
}

TEST_F(LedgerRules, KeepARefusalOverAStopAlthoughTheLedgerWasReadInBetween) {
  phone->addActivity("", "no group", std::nullopt);
  ASSERT_EQ(phone->ledger().refused.size(), 1U);
  phone->stop();
  start();
  const Ledger ledger = phone->ledger();
  ASSERT_EQ(ledger.refused.size(), 1U);
  EXPECT_EQ(ledger.refused[0].count, 1U);
}

#ifndef NDEBUG
TEST_F(LedgerRules, StopADevelopersBuildWhereAnActivityGoesThatNoRuleGivesUp) {
  record("one");
  EXPECT_DEATH(
      {
        phone->properties().setFendoActivityInfos(Array());
        phone->properties().synchronize();
      },
      "");
}
#endif

// --------------------------------------------------------------------------------------------------------- impressions

TEST_F(LedgerRules, KnowTheImpressionsThatCameDuringAnUpload) {
  at(kTracking).always(accepted().after(5));
  addImpression(1);
  record("one");
  phone->pushTracking();
  wait(1);
  addImpression(2);
  wait(10);
  EXPECT_EQ(of("impressions").recorded, 2U);
  EXPECT_EQ(of("impressions").delivered, 1U);
  EXPECT_THAT(givenUp("impressions"),
              ElementsAre(Pair("added while a batch was under way that was then accepted", 1U)));
}

TEST_F(LedgerRules, KnowTheImpressionsOfABatchThatFailedAfterTheAnswerToAnEarlierOne) {
  letTwoBatchesOverlap(failed().after(14));
  machine.loop.advance(11);
  EXPECT_EQ(of("impressions").under_way, 1U);
  machine.loop.advance(5);
  EXPECT_THAT(givenUp("impressions"),
              ElementsAre(Pair("deleted by the answer to another batch, and their own was not accepted", 1U)));
}

TEST_F(LedgerRules, KnowTheImpressionsOfABatchThatWasRefusedAfterTheAnswerToAnEarlierOne) {
  letTwoBatchesOverlap(Answer::json(Dictionary{{"Result", false}}).after(14));
  machine.loop.advance(16);
  EXPECT_THAT(givenUp("impressions"),
              ElementsAre(Pair("deleted by the answer to another batch, and their own was not accepted", 1U)));
}

// -------------------------------------------------------------------------------------------------- re-engagement
// clicks

TEST_F(LedgerRules, FollowAClickFromItsRequestThroughTheStoreToItsDelivery) {
  at(kReEngagement).then(failed().after(1)).then(clickAccepted(5));
  open();
  follow(click(5));
  EXPECT_EQ(of("re-engagement clicks").under_way, 1U);
  wait(2);
  EXPECT_EQ(of("re-engagement clicks").under_way, 0U);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  leave();
  EXPECT_EQ(of("re-engagement clicks").recorded, 1U);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
}

TEST_F(LedgerRules, KnowAClickThatWasNeitherAcceptedNorFailed) {
  at(kReEngagement).then(Answer::json(Dictionary{{"Result", false}}));
  open();
  follow(click(5));
  wait(1);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("answered, but neither accepted nor failed", 1U)));
}

TEST_F(LedgerRules, KnowAClickWhoseKeyWasKeptAlready) {
  at(kReEngagement).always(failed());
  open();
  follow(click(5, "1"));
  wait(1);
  follow(click(5, "2"));
  wait(1);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed while one with the same key was kept", 1U)));
}

TEST_F(LedgerRules, KnowAClickThatFailedAfterANewerOneCame) {
  at(kReEngagement).then(failed().after(5)).then(clickAccepted(6).after(10));
  open();
  follow(click(5));
  follow(click(6));
  wait(7);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U) << "the newer one, still under way";
  EXPECT_EQ(of("re-engagement clicks").under_way, 0U);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after a newer click had come", 1U)));
  wait(5);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
}

TEST_F(LedgerRules, KnowTheClicksThatHadNotLeftWhenTheUserAskedToBeForgotten) {
  at(kReEngagement).always(clickAccepted(0).after(5));
  open();
  wait(1);
  for (int64_t key = 1; key <= 10; ++key)
    follow(click(key));
  wait(1);
  EXPECT_EQ(of("re-engagement clicks").under_way, 10U);
  phone->gdprForgetMe(true);
  wait(10);
  EXPECT_EQ(machine.transport.requests(kReEngagement).size(), 6U);
  EXPECT_EQ(of("re-engagement clicks").under_way, 0U);
  EXPECT_EQ(of("re-engagement clicks").delivered, 6U);
  EXPECT_THAT(givenUp("re-engagement clicks"),
              ElementsAre(Pair("not sent yet when the user asked to be forgotten", 4U)));
}

TEST_F(LedgerRules, RecordOnceMoreAClickThatALateFailureKeptAlthoughItWasAccepted) {
  at(kReEngagement).then(failed().after(5)).then(clickAccepted(6));
  open();
  follow(click(5));
  follow(click(6));
  wait(7);
  EXPECT_EQ(of("re-engagement clicks").recorded, 3U);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
  EXPECT_EQ(of("re-engagement clicks").stored, 1U);
}

TEST_F(LedgerRules, KnowAClickThatFailedAfterTheSessionHadEnded) {
  at(kReEngagement).then(failed().after(5));
  open();
  follow(click(5));
  leave(10);
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("failed after the session had ended", 1U)));
}

TEST_F(LedgerRules, KnowAClickThatTheSixthSessionEndGivesUp) {
  at(kReEngagement).always(failed());
  open();
  follow(click(5));
  wait(1);
  for (int end = 1; end <= 6; ++end) {
    EXPECT_EQ(of("re-engagement clicks").stored, 1U);
    leave(3600);
    open();
  }
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("not accepted until the sixth session end", 1U)));
}

TEST_F(LedgerRules, KnowAClickThatTheAnswerToAnotherStrikesOff) {
  at(kReEngagement).then(failed()).then(clickAccepted(5));
  open();
  follow(click(5));
  wait(1);
  follow(click(6));
  wait(1);
  EXPECT_EQ(of("re-engagement clicks").delivered, 1U);
  EXPECT_THAT(givenUp("re-engagement clicks"),
              ElementsAre(Pair("struck off by the answer to another click, which named their key", 1U)));
}

TEST_F(LedgerRules, GiveUpAClickWhoseRequestTheProcessDidNotOutlive) {
  at(kReEngagement).then(Answer::silence());
  open();
  follow(click(5));
  restart();
  EXPECT_THAT(givenUp("re-engagement clicks"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
}

// ------------------------------------------------------------------------------------------------------- commerce
// clicks

TEST_F(LedgerRules, KnowTheCommerceClicksThatCameDuringAnUpload) {
  at(kCommerce).then(Answer::json(Dictionary{{"errMsg", Value::null()}}).after(5)).then(failed().after(10));
  follow("app://open?cid=a");
  follow("app://open?cid=b");
  wait(7);
  EXPECT_EQ(of("commerce clicks").delivered, 1U);
  EXPECT_EQ(of("commerce clicks").under_way, 1U) << "deleted, and in a request of its own";
  wait(5);
  EXPECT_THAT(givenUp("commerce clicks"),
              ElementsAre(Pair("added while a request was under way that was then accepted", 1U)));
}

TEST_F(LedgerRules, GiveUpACommerceClickWhoseRequestAloneHadItWhenTheProcessEnded) {
  at(kCommerce).then(Answer::json(Dictionary{{"errMsg", Value::null()}}).after(5)).then(Answer::silence());
  follow("app://open?cid=a");
  follow("app://open?cid=b");
  wait(7);
  ASSERT_EQ(of("commerce clicks").under_way, 1U);
  restart();
  EXPECT_THAT(givenUp("commerce clicks"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
}

TEST_F(LedgerRules, KnowTheCommerceClicksThatAnAnswerAcceptsWithoutAWord) {
  at(kCommerce).then(Answer::json(Dictionary()));
  follow("app://open?cid=a");
  wait(1);
  EXPECT_THAT(givenUp("commerce clicks"), ElementsAre(Pair("accepted by an answer that says nothing of them", 1U)));
}

// --------------------------------------------------------------------------------------------------------- crash
// reports

TEST_F(LedgerRules, TakeInTheReportsOfADyingProcessAndKnowThoseThatCameDuringAnUpload) {
  crash("fendo one");
  restart();
  EXPECT_EQ(of("crash reports").recorded, 1U);
  EXPECT_EQ(of("crash reports").stored, 1U);
  at(kCrash).then(Answer::json(Dictionary{{"code", 0}}).after(5));
  open();
  wait(1);
  crash("fendo two");
  EXPECT_EQ(of("crash reports").recorded, 2U);
  wait(6);
  EXPECT_EQ(of("crash reports").delivered, 1U);
  EXPECT_THAT(givenUp("crash reports"),
              ElementsAre(Pair("added while an upload was under way that was then accepted", 1U)));
}

TEST_F(LedgerRules, GiveUpACrashReportWhoseRequestAloneHadItWhenTheProcessEnded) {
  crash("fendo one");
  at(kCrash).then(Answer::json(Dictionary{{"code", 0}}).after(5)).then(Answer::silence());
  open();
  crash("fendo two");
  leave();
  open();
  wait(5);
  ASSERT_EQ(of("crash reports").under_way, 1U) << "deleted, and in a request of its own";
  restart();
  EXPECT_THAT(givenUp("crash reports"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
}

TEST_F(LedgerRules, KnowTheReportsThatAnAnswerAcceptsWithoutACode) {
  crash("fendo one");
  at(kCrash).then(Answer::json(Dictionary()));
  open();
  wait(1);
  EXPECT_THAT(givenUp("crash reports"), ElementsAre(Pair("accepted by an answer without a code", 1U)));
}

// -------------------------------------------------------------------------------------------------------- demographics

TEST_F(LedgerRules, CountTheDemographicsThatAreDeliveredReplacedAndTakenBack) {
  at(kDemographics).always(accepted());
  phone->setAge(30);
  phone->setAge(31);
  phone->setGender(kGenderFemale);
  phone->setGender(-1);
  phone->setUserId("somebody");
  open();
  wait(1);
  EXPECT_EQ(of("demographics").recorded, 4U);
  EXPECT_EQ(of("demographics").delivered, 2U);
  EXPECT_THAT(givenUp("demographics"), ElementsAre(Pair("replaced by a newer value before they were delivered", 1U),
                                                   Pair("taken back by the app before they were delivered", 1U)));
}

TEST_F(LedgerRules, KnowTheDemographicsThatCameDuringAnUpload) {
  at(kDemographics).then(accepted().after(5));
  phone->setAge(30);
  open();
  wait(1);
  phone->setGender(kGenderMale);
  phone->setAge(31);
  wait(5);
  EXPECT_EQ(of("demographics").recorded, 3U);
  EXPECT_EQ(of("demographics").delivered, 1U) << "the age that was replaced while it was under way";
  EXPECT_THAT(givenUp("demographics"),
              ElementsAre(Pair("set while an upload was under way that was then accepted", 2U)));
}

TEST_F(LedgerRules, GiveUpADemographicValueWhoseRequestAloneHadItWhenTheProcessEnded) {
  at(kDemographics).then(Answer::silence());
  phone->setAge(30);
  open();
  wait(1);
  phone->setAge(31);
  wait(1);
  ASSERT_EQ(of("demographics").under_way, 1U);
  restart();
  EXPECT_THAT(givenUp("demographics"), ElementsAre(Pair("in a request alone when the process ended", 1U)));
}

TEST_F(LedgerRules, KnowTheDemographicsThatCouldNotSayWhoseTheyAre) {
  machine.kill(std::move(phone));
  options.device.puid = Identifier::none();
  start();
  at(kDemographics).then(accepted());
  phone->setAge(30);
  open();
  wait(1);
  EXPECT_THAT(givenUp("demographics"),
              ElementsAre(Pair("accepted in a payload that could not say whose they are", 1U)));
}

// ------------------------------------------------------------------------------------- a store that recovers
// late

/// A device whose disk may fail to be read at a start.
class LateStore : public ::testing::Test {
 protected:
  LateStore() { machine.transport.setDefaultAnswer(failed()); }
  ~LateStore() override { machine.kill(std::move(phone)); }

  void start() {
    phone = machine.start(app);
    machine.loop.runUntilIdle();
  }
  void restart() {
    machine.kill(std::move(phone));
    start();
  }
  /// Starts with an unreadable disk, until showDisk().
  void restartUnavailable() {
    disk.decide([](const DiskCall& call) {
      const bool is_of_the_store = !call.path.ends_with(".wish");
      return is_of_the_store && call.kind == DiskCall::Kind::kRead ? SQLITE_IOERR_READ : SQLITE_OK;
    });
    restart();
  }
  /// The store's own thread opens the file; its content is visible after the next commit.
  void showDisk() {
    disk.decide({});
    phone->properties().synchronize();
    wait(1);
  }
  void record(const char* name) {
    phone->addActivity("shop", name, std::nullopt);
    machine.loop.runUntilIdle();
  }
  void wait(double seconds) {
    machine.loop.runUntilIdle();
    machine.loop.advance(seconds);
  }
  Ledger::Account of(const char* kind) { return phone->ledger().of(kind); }

  SimulatedDisk disk;
  StartOptions app = simulatedApp();
  VirtualMachine machine{{.disk = &disk}};
  std::unique_ptr<runtime::Instance> phone;
};

TEST_F(LateStore, BringsTheCountsOfEarlierProcessesAndIsAddedTo) {
  start();
  machine.edit("fendoUserInfo_fendoUserNo", 1001);
  machine.edit("fendoUserInfo_referralKey", 7);
  machine.transport.on(kTracking).then(accepted());
  record("delivered long ago");
  phone->pushTracking();
  wait(1);
  record("stored long ago");
  phone->passOpenURL("app://open?cid=a");
  phone->setAge(30);
  wait(1);
  ASSERT_EQ(of("activities").delivered, 1U);

  restartUnavailable();
  EXPECT_EQ(of("activities").recorded, 0U) << "nothing is known yet";
  record("while unavailable");
  phone->passOpenURL("app://open?cid=b");
  phone->setAge(31);
  wait(1);
  EXPECT_TRUE(phone->ledger().isSound());
  showDisk();
  record("once recovered");
  for (const bool is_next_process : {false, true}) {
    if (is_next_process)
      restart();
    EXPECT_TRUE(phone->ledger().isSound());
    EXPECT_EQ(of("activities").recorded, 4U);
    EXPECT_EQ(of("activities").delivered, 1U);
    EXPECT_EQ(of("activities").stored, 3U);
    EXPECT_EQ(of("commerce clicks").recorded, 2U);
    EXPECT_EQ(of("commerce clicks").stored, 2U);
    EXPECT_EQ(of("demographics").recorded, 2U);
    EXPECT_EQ(of("demographics").stored, 1U);
    ASSERT_EQ(of("demographics").given_up.size(), 1U);
    EXPECT_EQ(of("demographics").given_up[0].reason, "replaced by a newer value before they were delivered");
  }
}

TEST_F(LateStore, IsInTheLedgerWithTheVeryCommitThatTakesItOver) {
  start();
  uint64_t taken_over = 0;
  uint64_t cuts = 0;
  for (bool is_cut = true; is_cut; ++cuts) {
    phone->passOpenURL("app://open?cid=a");
    phone->setAge(30);
    wait(1);
    const uint64_t before = of("commerce clicks").recorded;
    restartUnavailable();
    wait(runtime::kStartHoldSeconds);
    phone->passOpenURL("app://open?cid=b");
    wait(1);
    disk.decide({});
    disk.cutAt(disk.changes() + 1 + cuts);
    record("once recovered");
    wait(2);
    is_cut = disk.isCut();
    restart();
    ASSERT_TRUE(phone->ledger().isSound()) << "cut before change " << 1 + cuts;
    ASSERT_GE(of("commerce clicks").recorded, before);
    taken_over += of("commerce clicks").recorded - before;
  }
  EXPECT_GT(cuts, 5U);
  EXPECT_GT(taken_over, 1U);
  EXPECT_LT(taken_over, cuts) << "sometimes the cut comes first";
}

TEST_F(LateStore, LetsNoAnswerDeleteWhatABatchOfAnEarlierProcessCarried) {
  const auto attribute = [this] {
    machine.edit("fendoUserInfo_fendoUserNo", 1001);
    machine.edit("fendoUserInfo_referralKey", 7);
  };
  start();
  attribute();
  machine.transport.on(kTracking).then(Answer::silence());
  record("in a batch that died with its process");
  phone->pushTracking();
  wait(1);
  restartUnavailable();
  attribute();
  machine.transport.on(kTracking).then(accepted().after(10));
  record("while unavailable");
  phone->pushTracking();
  wait(1);
  showDisk();
  record("once recovered");
  wait(20);
  EXPECT_TRUE(phone->ledger().isSound());
  EXPECT_EQ(of("activities").delivered, 1U);
  EXPECT_EQ(of("activities").stored, 2U);
}

TEST_F(LateStore, OfAnOlderVersionIsTakenOverLikeOneThatWasThereFromTheBeginning) {
  start();
  record("one");
  machine.edit("host.ledger", {});
  wait(1);
  restartUnavailable();
  showDisk();
  record("two");
  EXPECT_EQ(of("activities").recorded, 2U);
  EXPECT_TRUE(phone->ledger().isSound());
  restart();
  EXPECT_EQ(of("activities").recorded, 2U);
  EXPECT_TRUE(phone->ledger().isSound());
}

}  // namespace
}  // namespace morvik::simulation
