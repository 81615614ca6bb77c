// Sending switched off and on: what still happens, what returns at the gate, and what the core catches up on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/endpoints.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Answer;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using testing::TestWorld;
using testing::WorldOptions;

/// The last parts of the URLs that were asked for, in order.
std::vector<std::string> asked(const TestWorld& world) {
  std::vector<std::string> paths;
  for (const kit::Request& request : world.requests()) {
    const size_t slash = request.url.find('/', std::string_view("https://").size());
    paths.push_back(request.url.substr(slash + 1));
  }
  return paths;
}

class Sending : public ::testing::Test {
 protected:
  explicit Sending(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {
    world.serviceAccepts();
    world.transport.setDefaultAnswer(Answer::json(Dictionary{{"Result", true}}));
  }

  void switchOff() { world.services().setIsSendingOff(true); }
  void switchOn() {
    world.loop.perform([this] {
      world.services().setIsSendingOff(false);
      world.core().sendingDidResume();
    });
  }
  std::vector<std::string> stored() {
    return testing::texts(world.userDefaults().fendoActivityInfos(), "activityName");
  }

  TestWorld world;
};

class SendingOfAFreshInstall : public Sending {
 protected:
  SendingOfAFreshInstall() : Sending(WorldOptions()) {}
};

constexpr const char* kClick = "https://shop.example/?ck=12&mrvk_eng=1&sn=3&cid=c1";

TEST_F(Sending, OffMakesNoRequestOfASessionAndRecordsIt) {
  switchOff();
  world.userDefaults().setFendoUserDemoInfo_age(33);
  world.userDefaults().setMorvikCoreUserInfo_Crash(Array{Value(Dictionary{{"a", 1}})});
  world.userDefaults().setCommerceExpansionInfos(Array{1});
  world.modules.add("Fendo");
  world.ad_client.conversion_details.answerEveryCall(testing::at(0), testing::at(1));
  world.becomeActive();
  for (int event = 0; event < 12; ++event)
    world.recordEvent("shop", "look");
  world.loop.perform([this] {
    world.core().chkAndSendDataWhenActivityCntMoreThenTen();
    world.core().pushTracking();
  });
  world.enterBackground();
  world.loop.advance(3600);
  EXPECT_THAT(asked(world), IsEmpty());
  EXPECT_EQ(world.ad_client.conversion_details.calls(), 0u);
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 0u);
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_THAT(stored(), SizeIs(15)) << "start, retention, twelve and end";
  EXPECT_EQ(stored().back(), "end");
  EXPECT_NE(world.userDefaults().MorvikCoreUserInfo_endSessoinDate(), std::nullopt);
}

TEST_F(Sending, OffTakesNeitherTheSlotNorNotesIdsNorCountsARetry) {
  switchOff();
  world.userDefaults().setReEngagementInfos(Array{Dictionary{{"conversion_key", 12}}});
  world.userDefaults().setReEngagementConversionFailedCnt(
      Array{Dictionary{{"conversion_key", 12}, {"failure_cnt", 1}}});
  world.becomeActive();
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_EQ(world.userDefaults().fendoActivityInfosSentEventKeys().size(), 0u);
  world.enterBackground();
  world.loop.advance(1);
  const Value counts = world.userDefaults().reEngagementConversionFailedCnt();
  EXPECT_EQ(counts.array()[0]["failure_cnt"], Value(1));
  EXPECT_EQ(world.core().failedGetReferralCnt(), 0);
}

TEST_F(Sending, OffLetsTheErasureThrough) {
  switchOff();
  world.loop.perform([this] { world.core().gdprForgetMe(true); });
  EXPECT_THAT(asked(world), ElementsAre(services::kGdprReqUrlPath));
  EXPECT_EQ(world.requests()[0].when_held, kit::WhenHeld::kPasses);
}

TEST_F(Sending, OrdinaryRequestsDoNotPassAHold) {
  world.becomeActive();
  ASSERT_THAT(world.requests(), Not(IsEmpty()));
  for (const kit::Request& request : world.requests())
    EXPECT_NE(request.when_held, kit::WhenHeld::kPasses) << request.url;
}

TEST_F(Sending, OffTheRequestOperationIsTheLastGate) {
  switchOff();
  bool was_answered = false;
  const auto start = [&] {
    return services::run(
        {world.ports().transport, world.ports().json, world.ports().services_lib},
        services::postRequest({}, services::Endpoint::kTracking, {}, services::AcceptEncoding::kUnset),
        [&was_answered](const Value&) { was_answered = true; },
        services::ErrorHandler(
            [&was_answered](const std::optional<kit::Response>&, const kit::Error&) { was_answered = true; }));
  };
  world.loop.perform([&] { EXPECT_FALSE(start()); });
  world.loop.advance(3600);
  EXPECT_FALSE(was_answered);
  EXPECT_THAT(asked(world), IsEmpty());
  world.services().setIsSendingOff(false);
  world.loop.perform([&] { EXPECT_TRUE(start()); });
  EXPECT_TRUE(was_answered);
}

TEST_F(Sending, OnAgainAsksForAndSendsWhatASessionStartDoes) {
  switchOff();
  world.userDefaults().setFendoUserDemoInfo_age(33);
  world.userDefaults().setMorvikCoreUserInfo_Crash(Array{Value(Dictionary{{"a", 1}})});
  world.ad_client.conversion_details.answerEveryCall(testing::at(0), testing::at(1));
  world.becomeActive();
  const auto recorded = stored();
  const auto launches = world.userDefaults().integerForKey(std::string(services::kMorvikNSUserDefaultsDomainName) +
                                                           "." + services::kAppLaunchCountSaveKey);
  const auto begun = world.core()._startSessoinDate();
  world.loop.advance(60);
  switchOn();
  EXPECT_THAT(asked(world),
              ElementsAre(std::string("test-app/") + services::kAppConfigFileName, services::kGetScheduleVer2Path,
                          services::kSetDemographicPath, services::kCrashReportPath, services::kTrackingPath,
                          services::kIADAttributionPath));
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 1u);
  EXPECT_EQ(testing::texts(world.payloads(services::kTrackingPath)[0]["activity_info"], "activity"), recorded);
  EXPECT_THAT(stored(), IsEmpty()) << "nothing was recorded for it";
  EXPECT_EQ(world.userDefaults().integerForKey(std::string(services::kMorvikNSUserDefaultsDomainName) + "." +
                                               services::kAppLaunchCountSaveKey),
            launches);
  EXPECT_EQ(world.core()._startSessoinDate(), begun);
}

TEST_F(Sending, OnAgainWithoutASessionWaitsForTheNext) {
  switchOff();
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(3600);
  switchOn();
  EXPECT_THAT(asked(world), IsEmpty());
  world.becomeActive();
  EXPECT_THAT(asked(world), Contains(services::kTrackingPath));
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(Sending, OnAgainForAForgottenUserAsksNobody) {
  switchOff();
  world.becomeActive();
  world.ad_client.conversion_details.answerEveryCall(std::nullopt, std::nullopt);
  world.services().setIsGDPRForgetMe(true);
  switchOn();
  EXPECT_THAT(asked(world), IsEmpty());
  EXPECT_EQ(world.ad_client.conversion_details.calls(), 0u);
}

TEST_F(Sending, OnAgainReleasesASlotThatNothingUnderWayHolds) {
  world.becomeActive();
  switchOff();
  world.core().set_isTrackingCalled(true);
  world.recordEvent("shop", "purchase");
  switchOn();
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(Sending, OnAgainLeavesABatchUnderWayItsIdsAndPushesBehindIt) {
  world.becomeActive();
  world.recordEvent("shop", "first");
  world.transport.on(services::kTrackingPath).then(Answer::json(Dictionary{{"Result", true}}).after(4));
  world.transport.on(services::kTrackingPath).then(Answer::error("cut off").after(4));
  world.loop.perform([this] { world.core().pushTracking(); });
  ASSERT_TRUE(world.core().isBatchUnderWay());
  switchOff();
  world.recordEvent("shop", "second");
  switchOn();
  EXPECT_THAT(world.requests(services::kTrackingPath), SizeIs(2)) << "the session start's and the first";
  world.loop.advance(5);
  EXPECT_THAT(stored(), ElementsAre("second")) << "the answer to the first trims the first alone";
  EXPECT_THAT(world.requests(services::kTrackingPath), SizeIs(3));
  world.loop.advance(5);
  EXPECT_THAT(stored(), ElementsAre("second")) << "its own batch was cut off";
}

TEST_F(Sending, OnAgainKeepsTheRuleOfAKeptSession) {
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(1);
  ASSERT_THAT(stored(), ElementsAre("end"));
  switchOff();
  world.becomeActive();
  world.recordEvent("shop", "purchase");
  world.transport.clearRequests();
  switchOn();
  EXPECT_THAT(testing::texts(world.payloads(services::kTrackingPath).at(0)["activity_info"], "activity"),
              ElementsAre("purchase"));
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(Sending, AUrlThatComesWhileItIsOffWaitsForOn) {
  world.becomeActive();
  switchOff();
  world.loop.perform([this] { world.core().passOpenURL(kit::Url(kClick)); });
  EXPECT_EQ(world.userDefaults().commerceConversionInfos().size(), 0u);
  EXPECT_THAT(world.requests(services::kReEngagementConversionPath), IsEmpty());
  switchOn();
  EXPECT_THAT(world.requests(services::kReEngagementConversionPath), SizeIs(1));
  EXPECT_THAT(world.requests(services::kCommerceConversionPath), SizeIs(1));
}

TEST_F(Sending, AStoredUrlWaitsThroughASessionStartThatIsOff) {
  world.userDefaults().setURL(kit::Url(kClick), services::kPassOpenUrlKey);
  switchOff();
  world.becomeActive();
  EXPECT_NE(world.userDefaults().URLForKey(services::kPassOpenUrlKey), std::nullopt);
  switchOn();
  EXPECT_EQ(world.userDefaults().URLForKey(services::kPassOpenUrlKey), std::nullopt);
  EXPECT_THAT(world.requests(services::kReEngagementConversionPath), SizeIs(1));
}

TEST_F(Sending, AnAnswerOfTheAdClientThatComesWhileItIsOffSendsNothing) {
  world.ad_client.conversion_details.letCallsWait();
  world.becomeActive();
  switchOff();
  world.ad_client.conversion_details.answer(testing::at(0), testing::at(1));
  world.loop.runUntilIdle();
  EXPECT_THAT(world.requests(services::kIADAttributionPath), IsEmpty());
}

TEST_F(SendingOfAFreshInstall, OffARetryOfTheConversionReturnsAtTheGateAndOnAsksAgain) {
  world.transport.on(services::kConversionPath).clear();
  world.transport.on(services::kConversionPath).then(Answer::body(503, ""));
  world.transport.on(services::kConversionPath)
      .always(TestWorld::conversionAnswer(Dictionary{{"user_no", 1001}, {"referralKey", 7}}));
  world.becomeActive();
  ASSERT_EQ(world.core().failedGetReferralCnt(), 1);
  switchOff();
  world.loop.advance(60);
  EXPECT_THAT(world.requests(services::kConversionPath), SizeIs(1));
  EXPECT_EQ(world.core().failedGetReferralCnt(), 1);
  switchOn();
  EXPECT_THAT(world.requests(services::kConversionPath), SizeIs(2));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 7);
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(SendingOfAFreshInstall, AConversionThatFailsWhileItIsOffPutsNoRetryOff) {
  world.transport.on(services::kConversionPath).clear();
  world.transport.on(services::kConversionPath).always(Answer::body(503, "").after(5));
  world.becomeActive();
  switchOff();
  world.loop.advance(5);
  EXPECT_EQ(world.core().failedGetReferralCnt(), 1) << "it did fail";
  world.services().setIsSendingOff(false);
  world.loop.advance(60);
  EXPECT_THAT(world.requests(services::kConversionPath), SizeIs(1));
}

TEST_F(SendingOfAFreshInstall, AttributionIsUnderWayUntilItIsAnswered) {
  world.transport.on(services::kConversionPath).clear();
  world.transport.on(services::kConversionPath).always(Answer::body(503, "").after(5));
  int ends = 0;
  world.core().setDeliveryObserver({.batchDidEnd = {}, .attributionDidEnd = [&ends] { ++ends; }});
  EXPECT_FALSE(world.core().isAttributionUnderWay());
  world.becomeActive();
  EXPECT_TRUE(world.core().isAttributionUnderWay());
  EXPECT_EQ(ends, 0);
  world.loop.advance(5);
  EXPECT_FALSE(world.core().isAttributionUnderWay());
  EXPECT_EQ(ends, 1);
}

}  // namespace
}  // namespace morvik
