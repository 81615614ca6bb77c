// Sending a batch, its answers, and what is trimmed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/describe.h"
#include "services/endpoints.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activities;
using testing::activity;
using testing::Answer;
using testing::at;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::texts;
using testing::WorldOptions;

const Value kAccepted = Dictionary{{"Result", true}};

class Tracking : public ::testing::Test {
 protected:
  explicit Tracking(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {}

  void push() {
    world.loop.perform([this] { world.core().pushTracking(); });
  }
  void track(const Value& parameters) {
    world.loop.perform([&] { world.core().tracking(parameters); });
  }
  std::vector<std::string> storedIds() { return texts(world.userDefaults().fendoActivityInfos(), "activityEventID"); }
  size_t sentBatches() { return world.requests("v1/tracking").size(); }

  TestWorld world;
};

TEST_F(Tracking, TheSizeTriggerSendsNothingWithNineActivities) {
  world.userDefaults().setFendoActivityInfos(activities(9));
  world.loop.perform([&] { world.core().chkAndSendDataWhenActivityCntMoreThenTen(); });
  EXPECT_EQ(sentBatches(), 0U);
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, TheSizeTriggerSendsTenActivities) {
  world.userDefaults().setFendoActivityInfos(activities(10));
  world.transport.on("v1/tracking").always(Answer::silence());
  world.loop.perform([&] { world.core().chkAndSendDataWhenActivityCntMoreThenTen(); });
  ASSERT_EQ(sentBatches(), 1U);
  EXPECT_EQ(world.payloads("v1/tracking")[0]["activity_info"].size(), 10U);
}

TEST_F(Tracking, WithoutAUserNumberNeitherTriggerTakesTheSlot) {
  world.userDefaults().setFendoActivityInfos(activities(10));
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  world.loop.perform([&] { world.core().chkAndSendDataWhenActivityCntMoreThenTen(); });
  push();
  EXPECT_EQ(sentBatches(), 0U);
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, WithAnEmptyTrackingKeyNeitherTriggerTakesTheSlot) {
  world.userDefaults().setFendoActivityInfos(activities(10));
  world.sharedState().kAESSuperKeyForTracking = "";
  world.loop.perform([&] { world.core().chkAndSendDataWhenActivityCntMoreThenTen(); });
  push();
  EXPECT_EQ(sentBatches(), 0U);
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, PushTrackingSendsASingleActivity) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  push();
  EXPECT_EQ(sentBatches(), 1U);
}

TEST_F(Tracking, PushTrackingLeavesEndsIn) {
  world.userDefaults().setFendoActivityInfos(Array{activity("session", "end", at(1), "e1")});
  push();
  EXPECT_THAT(texts(world.payloads("v1/tracking")[0]["activity_info"], "event_id"), ElementsAre("e1"));
}

TEST_F(Tracking, NothingHappensForAbsentParametersAndTheSlotStays) {
  world.core().set_isTrackingCalled(true);
  world.log.clear();
  track(Value());
  track(Value::null());
  EXPECT_TRUE(world.core()._isTrackingCalled());
  EXPECT_THAT(world.transport.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Tracking, NothingHappensUnderForgetMeAndTheSlotStays) {
  world.core().set_isTrackingCalled(true);
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"id-0"});
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  track(Dictionary{{"k", "app"}, {"j", "x"}});
  track(Dictionary{{"result", "failure"}});
  EXPECT_TRUE(world.core()._isTrackingCalled());
  EXPECT_THAT(world.transport.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_THAT(texts(world.userDefaults().fendoActivityInfosSentEventKeys()), ElementsAre("id-0"));
}

TEST_F(Tracking, TheNoDataAnswerTrimsAndFreesTheSlotWithoutARequest) {
  world.userDefaults().setFendoActivityInfos(
      Array{activity("session", "end", at(1), "e1"), activity("g", "n", at(2), "e2")});
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"e1"});
  world.core().set_isTrackingCalled(true);
  track(Dictionary{{"result", "failure"}});
  EXPECT_THAT(storedIds(), ElementsAre("e2"));
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_EQ(sentBatches(), 0U);
}

TEST_F(Tracking, WithoutAReferralRecordNothingIsSentAndTheSlotStaysTaken) {
  world.userDefaults().setFendoUserInfo_referralKey(-1);
  world.userDefaults().setFendoActivityInfos(activities(1));
  push();
  EXPECT_EQ(sentBatches(), 0U);
  EXPECT_TRUE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, AReferralKeyOfZeroIsARecordToo) {
  world.userDefaults().setFendoUserInfo_referralKey(0);
  world.userDefaults().setFendoActivityInfos(activities(1));
  push();
  EXPECT_EQ(sentBatches(), 1U);
}

TEST_F(Tracking, AnAcceptedBatchDeletesItsActivitiesAndTheImpressions) {
  world.userDefaults().setFendoActivityInfos(activities(3));
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"createdAt", at(1)}}});
  world.transport.on("v1/tracking").then(Answer::json(kAccepted));
  push();
  EXPECT_THAT(storedIds(), IsEmpty());
  EXPECT_EQ(world.userDefaults().fendoImpressionInfos(), Value(Array{}));
  EXPECT_EQ(world.userDefaults().fendoActivityInfosSentEventKeys(), Value(Array{}));
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, AnActivityRecordedWhileTheBatchIsInFlightSurvives) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.transport.on("v1/tracking").then(Answer::json(kAccepted).after(5));
  push();
  world.recordEvent("shop", "late");
  world.loop.advance(6);
  EXPECT_THAT(texts(world.userDefaults().fendoActivityInfos(), "activityName"), ElementsAre("late"));
}

TEST_F(Tracking, ARefusedBatchDeletesNothingTakesTheTimeAndFreesTheSlot) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"createdAt", at(1)}}});
  const double server_seconds = world.loop.now().secondsSince1970() + 30;
  world.transport.on("v1/tracking")
      .then(Answer::json(Dictionary{{"Result", false}, {"BaseTime", server_seconds * 1000.0}}));
  push();
  EXPECT_THAT(storedIds(), ElementsAre("id-0", "id-1"));
  EXPECT_EQ(world.userDefaults().fendoImpressionInfos().size(), 1U);
  EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 30.0);
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Tracking, AnAnswerWithoutBaseTimeLeavesTheOffset) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.services().setIntervalSinceServerDate(12);
  for (const Value& base_time : {Value(), Value::null(), Value("soon"), Value(""), Value(true), Value(Array{})}) {
    kit::MutableDictionary json(Value(Dictionary{{"Result", false}}));
    json.set("BaseTime", base_time);
    world.transport.on("v1/tracking").then(Answer::json(Value(std::move(json))));
    push();
    EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 12) << services::describe(base_time);
  }
  EXPECT_EQ(sentBatches(), 6U);
}

TEST_F(Tracking, ABaseTimeThatIsTextIsTheNumberItBeginsWith) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  const double server_seconds = world.loop.now().secondsSince1970() + 30;
  const std::string text = std::to_string(static_cast<int64_t>(server_seconds * 1000));
  for (const std::string& base_time : {text, " " + text, "+" + text + " ms", text + ".5e0"}) {
    world.services().setIntervalSinceServerDate(12);
    world.transport.on("v1/tracking").then(Answer::json(Dictionary{{"Result", false}, {"BaseTime", base_time}}));
    push();
    EXPECT_NEAR(world.services().intervalSinceServerDate(), 30, 5) << base_time;
  }
}

TEST_F(Tracking, TheAnswerIsLoggedAndTheBackgroundTimeGivenBack) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.on("v1/tracking").then(Answer::json(kAccepted));
  push();
  const auto line = world.log.find("MRVK_QA-tracking_JSON: {\"Result\":true}");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "DEBUG");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib tracking:]_block_invoke");
  EXPECT_EQ(world.faulty.background_tasks.faults.calls("endBackgroundTask"), 1U);
}

TEST_F(Tracking, TheAnswerIsLoggedBeforeAnythingIsMadeOfIt) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.on("v1/tracking").then(Answer::json(Value(Dictionary{{"BaseTime", 1000}})));
  world.faulty.util.faults.throwAlways("timeIntervalSinceServerDate", testing::Fault::number(1));
  EXPECT_THROW(push(), int);
  EXPECT_EQ(world.log.countContaining("MRVK_QA-tracking_JSON: "), 1U);
}

TEST_F(Tracking, AFailedRequestKeepsEveryActivityAndEmptiesTheSentEventKeys) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.transport.on("v1/tracking").then(Answer::body(500, "oops"));
  push();
  EXPECT_THAT(storedIds(), ElementsAre("id-0", "id-1"));
  EXPECT_EQ(world.userDefaults().fendoActivityInfosSentEventKeys(), Value(Array{}));
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_EQ(world.faulty.background_tasks.faults.calls("endBackgroundTask"), 1U);
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib tracking:]_block_invoke"),
              ElementsAre("MRVK_QA-Recieved an HTTP 500", "MRVK_QA-The error was: The server answered with status 500.",
                          "MRVK_QA-clear fendoActivityInfosSentEventKeys on request failure: []"));
  EXPECT_EQ(world.log.find("MRVK_QA-Recieved an HTTP 500")->prefix->level, "ERROR");
}

TEST_F(Tracking, AFailureWithoutResponseLogsStatusZero) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.goOffline("no network");
  push();
  EXPECT_TRUE(world.log.has("MRVK_QA-Recieved an HTTP 0"));
  EXPECT_TRUE(world.log.has("MRVK_QA-The error was: no network"));
}

TEST_F(Tracking, AfterAFailureTheSameActivitiesGoOutAgain) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.transport.on("v1/tracking").then(Answer::body(500, "")).then(Answer::json(kAccepted));
  push();
  push();
  const auto batches = world.payloads("v1/tracking");
  ASSERT_EQ(batches.size(), 2U);
  EXPECT_EQ(batches[0]["activity_info"], batches[1]["activity_info"]);
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Tracking, WithASecondBatchInFlightTheSlotRefusesIt) {
  world.userDefaults().setFendoActivityInfos(activities(2));
  world.transport.on("v1/tracking").then(Answer::json(kAccepted).after(5));
  push();
  push();
  EXPECT_EQ(sentBatches(), 1U);
}

TEST_F(Tracking, AnAcceptedAnswerTrimsByTheKeysStoredAtThatMoment) {
  // A session start freed the slot while the first batch was under way; the second batch's keys are in place when the
  // first one's answer comes.
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.on("v1/tracking").then(Answer::json(kAccepted).after(5)).then(Answer::body(500, "").after(9));
  push();
  world.core().set_isTrackingCalled(false);
  world.recordEvent("shop", "second");
  push();
  world.loop.advance(6);
  EXPECT_THAT(storedIds(), IsEmpty());
  EXPECT_EQ(sentBatches(), 2U);
}

class Refetch : public Tracking {
 protected:
  Refetch() {
    world.transport.on("v1/conversion").times(10, Answer::error("no answer"));
    for (int i = 0; i < 10; ++i) {
      world.loop.perform([this] { world.core().conversion(Value()); });
      world.loop.kill();  // the retries of these failures are of no matter here
    }
    world.transport.clearRequests();
    world.userDefaults().setFendoUserInfo_referralKey(-1);
    world.userDefaults().setFendoActivityInfos(activities(1));
  }
};

TEST_F(Refetch, TheTenthFailureMakesTheNextTrackingAttemptAskOnceMoreAfterTenSeconds) {
  ASSERT_EQ(world.core().failedGetReferralCnt(), 10);
  push();
  EXPECT_EQ(world.core().failedGetReferralCnt(), 11);
  world.loop.advance(9.9);
  EXPECT_THAT(world.requests("v1/conversion"), IsEmpty());
  world.transport.on("v1/conversion").then(Answer::silence());
  world.loop.advance(0.2);
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
  EXPECT_EQ(sentBatches(), 0U);
}

TEST_F(Refetch, FiresOnce) {
  world.transport.on("v1/conversion").always(Answer::silence());
  push();
  world.core().set_isTrackingCalled(false);
  push();
  world.loop.advance(11);
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
  EXPECT_EQ(world.core().failedGetReferralCnt(), 11);
}

TEST_F(Refetch, AnAttributedInstallDoesNotAskAgain) {
  world.userDefaults().setFendoUserInfo_referralKey(3);
  push();
  world.loop.advance(11);
  EXPECT_THAT(world.requests("v1/conversion"), IsEmpty());
  EXPECT_EQ(world.core().failedGetReferralCnt(), 10);
}

TEST_F(Refetch, CarriesThePayloadOfTheMomentItWasScheduled) {
  world.transport.on("v1/conversion").always(Answer::silence());
  push();
  world.loop.advance(11);
  const auto payloads = world.payloads("v1/conversion");
  ASSERT_EQ(payloads.size(), 1U);
  EXPECT_EQ(payloads[0]["activity_info"].array()[0]["created_at"], Value("20240301000000"));
}

TEST_F(Tracking, ARecordThatNoBatchCanTakeHoldsTheOthersUpUntilItIsGone) {
  kit::MutableDictionary nameless(activity("g", "n", at(1), "e1"));
  nameless.remove("activityName");
  const Value good = activity("g", "n", at(2), "e2");
  world.userDefaults().setFendoActivityInfos(Array{Value(std::move(nameless)), good});
  world.transport.on("v1/tracking").always(Answer::json(kAccepted));
  push();
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(3600);
  EXPECT_EQ(sentBatches(), 0U);
  EXPECT_GT(storedIds().size(), 2U) << "nothing is lost";
  world.userDefaults().setFendoActivityInfos(Array{good});
  world.becomeActive();
  world.loop.advance(1);
  EXPECT_EQ(sentBatches(), 1U);
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Tracking, TrimmingRemovesIdenticalRecordsTogether) {
  const Value twice = activity("g", "n", at(1), "e1");
  world.userDefaults().setFendoActivityInfos(Array{twice, activity("g", "n", at(1), "e2"), twice});
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"e1"});
  world.core().deleteActivitysForTracking();
  EXPECT_THAT(storedIds(), ElementsAre("e2"));
}

TEST_F(Tracking, TrimmingEmptiesTheKeysFirstAndFlushesEachList) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"id-0"});
  world.store.clearJournal();
  world.core().deleteActivitysForTracking();
  EXPECT_THAT(world.store.journalTexts(),
              ElementsAre("fendoActivityInfosSentEventKeys", "synchronize", "fendoActivityInfos", "synchronize"));
}

TEST_F(Tracking, TrimmingListsThatWereNeverStoredLeavesThemAbsent) {
  world.core().deleteActivitysForTracking();
  EXPECT_TRUE(world.userDefaults().fendoActivityInfos().isAbsent());
  EXPECT_TRUE(world.userDefaults().fendoActivityInfosSentEventKeys().isAbsent());
}

TEST_F(Tracking, TrimmingKeepsRecordsWithoutAnId) {
  world.userDefaults().setFendoActivityInfos(
      Array{Dictionary{{"activityName", "odd"}}, "not even a record", activity("g", "n", at(1), "e1")});
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"", "e1"});
  world.core().deleteActivitysForTracking();
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().size(), 2U);
}

TEST_F(Tracking, ClearingImpressionsFlushesAndLeavesAnEmptyList) {
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"createdAt", at(1)}}});
  world.store.clearJournal();
  world.core().deleteImpressionInfo();
  EXPECT_EQ(world.userDefaults().fendoImpressionInfos(), Value(Array{}));
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoImpressionInfos", "synchronize"));
}

TEST_F(Tracking, ClearingImpressionsThatWereNeverStoredLeavesThemAbsent) {
  world.core().deleteImpressionInfo();
  EXPECT_TRUE(world.userDefaults().fendoImpressionInfos().isAbsent());
}

}  // namespace
}  // namespace morvik
