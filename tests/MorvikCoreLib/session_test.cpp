// Session start, session end, background time, launch counter and retention mark.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/endpoints.h"
#include "testing/ports_with.h"
#include "tests/MorvikCoreLib/clicks.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activities;
using testing::Answer;
using testing::at;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::TestWorld;
using testing::texts;
using testing::WorldOptions;

constexpr const char* kAlreadyLine =
    "MRVK_QA-[MorvikCoreLib Info] Already startSession be called, this process not be execute til endSession be "
    "called!!!";
constexpr const char* kKeepLine = "MRVK_QA-[MorvikCoreLib]Keep Session on startSession : skip start activity ";
constexpr const char* kLaunchCounter = "com.morvik.core.appLaunchCount";

class Session : public ::testing::Test {
 protected:
  explicit Session(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {}

  std::vector<std::string> storedNames() { return texts(world.userDefaults().fendoActivityInfos(), "activityName"); }
  /// The names in the last batch that left.
  std::vector<std::string> lastBatch() {
    return texts(world.payloads("v1/tracking").back()["activity_info"], "activity");
  }
  /// A session that started now and ended `seconds` later; its half-second block has run. Batches fail, so that all
  /// activities stay.
  void live(double seconds) {
    world.becomeActive();
    world.loop.advance(seconds);
    world.enterBackground();
  }

  TestWorld world;
};

// ----------------------------------------------------------------------------------------------------------- the order

TEST_F(Session, StartRecordsTheSessionAndTheRetentionMark) {
  world.becomeActive();
  const Array stored = world.userDefaults().fendoActivityInfos().array();
  ASSERT_EQ(stored.size(), 2U);
  EXPECT_EQ(stored[0], Value(Dictionary{{"activityGroupName", "session"},
                                        {"activityName", "start"},
                                        {"activityParam", ""},
                                        {"activityCreatedAt", at(0)},
                                        {"activityEventID", "event-1"}}));
  EXPECT_EQ(stored[1]["activityName"], Value("retention"));
}

TEST_F(Session, StartWritesInItsFixedOrder) {
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  world.transport.on("v1/tracking").always(Answer::silence());
  world.store.commitTurn();
  world.store.clearJournal();
  world.becomeActive();
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoActivityInfosSentEventKeys", "synchronize",  // cleared
                                                      kLaunchCounter, "synchronize",           // launch counter
                                                      "fendoActivityInfos", "synchronize",     // "start"
                                                      "fendoUserInfo_last_app_launched_date",  // retention
                                                      "fendoActivityInfos", "synchronize",     // its activity
                                                      "fendoActivityInfosSentEventKeys", "synchronize",  // pushed
                                                      "synchronize",  // the retention's flush
                                                      "MorvikCoreUserInfo_IDFA", "synchronize"));  // identifier
  EXPECT_TRUE(world.log.has("MRVK_QA-clear fendoActivityInfosSentEventKeys on startSession: []"));
}

/// The paths of all requests, in the order in which they were started.
std::vector<std::string> paths(const TestWorld& world) {
  std::vector<std::string> found;
  for (const kit::Request& request : world.requests())
    found.push_back(request.url.substr(request.url.find('/', std::string_view("https://").size()) + 1));
  return found;
}

/// What a session's start and end find to do, besides the events.
void leaveWork(TestWorld& world) {
  world.userDefaults().setMorvikCoreUserInfo_Crash(Array{Dictionary{{"exception_reason", "fendo"}}});
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.core().setAge(27);
}

TEST_F(Session, StartSendsWhatIsDueInItsFixedOrder) {
  leaveWork(world);
  world.userDefaults().setURL(kit::Url("app://x?ck=12"), services::kPassOpenUrlKey);
  world.userDefaults().setFendoUserInfo_last_app_launched_date(at(0));
  world.transport.setDefaultAnswer(Answer::silence());
  world.ad_client.conversion_details.answerEveryCall(std::nullopt, at(0));
  world.ad_client.attribution_details.letCallsWait();
  size_t before_commerce_events = 0;
  world.modules.add("Fendo").saveCommerceEventAndSend = [&] {
    before_commerce_events = world.faulty.transport.faults.calls("start");
  };
  world.becomeActive();
  // The ad client's answer comes when the start is over.
  EXPECT_THAT(paths(world), ElementsAre("test-app/config.json", "v2/schedule", "v1/tracking", "v1/demographics",
                                        "v1/crash", "v1/reengagement-conversion", "v1/iad-attribution"));
  EXPECT_EQ(before_commerce_events, 5U) << "between the crash reports and the stored URL";
}

TEST_F(Session, StartOfAnUnattributedInstallAsksBetweenDemographicsAndCrashReports) {
  leaveWork(world);
  world.userDefaults().setFendoUserInfo_referralKey(-1);
  world.ad_client.attribution_details.answerEveryCall(Dictionary{{"v3", Dictionary{{"campaign", 1}}}}, std::nullopt);
  world.transport.setDefaultAnswer(Answer::silence());
  world.loop.perform([&] { world.core().searchAds(); });
  world.transport.clearRequests();
  world.becomeActive();
  EXPECT_THAT(paths(world),
              ElementsAre("test-app/config.json", "v2/schedule", "v1/demographics", "v1/conversion", "v1/crash"));
}

TEST_F(Session, EndSendsWhatIsDueInItsFixedOrder) {
  world.transport.setDefaultAnswer(Answer::silence());
  world.becomeActive();
  leaveWork(world);
  world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
  world.core().set_isTrackingCalled(false);
  world.transport.clearRequests();
  const size_t before = world.faulty.transport.faults.calls("start");
  size_t before_commerce_events = 0;
  world.modules.add("Fendo").saveCommerceEventAndSend = [&] {
    before_commerce_events = world.faulty.transport.faults.calls("start") - before;
  };
  world.loop.advance(1.5);
  world.enterBackground();
  EXPECT_THAT(paths(world), ElementsAre("v1/demographics", "v1/reengagement-conversion"));
  EXPECT_EQ(before_commerce_events, 2U);
  EXPECT_THAT(storedNames(), Not(Contains("end")));
  world.loop.advance(0.5);
  EXPECT_THAT(paths(world), ElementsAre("v1/demographics", "v1/reengagement-conversion", "v1/tracking"));
  EXPECT_THAT(lastBatch(), Not(Contains("end")));
  EXPECT_THAT(storedNames(), Contains("end"));
}

TEST_F(Session, EndWithoutAUserNumberStillSendsDemographicsAndSavesCommerceEvents) {
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  world.transport.setDefaultAnswer(Answer::silence());
  leaveWork(world);
  world.modules.add("Fendo");
  world.loop.perform([&] { world.core().endSession(); });
  world.loop.advance(1);
  EXPECT_THAT(paths(world), ElementsAre("v1/demographics"));
  EXPECT_THAT(world.modules.calls(), ElementsAre("Fendo saveCommerceEventAndSend"));
  EXPECT_THAT(storedNames(), IsEmpty());
}

// An exception ends the start where it is thrown: what is done by then came before, what is not comes after.

TEST_F(Session, StartAsksForIAdAfterClearingTheKeysAndBeforeCounting) {
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  world.faulty.ad_client.faults.throwAlways("offersConversionDetails", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().fendoActivityInfosSentEventKeys(), Value(Array{}));
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 0);
  EXPECT_TRUE(world.core().isStartSessionCalled());
  EXPECT_TRUE(world.core().isAppinFocus());
}

TEST_F(Session, StartCountsBeforeItRecords) {
  world.faultyServices().faults.throwAlways("activityGroupName", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 1);
  EXPECT_FALSE(world.userDefaults().fendoUserInfo_last_app_launched_date().has_value());
}

TEST_F(Session, StartMarksTheDayBeforeItUploadsAndUploadsBeforeItNotesItsDate) {
  world.userDefaults().setFendoUserInfo_last_app_launched_date(at(-86'400));
  // The retention mark pushes (and blocks the slot), then the upload is refused; the next reading of the clock is the
  // session's date. (The first two are those of "start" and of the mark.)
  world.faulty.clock.faults.throwAt("now", 3, testing::Fault::number(1));
  world.transport.on("v1/tracking").always(Answer::silence());
  world.becomeActive();
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention"));
  EXPECT_EQ(world.requests("v1/tracking").size(), 1U);
  EXPECT_EQ(world.log.countContaining("tracking is blocked"), 1U);
  EXPECT_FALSE(world.core()._startSessoinDate().has_value());
}

TEST_F(Session, StartNotesItsDateBeforeItAsksForSearchAdsAndAsksBeforeItStoresTheIdentifier) {
  world.ad_client.attribution_details.letCallsWait();
  world.faulty.ad_client.faults.throwAlways("requestAttributionDetailsWithBlock", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.core()._startSessoinDate(), at(0));
  EXPECT_FALSE(world.userDefaults().MorvikCoreUserInfo_IDFA().has_value());
}

TEST_F(Session, StartFreesTheTrackingSlotAlsoOfAnOpenSession) {
  world.transport.on("v1/tracking").always(Answer::silence());
  world.becomeActive();
  EXPECT_TRUE(world.core()._isTrackingCalled());
  world.store.commitTurn();
  world.store.clearJournal();
  world.becomeActive();
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_TRUE(world.log.has(kAlreadyLine));
  EXPECT_EQ(world.log.find(kAlreadyLine)->prefix->level, "TRACE");
  EXPECT_EQ(world.log.find(kAlreadyLine)->prefix->operation, "-[MorvikCoreLib startSession]");
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
}

TEST_F(Session, StartSetsTheFocusAndBackgroundTakesIt) {
  world.becomeActive();
  EXPECT_TRUE(world.core().isAppinFocus());
  world.enterBackground();
  EXPECT_FALSE(world.core().isAppinFocus());
}

TEST_F(Session, StartLeavesAnEmptyOrAbsentListOfSentEventKeysAlone) {
  world.becomeActive();
  EXPECT_EQ(world.log.countContaining("on startSession: "), 0U);
  world.enterBackground();
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{});
  world.becomeActive();
  EXPECT_EQ(world.log.countContaining("clear fendoActivityInfosSentEventKeys on startSession"), 0U);
}

TEST_F(Session, StartNotesWhenTheSessionBegan) {
  world.loop.advance(7);
  world.becomeActive();
  EXPECT_EQ(world.core()._startSessoinDate(), at(7));
}

TEST_F(Session, StartSendsNothingWithoutUserNumberOrKey) {
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  world.becomeActive();
  EXPECT_FALSE(world.core()._isTrackingCalled());
  world.enterBackground();
  world.userDefaults().setFendoUserInfo_fendoUserNo(5);
  world.sharedState().kAESSuperKeyForTracking = "";
  world.loop.advance(100);
  world.becomeActive();
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_THAT(world.requests("v1/tracking"), IsEmpty());
}

TEST_F(Session, StartClearsTheKeysBeforeItAsksForThePremiumPostbackAndAsksBeforeTheIAd) {
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  world.faulty.key_value_store.faults.throwAt("set", 1, testing::Fault::number(1));
  world.becomeActive();
  EXPECT_THAT(world.requests("config.json"), IsEmpty());
  world.enterBackground();
  world.loop.advance(100);
  world.faulty.ad_client.faults.throwAlways("offersConversionDetails", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.requests("config.json").size(), 1U);
}

TEST_F(Session, StartSavesCommerceEventsAfterTheIdentifierAndBeforeItReplaysTheUrl) {
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.userDefaults().setURL(kit::Url("app://x?ck=12"), services::kPassOpenUrlKey);
  world.modules.add("Fendo").saveCommerceEventAndSend = [] { throw 1; };
  world.becomeActive();
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_IDFA().has_value());
  EXPECT_TRUE(world.userDefaults().URLForKey(services::kPassOpenUrlKey).has_value());
  EXPECT_EQ(world.log.countContaining("Exception from startSession!"), 1U);
}

TEST_F(Session, AStoredUrlIsReplayedOnceAndIsGoneBeforeItIsOpened) {
  world.userDefaults().setURL(kit::Url("app://x?ck=12"), services::kPassOpenUrlKey);
  world.modules.add("FendoLib");
  bool is_gone = false;
  world.modules.sharedOf("FendoLib").resetRetainedConversionCache = [&](const Value& query) {
    EXPECT_EQ(query, Value(Dictionary{{"ck", "12"}}));
    is_gone = world.store.committed().count(services::kPassOpenUrlKey) == 0;
  };
  world.becomeActive();
  EXPECT_TRUE(is_gone);
  EXPECT_THAT(testing::sentClicks(world), ElementsAre(12));
  const auto messages = world.log.messages();
  EXPECT_THAT(messages, Contains("MRVK_QA-P.O. URL : app://x?ck=12, getURLParamaters : {\"ck\":\"12\"}"));
  world.enterBackground();
  world.loop.advance(100);
  world.becomeActive();
  EXPECT_EQ(world.log.countContaining("MRVK_QA-P.O. URL : "), 1U);
}

TEST_F(Session, AStoredUrlThatCannotBeOpenedIsGoneAllTheSame) {
  world.userDefaults().setURL(kit::Url("app://x?ck=12"), services::kPassOpenUrlKey);
  world.faulty.util.faults.throwAlways("getURLParmaters", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_FALSE(world.userDefaults().URLForKey(services::kPassOpenUrlKey).has_value());
  EXPECT_EQ(world.log.countContaining("Exception from passOpenURL!"), 1U);
  EXPECT_EQ(world.log.countContaining("Exception from startSession!"), 0U);
}

TEST_F(Session, AStoredUrlWaitsForASessionThatStarts) {
  world.becomeActive();
  world.userDefaults().setURL(kit::Url("app://x?ck=12"), services::kPassOpenUrlKey);
  world.becomeActive();
  EXPECT_THAT(testing::sentClicks(world), IsEmpty());
  world.enterBackground();
  world.becomeActive();
  EXPECT_THAT(testing::sentClicks(world), ElementsAre(12));
}

TEST_F(Session, ReplayingAUrlIsTheLastStepAndWritesItsSlotFirst) {
  world.transport.setDefaultAnswer(Answer::silence());
  world.userDefaults().setURL(kit::Url("app://x?cid=shoe"), services::kPassOpenUrlKey);
  world.store.commitTurn();
  world.store.clearJournal();
  world.becomeActive();
  const auto journal = world.store.journalTexts();
  const std::vector<std::string> last(journal.end() - 6, journal.end());
  EXPECT_THAT(last, ElementsAre("MorvikCoreUserInfo_IDFA", "synchronize", services::kPassOpenUrlKey, "synchronize",
                                "commerceConversionInfos", "synchronize"));
}

// ------------------------------------------------------------------------------------------------------- kept sessions

TEST_F(Session, ActiveAgainAfterThirtySecondsKeepsTheSessionAndLeavesItsEndOut) {
  live(10);
  world.loop.advance(30);
  world.becomeActive();
  EXPECT_TRUE(world.log.has(kKeepLine));
  EXPECT_EQ(world.log.find(kKeepLine)->prefix->level, "TRACE");
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention", "end"));
  EXPECT_THAT(lastBatch(), ElementsAre("start", "retention"));
}

TEST_F(Session, ActiveAgainAfterSixtySecondsStartsANewSessionAndSendsTheEnd) {
  live(10);
  world.loop.advance(60);
  world.becomeActive();
  EXPECT_FALSE(world.log.has(kKeepLine));
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention", "end", "start"));
  EXPECT_THAT(lastBatch(), ElementsAre("start", "retention", "end", "start"));
}

TEST_F(Session, AKeptSessionWithAnEndAloneDeletesItWithoutARequest) {
  world.serviceAccepts();
  live(10);
  world.loop.advance(30);
  ASSERT_THAT(storedNames(), ElementsAre("end"));
  const size_t before = world.requests("v1/tracking").size();
  world.becomeActive();
  EXPECT_THAT(storedNames(), IsEmpty());
  EXPECT_EQ(world.requests("v1/tracking").size(), before);
}

struct KeepCase {
  const char* what;
  int64_t elapsed_microseconds;
  bool kept;
};

class KeepPeriod : public ::testing::TestWithParam<KeepCase> {};

TEST_P(KeepPeriod, DecidesByWholeMilliseconds) {
  TestWorld world(WorldOptions::attributed());
  world.becomeActive();
  world.enterBackground();
  world.loop.setWallClock({world.core()._endSessoinDate()->microseconds + GetParam().elapsed_microseconds});
  world.becomeActive();
  EXPECT_EQ(world.log.has(kKeepLine), GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    Session, KeepPeriod,
    ::testing::Values(KeepCase{"SameMoment", 0, false}, KeepCase{"BelowOneMillisecond", 999, false},
                      KeepCase{"OneMillisecond", 1'000, true}, KeepCase{"LastMillisecond", 59'999'999, true},
                      KeepCase{"OneMinute", 60'000'000, false}, KeepCase{"ClockSetBackABit", -999, false},
                      KeepCase{"ClockSetBack", -30'000'000, false}),
    [](const auto& row) { return row.param.what; });

TEST_F(Session, TheFirstActivationOfAProcessNeverKeepsASessionButLoadsItsEnd) {
  live(10);
  world.loop.advance(5);
  world.restart();
  EXPECT_FALSE(world.core()._endSessoinDate().has_value());
  world.becomeActive();
  EXPECT_FALSE(world.log.has(kKeepLine));
  EXPECT_EQ(world.core()._endSessoinDate(), at(10));
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention", "end", "start"));
}

TEST_F(Session, ActiveAgainWithinTheHalfSecondKeepsTheSessionAndTheEndIsRecordedAfterwards) {
  world.becomeActive();
  world.loop.advance(5);
  world.enterBackground();
  world.loop.advance(0.2);
  world.becomeActive();
  EXPECT_TRUE(world.log.has(kKeepLine));
  EXPECT_THAT(storedNames(), Not(Contains("end")));
  world.loop.advance(1);
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention", "end"));
  world.core().set_isTrackingCalled(false);
  world.loop.perform([&] { world.core().tracking(world.core().makeTrackingParameter(EndActivities::kFilter)); });
  EXPECT_THAT(lastBatch(), ElementsAre("start", "retention"));
}

class FreshInstall : public Session {
 protected:
  FreshInstall() : Session(WorldOptions()) { world.transport.on("v1/conversion").always(Answer::silence()); }
};

TEST_F(FreshInstall, AsksTheAdClientWhileNoDetailsAreHeld) {
  world.ad_client.attribution_details.letCallsWait();
  world.becomeActive();
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 1U);
  EXPECT_THAT(world.requests("v1/conversion"), IsEmpty());
}

TEST_F(FreshInstall, WithDetailsInHandSendsTheConversionItself) {
  world.ad_client.attribution_details.answerEveryCall(Dictionary{{"Version3.1", Dictionary{{"iad-keyword", "k"}}}},
                                                      std::nullopt);
  world.becomeActive();
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
  world.enterBackground();
  world.becomeActive();
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 1U);
  EXPECT_EQ(world.requests("v1/conversion").size(), 2U);
}

TEST_F(FreshInstall, WithDetailsAndAReferralKeySendsNoConversion) {
  world.ad_client.attribution_details.answerEveryCall(Dictionary{{"Version3.1", Dictionary{{"iad-keyword", "k"}}}},
                                                      std::nullopt);
  world.userDefaults().setFendoUserInfo_referralKey(0);
  world.becomeActive();
  world.enterBackground();
  world.becomeActive();
  EXPECT_THAT(world.requests("v1/conversion"), IsEmpty());
}

TEST_F(Session, StoresTheAdvertisingIdentifierOnceAndNeverRefreshesIt) {
  world.util.setIDFA("first");
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_IDFA(), "first");
  world.enterBackground();
  world.util.setIDFA("second");
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_IDFA(), "first");
}

TEST_F(Session, AnEmptyStoredIdentifierIsReplaced) {
  world.userDefaults().setMorvikCoreUserInfo_IDFA("");
  world.util.setIDFA("new");
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_IDFA(), "new");
}

TEST_F(Session, WithoutAnIdentifierNoneIsStored) {
  world.util.setIDFA(std::nullopt);
  world.becomeActive();
  EXPECT_FALSE(world.userDefaults().MorvikCoreUserInfo_IDFA().has_value());
}

TEST_F(Session, EndOfOneAndAHalfSecondsRecords1500) {
  live(1.5);
  world.loop.advance(0.5);
  const Array stored = world.userDefaults().fendoActivityInfos().array();
  EXPECT_EQ(stored[2], Value(Dictionary{{"activityGroupName", "session"},
                                        {"activityName", "end"},
                                        {"activityParam", "1500"},
                                        {"activityCreatedAt", at(2)},
                                        {"activityEventID", "event-3"}}));
}

TEST_F(Session, TheLengthOfASessionIsTruncatedToWholeMilliseconds) {
  live(0.0019);
  world.loop.advance(0.5);
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().array()[2]["activityParam"], Value("1"));
}

TEST_F(Session, ASessionWhoseClockWasSetBackHasLengthZero) {
  world.becomeActive();
  world.loop.moveWallClock(-3600);
  world.enterBackground();
  world.loop.advance(0.5);
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().array()[2]["activityParam"], Value("0"));
}

TEST_F(Session, AnEndWithoutAStartHasLengthZero) {
  world.loop.perform([&] { world.core().endSession(); });
  world.loop.advance(0.5);
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().array()[0]["activityParam"], Value("0"));
}

TEST_F(Session, EndStampsAndFlushesTheEndDate) {
  world.becomeActive();
  world.loop.advance(3);
  world.store.commitTurn();
  world.store.clearJournal();
  world.enterBackground();
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_endSessoinDate(), at(3));
  EXPECT_EQ(world.core()._endSessoinDate(), at(3));
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("MorvikCoreUserInfo_endSessoinDate", "synchronize"));
}

TEST_F(Session, EndResendsFailedClicksThenSavesCommerceEventsThenClearsTheRecorder) {
  world.transport.on(testing::kReEngagement).always(Answer::silence());
  world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.becomeActive();
  testing::open(world, "app://x?ck=13");
  size_t under_way = 0;
  bool has_recorder = false;
  std::optional<kit::Date> end;
  world.modules.add("Fendo").saveCommerceEventAndSend = [&] {
    under_way = world.faulty.transport.faults.calls("start");
    has_recorder = static_cast<bool>(world.core().ReEngagement_task());
    end = world.userDefaults().MorvikCoreUserInfo_endSessoinDate();
  };
  world.loop.advance(5);
  const size_t before = world.faulty.transport.faults.calls("start");
  world.enterBackground();
  EXPECT_EQ(under_way, before + 1);
  EXPECT_TRUE(has_recorder);
  EXPECT_EQ(end, at(5));
  EXPECT_FALSE(world.core().ReEngagement_task());
  EXPECT_THAT(testing::sentClicks(world), ElementsAre(13, 12));
}

TEST_F(Session, EndWithoutAUserNumberResendsFailedClicksAndClearsTheRecorderAllTheSame) {
  world.transport.on(testing::kReEngagement).always(Answer::silence());
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
  testing::open(world, "app://x?ck=13");
  ASSERT_TRUE(world.core().ReEngagement_task());
  world.loop.perform([&] { world.core().endSession(); });
  EXPECT_THAT(testing::sentClicks(world), ElementsAre(13, 12));
  EXPECT_FALSE(world.core().ReEngagement_task());
}

TEST_F(Session, EndWhoseCommerceEventsThrowKeepsTheRecorderAndSendsNoBatch) {
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.becomeActive();
  testing::open(world, "app://x?ck=13");
  world.modules.add("Fendo").saveCommerceEventAndSend = [] { throw 1; };
  world.enterBackground();
  world.loop.advance(5);
  EXPECT_TRUE(world.core().ReEngagement_task());
  EXPECT_THAT(storedNames(), Not(Contains("end")));
  EXPECT_EQ(world.log.countContaining("Exception from endSession!"), 1U);
}

TEST_F(Session, EndWhoseRetryThrowsGoesOn) {
  world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.modules.add("Fendo");
  world.faultyServices().faults.throwAlways("hashKey", testing::Fault::number(1));
  world.loop.perform([&] { world.core().endSession(); });
  world.loop.advance(1);
  EXPECT_THAT(world.modules.calls(), ElementsAre("Fendo saveCommerceEventAndSend"));
  EXPECT_THAT(storedNames(), Contains("end"));
}

TEST_F(Session, EndCountsForFailedClicksWhereTheirListIsStoredThoughEmpty) {
  world.userDefaults().setReEngagementConversionFailedCnt(Array{testing::countOf(12, 1)});
  world.loop.perform([&] { world.core().endSession(); });
  EXPECT_EQ(world.userDefaults().reEngagementConversionFailedCnt(), Value(Array{testing::countOf(12, 1)}));
  world.userDefaults().setReEngagementInfos(Array{});
  world.loop.perform([&] { world.core().endSession(); });
  EXPECT_EQ(world.userDefaults().reEngagementConversionFailedCnt(), Value(Array{testing::countOf(12, 2)}));
}

TEST_F(Session, EndSendsTheBatchHalfASecondLaterAndRecordsTheEndAfterwards) {
  world.serviceAccepts();
  world.becomeActive();
  world.recordEvent("shop", "buy");
  world.enterBackground();
  const size_t before = world.requests("v1/tracking").size();
  world.loop.advance(0.4);
  EXPECT_EQ(world.requests("v1/tracking").size(), before);
  world.loop.advance(0.2);
  EXPECT_EQ(world.requests("v1/tracking").size(), before + 1);
  EXPECT_THAT(lastBatch(), ElementsAre("buy"));
  EXPECT_THAT(storedNames(), ElementsAre("end"));
}

TEST_F(Session, WithoutAUserNumberNoEndIsRecordedAndNothingSent) {
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  live(5);
  world.loop.advance(5);
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention"));
  EXPECT_THAT(world.requests("v1/tracking"), IsEmpty());
  EXPECT_EQ(world.userDefaults().MorvikCoreUserInfo_endSessoinDate(), at(5));
}

TEST_F(Session, WithoutATrackingKeyNoEndIsRecorded) {
  world.sharedState().kAESSuperKeyForTracking = "";
  live(5);
  world.loop.advance(5);
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention"));
}

TEST_F(Session, EndRunsOnTheBackgroundQueue) {
  world.transport.on("v1/tracking").always(Answer::silence());
  world.becomeActive();
  world.loop.perform([&] {
    world.core().enterBackground();
    EXPECT_TRUE(world.core().isStartSessionCalled());
  });
  EXPECT_FALSE(world.core().isStartSessionCalled());
  EXPECT_EQ(world.faulty.background_queue.faults.calls("async"), 1U);
}

TEST_F(Session, BackgroundChangesOnlyThreeFlagsOnADeviceWithoutMultitasking) {
  for (const std::optional<bool> supported : {std::optional<bool>(), std::optional<bool>(false)}) {
    WorldOptions options;
    options.device.is_multitasking_supported = supported;
    TestWorld single(options);
    EXPECT_TRUE(single.core().isFirstLaunchOk());
    single.becomeActive();
    single.store.clearJournal();
    single.enterBackground();
    single.loop.advance(5);
    EXPECT_FALSE(single.core().isAppinFocus());
    EXPECT_FALSE(single.core().isFirstLaunchOk());
    EXPECT_EQ(single.core().failedGetAESKeyCnt(), 0);
    EXPECT_TRUE(single.core().isStartSessionCalled());
    EXPECT_EQ(single.core().background_task(), kit::kBackgroundTaskInvalid);
    EXPECT_THAT(single.store.journalTexts(), IsEmpty());
    single.becomeActive();
    EXPECT_TRUE(single.log.has(kAlreadyLine));
  }
}

TEST_F(Session, BackgroundTimeIsGivenBackByTheTrackingAnswer) {
  world.transport.on("v1/tracking").always(Answer::json(Dictionary{{"Result", true}}).after(2));
  world.becomeActive();
  world.loop.advance(5);
  world.recordEvent("shop", "buy");
  world.enterBackground();
  EXPECT_NE(world.core().background_task(), kit::kBackgroundTaskInvalid);
  EXPECT_EQ(world.loop.openBackgroundTasks().size(), 1U);
  world.loop.advance(3);
  EXPECT_EQ(world.core().background_task(), kit::kBackgroundTaskInvalid);
  EXPECT_THAT(world.loop.openBackgroundTasks(), IsEmpty());
}

TEST_F(Session, BackgroundTimeThatRunsOutIsGivenBackWithALine) {
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);  // no batch, so no answer gives it back
  live(5);
  world.loop.advance(29);
  EXPECT_FALSE(world.log.has("MRVK_QA-UIBackgroundTaskInvalid..."));
  world.loop.advance(2);
  EXPECT_EQ(world.core().background_task(), kit::kBackgroundTaskInvalid);
  EXPECT_THAT(world.loop.openBackgroundTasks(), IsEmpty());
  const auto line = world.log.find("MRVK_QA-UIBackgroundTaskInvalid...");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "DEBUG");
}

TEST_F(Session, WithoutAnActivityToSendTheBackgroundTimeRunsOut) {
  world.serviceAccepts();
  live(5);
  world.loop.advance(1);
  EXPECT_EQ(world.loop.openBackgroundTasks().size(), 1U);
  world.loop.advance(30);
  EXPECT_THAT(world.loop.openBackgroundTasks(), IsEmpty());
  EXPECT_EQ(world.loop.expiredBackgroundTasks(), 1U);
}

TEST_F(Session, ATrackingAnswerInTheForegroundEndsWhateverTaskIsHeld) {
  world.serviceAccepts();
  world.becomeActive();
  world.loop.advance(1);
  EXPECT_EQ(world.faulty.background_tasks.faults.calls("endBackgroundTask"), 1U);
  EXPECT_EQ(world.core().background_task(), kit::kBackgroundTaskInvalid);
}

TEST_F(Session, BackgroundTimeIsEndedOnTheBackgroundQueueWithoutACheck) {
  world.loop.perform([&] {
    world.core().applicationEndBackgroundTask();
    EXPECT_EQ(world.faulty.background_tasks.faults.calls("endBackgroundTask"), 0U);
  });
  EXPECT_EQ(world.faulty.background_tasks.faults.calls("endBackgroundTask"), 1U);
}

/// Tells when a task is being ended, on whatever queue.
class ObservedTasks final : public kit::BackgroundTasks {
 public:
  explicit ObservedTasks(kit::BackgroundTasks& tasks) : tasks_(tasks) {}
  kit::BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(kit::Block expiration_handler) override {
    return tasks_.beginBackgroundTaskWithExpirationHandler(std::move(expiration_handler));
  }
  void endBackgroundTask(kit::BackgroundTaskIdentifier identifier) override {
    tasks_.endBackgroundTask(identifier);
    if (const kit::Block observer = std::exchange(while_ending, nullptr))
      observer();
  }
  kit::Block while_ending;

 private:
  kit::BackgroundTasks& tasks_;
};

TEST_F(Session, BackgroundTimeThatBeginsWhileAnotherIsGivenBackIsNotForgotten) {
  ObservedTasks tasks(world.loop.backgroundTasks());
  const kit::Ports kit = testing::portsWith(world.ports(), {.background_tasks = &tasks});
  const auto core = MorvikCoreLib::make(kit);
  world.loop.perform([&] {
    core->enterBackground();
    core->applicationEndBackgroundTask();
    // The background queue is about to let go of the task when the app enters the background once more.
    tasks.while_ending = [&] { core->enterBackground(); };
  });
  ASSERT_EQ(world.loop.openBackgroundTasks().size(), 1U);
  EXPECT_EQ(core->background_task(), world.loop.openBackgroundTasks()[0]);
}

TEST_F(Session, TheLaunchCounterGoesUpByOneWithEachSessionStart) {
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 0);
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 1);
  world.becomeActive();  // the session is open: no new start
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 1);
  world.enterBackground();
  world.loop.advance(10);
  world.becomeActive();  // a kept session counts
  EXPECT_TRUE(world.log.has(kKeepLine));
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 2);
  world.restart();
  world.becomeActive();
  EXPECT_EQ(world.userDefaults().integerForKey(kLaunchCounter), 3);
}

struct RetentionCase {
  const char* what;
  kit::CalendarComponents stored;
  kit::CalendarComponents now;
  bool marked;
};

class Retention : public ::testing::TestWithParam<RetentionCase> {};

kit::Date utc(const kit::CalendarComponents& civil) {
  return *services::dateFromCivil(civil, 0);
}

TEST_P(Retention, ComparesFieldByField) {
  TestWorld world(WorldOptions::attributed());
  world.userDefaults().setFendoUserInfo_last_app_launched_date(utc(GetParam().stored));
  world.loop.setWallClock(utc(GetParam().now));
  world.loop.perform([&] { world.core().chkRetentionForDay(); });
  const auto names = texts(world.userDefaults().fendoActivityInfos(), "activityName");
  EXPECT_EQ(names.size(), GetParam().marked ? 1U : 0U);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_last_app_launched_date(),
            utc(GetParam().marked ? GetParam().now : GetParam().stored));
}

INSTANTIATE_TEST_SUITE_P(
    Days, Retention,
    ::testing::Values(
        RetentionCase{"SameDay", {2024, 3, 10, 1, 0, 0}, {2024, 3, 10, 23, 59, 59}, false},
        RetentionCase{"TwoMinutesOverMidnight", {2024, 3, 10, 23, 59, 0}, {2024, 3, 11, 0, 1, 0}, true},
        RetentionCase{"NextMonth", {2024, 3, 31, 1, 0, 0}, {2024, 4, 1, 1, 0, 0}, true},
        RetentionCase{"NextYear", {2024, 12, 31, 1, 0, 0}, {2025, 1, 1, 1, 0, 0}, true},
        RetentionCase{"EarlierMonthWithALargerDay", {2024, 3, 10, 0, 0, 0}, {2024, 2, 25, 0, 0, 0}, true},
        RetentionCase{"EarlierMonthWithASmallerDay", {2024, 3, 10, 0, 0, 0}, {2024, 2, 9, 0, 0, 0}, false},
        RetentionCase{"StoredNextMonthWithASmallerDay", {2024, 4, 5, 0, 0, 0}, {2024, 3, 20, 0, 0, 0}, true},
        RetentionCase{"EarlierYearWithALargerMonth", {2020, 1, 31, 0, 0, 0}, {2019, 2, 1, 0, 0, 0}, true},
        RetentionCase{"EarlierYearSameDay", {2020, 1, 31, 0, 0, 0}, {2019, 1, 31, 0, 0, 0}, false}),
    [](const auto& row) { return row.param.what; });

TEST_F(Session, AFirstUseMarksTheDayStoresItAndPushes) {
  world.transport.on("v1/tracking").always(Answer::silence());
  world.loop.perform([&] { world.core().chkRetentionForDay(); });
  const Array stored = world.userDefaults().fendoActivityInfos().array();
  ASSERT_EQ(stored.size(), 1U);
  EXPECT_EQ(stored[0], Value(Dictionary{{"activityGroupName", "session"},
                                        {"activityName", "retention"},
                                        {"activityParam", ""},
                                        {"activityCreatedAt", at(0)},
                                        {"activityEventID", "event-1"}}));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_last_app_launched_date(), at(0));
  EXPECT_EQ(world.requests("v1/tracking").size(), 1U);
}

TEST_F(Session, ASecondActivationOfTheDayRecordsNoRetention) {
  live(5);
  world.loop.advance(600);
  world.becomeActive();
  EXPECT_THAT(storedNames(), ElementsAre("start", "retention", "end", "start"));
}

TEST(RetentionMark, GoesByTheDevicesZone) {
  WorldOptions options = WorldOptions::attributed();
  options.calendar = std::make_shared<testing::FixedOffsetCalendar>(9 * 3600);
  TestWorld world(options);
  world.loop.setWallClock(utc({2024, 3, 10, 14, 59, 0}));
  world.loop.perform([&] { world.core().chkRetentionForDay(); });
  world.loop.setWallClock(utc({2024, 3, 10, 15, 1, 0}));
  world.loop.perform([&] { world.core().chkRetentionForDay(); });
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().size(), 2U);
}

TEST_F(Session, WithoutANewDayTheRetentionCheckOnlyFlushes) {
  world.userDefaults().setFendoUserInfo_last_app_launched_date(at(0));
  world.store.clearJournal();
  world.core().chkRetentionForDay();
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("synchronize"));
}

}  // namespace
}  // namespace morvik
