// Sending switched off and on, and flushes, from the app's side in virtual time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/sending/flushes.h"
#include "services/endpoints.h"
#include "simulation/test_device.h"

namespace morvik::simulation {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace fakes = ::morvik::testing;

TestDeviceOptions withoutSending() {
  TestDeviceOptions options;
  options.app.sending = false;
  return options;
}

size_t batches(TestDevice& device) {
  return device.network().requests(services::kTrackingPath).size();
}

/// A device with the install attributed and a session open.
class AttributedDevice : public TestDevice {
 public:
  explicit AttributedDevice(TestDeviceOptions options = {}) : TestDevice(std::move(options)) { open(); }
};

// ------------------------------------------------------------------------------------------------------------- sending

TEST(Sending, OffFromTheStartRecordsEverythingAndOnDeliversIt) {
  TestDevice device(withoutSending());
  device.open();
  for (int event = 0; event < 12; ++event)
    device.kit().addActivity("shop", "look");
  device.kit().setAge(33);
  device.leave();
  device.advance(hours(48));
  device.open();
  device.kit().addActivity("shop", "purchase");
  device.settle();
  EXPECT_THAT(device.network().requests(), IsEmpty());
  EXPECT_EQ(device.waiting("shop", "look"), 12u);
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(device.delivered("shop", "look"), 12u);
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
  EXPECT_EQ(device.service().installs(), 1u);
  EXPECT_THAT(device.network().requests(services::kSetDemographicPath), SizeIs(1));
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST(Sending, OffIsNotKeptForTheNextProcess) {
  AttributedDevice device;
  device.kit().setSendingEnabled(false);
  device.kit().addActivity("shop", "purchase");
  device.settle();
  device.restart();
  device.open();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST(Sending, OffIsAtOnceForCallsThatFollow) {
  AttributedDevice device;
  const size_t before = device.network().requests().size();
  device.perform([&device] {
    device.kit().setSendingEnabled(false);
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().applicationDidEnterBackground();
    device.kit().applicationDidBecomeActive();
  });
  device.advance(minutes(5));
  EXPECT_THAT(device.network().requests(), SizeIs(before));
}

TEST(Sending, OffEndsABatchThatTheSameTurnHasBegunAndOnMakesItAgain) {
  AttributedDevice device;
  device.advance(minutes(2));
  const size_t before = batches(device);
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  device.advance(hours(5));
  EXPECT_EQ(batches(device), before);
  EXPECT_EQ(device.instance().pending().requests, 0u);
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
  device.kit().addActivity("shop", "later");
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(batches(device), before + 1);
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
  EXPECT_EQ(device.delivered("shop", "later"), 1u) << "in the same batch";
}

TEST(Sending, OnAgainDeliversWhatWasAddedToABatchThatHadNotLeft) {
  AttributedDevice device;
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().setAge(33);
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  Impression impression;
  impression.space_key = "banner";
  device.kit().addImpression(impression);
  device.kit().setAge(34);
  device.settle();
  device.kit().setSendingEnabled(true);
  device.settle();
  const Ledger ledger = device.kit().ledger();
  EXPECT_EQ(ledger.of("impressions").delivered, 1u);
  EXPECT_EQ(ledger.of("demographics").stored, 0u);
  EXPECT_EQ(ledger.of("impressions").givenUp(), 0u);
  EXPECT_TRUE(ledger.isSound());
}

TEST(Sending, ASessionThatStartsWhileItIsOffFreesNoSecondBatch) {
  AttributedDevice device;
  const size_t before = batches(device);
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  device.leave();
  device.advance(hours(1));
  device.open();
  EXPECT_EQ(batches(device), before);
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(batches(device), before + 1);
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

/// A device with a batch under way that is answered after four seconds.
class BehindABatch : public ::testing::Test {
 protected:
  BehindABatch() {
    device.advance(minutes(2));
    device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
    device.perform([this] {
      device.kit().addActivity("shop", "first");
      device.kit().pushTracking();
    });
  }

  /// Call it in a turn: has a batch built with one more event.
  void buildAnother() {
    device.kit().addActivity("shop", "second");
    device.kit().applicationDidBecomeActive();  // which frees the slot
    device.kit().pushTracking();
  }
  /// The answer to the first batch has arrived, and did not remove what the second one carried.
  void expectItWaits() {
    device.advance(seconds(30));
    EXPECT_EQ(device.waiting("shop", "second"), 1u);
    EXPECT_TRUE(device.kit().ledger().isSound());
  }
  void expectOnAgainDeliversIt() {
    device.kit().setSendingEnabled(true);
    device.settle();
    EXPECT_EQ(device.delivered("shop", "second"), 1u);
    EXPECT_TRUE(device.kit().ledger().isSound());
  }

  AttributedDevice device;
};

TEST_F(BehindABatch, OffLeavesWhatAnotherThatNeverLeftCarried) {
  device.perform([this] {
    buildAnother();
    device.kit().setSendingEnabled(false);
  });
  expectItWaits();
  expectOnAgainDeliversIt();
}

TEST_F(BehindABatch, AWishLeavesWhatAnotherThatNeverLeftCarried) {
  device.perform([this] {
    buildAnother();
    device.kit().gdprForgetMe(true);
  });
  expectItWaits();
}

TEST_F(BehindABatch, OffLeavesWhatAnotherThatNeverLeftCarriedWhereTheAnswerComesFirst) {
  // It is in the main queue before the kit knows that the second batch never leaves.
  device.instance().mainQueue().after(4, [this] {
    buildAnother();
    device.kit().setSendingEnabled(false);
  });
  expectItWaits();
  expectOnAgainDeliversIt();
}

TEST_F(BehindABatch, OnAgainPushesNothingOnceTheSessionHasEnded) {
  device.kit().setSendingEnabled(false);
  device.settle();
  device.kit().setSendingEnabled(true);
  device.settle();
  const size_t before = batches(device);
  device.leave();
  device.advance(seconds(30));
  EXPECT_EQ(batches(device), before);
}

TEST(Sending, OnAgainLeavesTheEndOfAKeptSessionOutThatABatchWhichNeverLeftLeftOut) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.leave();
  const uint64_t ends = device.delivered(services::kFendoActivityGroupSession, "end");
  ASSERT_EQ(device.waiting(services::kFendoActivityGroupSession, "end"), 1u);
  device.kit().addActivity("shop", "purchase");
  device.perform([&device] {
    device.kit().applicationDidBecomeActive();
    device.kit().setSendingEnabled(false);
  });
  device.settle();
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
  EXPECT_EQ(device.delivered(services::kFendoActivityGroupSession, "end"), ends);
}

TEST(Sending, KeepsAHeldClickThatFailsAfterItsSessionHasEnded) {
  AttributedDevice device;
  device.network().on(services::kReEngagementConversionPath).then(fakes::Answer::body(503, ""));
  device.perform([&device] {
    device.kit().passOpenURL("https://shop.example/?ck=12&mrvk_eng=1&sn=3");
    device.kit().setSendingEnabled(false);
  });
  device.leave();
  device.advance(hours(1));
  EXPECT_THAT(device.network().requests(services::kReEngagementConversionPath), IsEmpty());
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_THAT(device.network().requests(services::kReEngagementConversionPath), SizeIs(1));
  EXPECT_EQ(device.kit().ledger().of("re-engagement clicks").stored, 1u);
  device.open();
  device.leave();
  device.settle();
  const Ledger ledger = device.kit().ledger();
  EXPECT_EQ(ledger.of("re-engagement clicks").delivered, 1u);
  EXPECT_TRUE(ledger.isSound());
}

TEST(Sending, AsksACommerceModuleNotWhenItIsOnAgainButWithTheEndOfTheSession) {
  TestDeviceOptions options = withoutSending();
  int asked = 0;
  options.app.modules["Fendo"].saveCommerceEventAndSend = [&asked] { ++asked; };
  AttributedDevice device(options);
  device.perform([&device] { device.instance().properties().setCommerceExpansionInfos(kit::Array{1}); });
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(asked, 0);
  device.leave();
  device.settle();
  EXPECT_EQ(asked, 1);
}

TEST(Sending, OnAgainAttributesAnInstallWhileAThirdPartyConversionWaits) {
  TestDevice device;
  device.network().on(services::kThirdPartyConversionPath).always(fakes::Answer::body(503, "").after(4));
  device.kit().applicationDidBecomeActive();
  device.perform([&device] {
    device.kit().thirdPartyConversion();
    device.kit().setSendingEnabled(false);
  });
  device.settle();
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(device.service().installs(), 1u);
}

TEST(Sending, TellsOfABatchThatLeavesAndNotOfOneThatNeverDid) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.kit().setLogLevel(4);
  const auto sent = [&device] {
    const auto lines = device.log().messages();
    return std::count_if(lines.begin(), lines.end(),
                         [](const std::string& line) { return line.find("activities was sent") != std::string::npos; });
  };
  const auto before = sent();
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  device.settle();
  EXPECT_EQ(sent(), before);
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(sent(), before + 1);
}

TEST(Sending, OffLetsARequestUnderWayComeToItsEnd) {
  AttributedDevice device;
  const auto answer = fakes::Answer::json(kit::Dictionary{{"Result", true}});
  device.network().on(services::kTrackingPath).then(answer.after(4));
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
  });
  device.kit().setSendingEnabled(false);
  device.advance(seconds(5));
  EXPECT_EQ(device.waiting("shop", "purchase"), 0u);
}

TEST(Sending, OffLetsAnErasureThroughPastRequestsThatWait) {
  AttributedDevice device;
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
    device.kit().gdprForgetMe(true);
  });
  device.settle();
  EXPECT_THAT(device.network().requests(services::kGdprReqUrlPath), SizeIs(1));
  EXPECT_EQ(device.delivered("shop", "purchase"), 0u);
}

TEST(Sending, OnAgainSendsNothingThatWaitedOfAUserWhoAskedToBeForgottenMeanwhile) {
  AttributedDevice device;
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  device.kit().gdprForgetMe(true);
  device.settle();
  const size_t before = device.network().requests().size();
  device.kit().setSendingEnabled(true);
  device.advance(hours(1));
  EXPECT_THAT(device.network().requests(), SizeIs(before));
  EXPECT_EQ(device.instance().pending().requests, 0u) << "it was refused, not left behind";
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
}

TEST(Sending, OffAndOnInOneTurnLosesNothing) {
  AttributedDevice device;
  device.perform([&device] {
    device.kit().setSendingEnabled(false);
    device.kit().addActivity("shop", "purchase");
    device.kit().setSendingEnabled(true);
    device.kit().setSendingEnabled(true);
  });
  device.settle();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST(Sending, OffAskedForWhileItResumesHolds) {
  AttributedDevice device;
  device.kit().setSendingEnabled(false);
  device.kit().addActivity("shop", "purchase");
  device.settle();
  const size_t before = device.network().requests().size();
  device.perform([&device] {
    device.kit().setSendingEnabled(true);
    device.kit().setSendingEnabled(false);
  });
  device.advance(hours(1));
  EXPECT_THAT(device.network().requests(), SizeIs(before));
}

TEST(Sending, OnByDefaultAndUnchangedNothingIsDoneTwice) {
  AttributedDevice device;
  const size_t before = device.network().requests().size();
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_THAT(device.network().requests(), SizeIs(before));
}

TEST(Sending, OffLetsAWishAndItsWithdrawalThroughInTheirOrder) {
  AttributedDevice device;
  device.kit().addActivity("shop", "look");
  device.network().clearRequests();
  device.kit().setSendingEnabled(false);
  EXPECT_EQ(device.kit().gdprForgetMe(true), Recorded::kKept);
  EXPECT_EQ(device.kit().gdprForgetMe(false), Recorded::kKept);
  device.settle();
  const auto sent = device.network().requests();
  ASSERT_THAT(sent, SizeIs(2));
  for (const kit::Request& request : sent)
    EXPECT_THAT(request.url, HasSubstr(services::kGdprReqUrlPath));
  EXPECT_TRUE(device.kit().isGdprForgetMe()) << "an accepted withdrawal also marks the user as forgotten";
  device.kit().setSendingEnabled(true);
  device.leave();
  device.restart();
  device.open();
  EXPECT_THAT(device.network().requests(), SizeIs(2));
}

TEST(Sending, OffAWishThatWasWithdrawnBeforeTheServiceKnewLeavesNothingForgotten) {
  AttributedDevice device;
  device.kit().setSendingEnabled(false);
  device.goOffline();
  EXPECT_EQ(device.kit().gdprForgetMe(true), Recorded::kKept);
  device.settle();
  EXPECT_EQ(device.kit().addActivity("shop", "look"), Recorded::kRefusedForgotten);
  EXPECT_EQ(device.kit().gdprForgetMe(false), Recorded::kKept);
  device.settle();
  EXPECT_FALSE(device.kit().isGdprForgetMe());
  EXPECT_EQ(device.kit().addActivity("shop", "purchase"), Recorded::kKept);
  device.goOnline();
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
  EXPECT_EQ(device.delivered("shop", "look"), 0u);
}

TEST(Sending, OffLetsWhatIsHandedOverWaitAndKeepsItForTheNextProcess) {
  AttributedDevice device;
  const auto arrived = [&device](const char* path) { return device.network().requests(path).size(); };
  device.kit().setSendingEnabled(false);
  device.kit().passOpenURL("https://shop.example/?ck=12&mrvk_eng=1&sn=3");
  device.kit().passOpenURL("https://shop.example/?ck=13&mrvk_eng=1&sn=3");
  device.kit().setReferralUrlForFacebook("https://shop.example/?ck=77");
  device.kit().thirdPartyConversion();
  device.advance(hours(2));
  device.leave();
  EXPECT_EQ(arrived(services::kReEngagementConversionPath), 0u);
  EXPECT_EQ(arrived(services::kThirdPartyConversionPath), 0u);
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(arrived(services::kReEngagementConversionPath), 2u) << "they need no session";
  EXPECT_EQ(arrived(services::kThirdPartyConversionPath), 2u);
  device.kit().setSendingEnabled(false);
  device.kit().passOpenURL("https://shop.example/?ck=14&mrvk_eng=1&sn=3");
  device.settle();
  device.restart();
  device.settle();
  EXPECT_EQ(arrived(services::kReEngagementConversionPath), 3u);
}

// ------------------------------------------------------------------------------------------------------------- flushes

class Flushing : public ::testing::Test {
 protected:
  /// Records the result, and when it came, in seconds since the call.
  void flush(TestDevice& device, std::chrono::milliseconds timeout = seconds(30)) {
    const double begun = device.machine().loop.monotonicSeconds();
    device.kit().flush(
        [this, &device, begun](const FlushResult& result) {
          results.push_back(result);
          took_seconds.push_back(device.machine().loop.monotonicSeconds() - begun);
        },
        timeout);
    device.settle();
  }
  FlushReason reason() const { return results.size() == 1 ? results[0].reason : FlushReason::kInsideACallback; }

  std::vector<FlushResult> results;
  std::vector<double> took_seconds;
};

TEST_F(Flushing, TellsThatAllIsDelivered) {
  AttributedDevice device;
  device.kit().addActivity("shop", "purchase");
  flush(device);
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(results[0].waiting, 0u);
  EXPECT_EQ(results[0].reason, FlushReason::kDelivered);
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST_F(Flushing, WithNothingRecordedAsksForNothing) {
  AttributedDevice device;
  device.leave();
  device.open();
  device.advance(minutes(1));
  const size_t before = batches(device);
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(batches(device), before);
}

TEST_F(Flushing, WaitsForABatchUnderWayAndThenPushesTheRest) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
  device.perform([&device] {
    device.kit().addActivity("shop", "first");
    device.kit().pushTracking();
  });
  const size_t before = batches(device);
  device.kit().addActivity("shop", "second");
  flush(device);
  EXPECT_EQ(batches(device), before) << "one at a time";
  EXPECT_THAT(results, IsEmpty());
  device.advance(seconds(5));
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(batches(device), before + 1);
  EXPECT_EQ(device.delivered("shop", "second"), 1u);
}

TEST_F(Flushing, TriesItselfWhenTheBatchBeforeItFailed) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::body(503, "").after(4));
  device.perform([&device] {
    device.kit().addActivity("shop", "first");
    device.kit().pushTracking();
  });
  device.kit().addActivity("shop", "second");
  flush(device);
  device.advance(seconds(5));
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(device.delivered("shop", "first"), 1u);
  EXPECT_EQ(device.delivered("shop", "second"), 1u);
}

TEST_F(Flushing, BehindABatchThatIsHeldTellsThatSendingIsOff) {
  AttributedDevice device;
  device.perform([this, &device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
    device.kit().setSendingEnabled(false);
  });
  device.advance(seconds(1));
  EXPECT_EQ(reason(), FlushReason::kSendingOff);
}

TEST_F(Flushing, SeveralAtOnceShareABatchAndAreToldOnceEach) {
  AttributedDevice device;
  device.kit().addActivity("shop", "purchase");
  const size_t before = batches(device);
  for (int call = 0; call < 5; ++call)
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
  device.advance(minutes(5));
  ASSERT_THAT(results, SizeIs(5));
  for (const FlushResult& result : results)
    EXPECT_TRUE(result.is_delivered);
  EXPECT_EQ(batches(device), before + 1);
}

TEST_F(Flushing, CountsOnlyWhatWasRecordedBeforeIt) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::silence());
  device.perform([&device] {
    device.kit().addActivity("shop", "before");
    device.kit().addActivity("shop", "before");
  });
  device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(5));
  device.perform([&device] { device.kit().addActivity("shop", "after"); });
  device.advance(seconds(6));
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_FALSE(results[0].is_delivered);
  EXPECT_EQ(results[0].waiting, 2u);
  EXPECT_EQ(results[0].reason, FlushReason::kTimeout);
}

TEST_F(Flushing, WaitsForAnAttributionThatIsUnderWay) {
  TestDevice device;
  device.network().on(services::kConversionPath).then(fakes::Answer::error("one moment").after(3));
  device.open();
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_THAT(results, IsEmpty());
  device.advance(seconds(4));
  EXPECT_EQ(reason(), FlushReason::kNotAttributed) << "it failed";
  device.advance(seconds(10));
  ASSERT_EQ(device.service().installs(), 1u) << "retried";
  results.clear();
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
}

TEST_F(Flushing, TellsOfAFreshInstallWhoseFirstSessionJustBegan) {
  TestDevice device;
  device.kit().applicationDidBecomeActive();
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST_F(Flushing, TellsThatTheInstallIsNotAttributedAndLeavesTheSlotFree) {
  TestDevice device;
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kNotAttributed);
  EXPECT_EQ(results[0].waiting, 1u);
  device.open();
  device.settle();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST_F(Flushing, TellsThatThereIsNoNetwork) {
  AttributedDevice device;
  device.goOffline();
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kNoNetwork);
  EXPECT_EQ(results[0].waiting, 1u);
}

TEST_F(Flushing, TellsThatTheServiceDidNotAnswerOrDidNotAccept) {
  AttributedDevice device;
  device.kit().addActivity("shop", "purchase");
  device.network().on(services::kTrackingPath).then(fakes::Answer::error("connection refused"));
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kNoAnswer);
  results.clear();
  device.network().on(services::kTrackingPath).then(fakes::Answer::body(503, ""));
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kRefused);
  results.clear();
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", false}}));
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kRefused);
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
}

TEST_F(Flushing, TellsThatSendingIsOff) {
  AttributedDevice device;
  device.kit().setSendingEnabled(false);
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kSendingOff);
}

TEST_F(Flushing, TellsThatTheUserAskedToBeForgotten) {
  AttributedDevice device;
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().gdprForgetMe(true);
  });
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kForgotten);
}

TEST_F(Flushing, TellsThatThereIsNoTrackingKey) {
  TestDeviceOptions options;
  options.keys.tracking_key = "";
  AttributedDevice device(options);
  device.kit().addActivity("shop", "purchase");
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kNoTrackingKey);
}

TEST_F(Flushing, TellsThatAnEarlierAttemptHoldsTheSlotUntilTheNextSession) {
  TestDevice device;
  device.perform([&device] {
    device.instance().properties().setFendoUserInfo_fendoUserNo(5);
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.instance().properties().setFendoUserInfo_referralKey(7);
  });
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kSlotHeld);
  device.open();
  results.clear();
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
}

TEST_F(Flushing, TellsThatImpressionsAloneWaitForTheNextActivity) {
  AttributedDevice device;
  const auto record = [&device] {
    const auto properties = device.instance().properties();
    const kit::Value shown = kit::Dictionary{{"campaignKey", 7}, {"createdAt", device.machine().loop.now()}};
    properties.inOneStep([&] {
      kit::MutableArray impressions(properties.fendoImpressionInfos());
      impressions.append(shown);
      properties.setFendoImpressionInfos(kit::Value(std::move(impressions)));
    });
  };
  device.perform(record);
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kNoActivity);
  EXPECT_EQ(results[0].waiting, 1u);
  device.kit().addActivity("shop", "purchase");
  results.clear();
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
}

TEST_F(Flushing, TellsOfImpressionsThatWentWithABatchWhichDidNotCarryThem) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
  device.perform([&device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().addImpression({.campaign_key = 1});
  });
  flush(device);
  device.perform([&device] { device.kit().addImpression({.campaign_key = 2}); });
  flush(device);
  device.advance(seconds(5));
  ASSERT_THAT(results, SizeIs(2));
  EXPECT_TRUE(results[0].is_delivered) << "one batch carried everything";
  EXPECT_FALSE(results[1].is_delivered);
  EXPECT_EQ(results[1].reason, FlushReason::kGivenUp);
  EXPECT_EQ(results[1].given_up, 1u);
  EXPECT_EQ(results[1].waiting, 0u);
  EXPECT_EQ(device.kit().ledger().accounts[1].givenUp(), 1u);
}

/// A device whose first batch is answered after four seconds, and the second one, which took its place, after eight.
class FlushingBehindABatch : public Flushing {
 protected:
  void buildBoth(fakes::Answer second) {
    device.advance(minutes(2));
    device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
    device.perform([this] {
      device.kit().addActivity("shop", "first");
      device.kit().pushTracking();
    });
    device.network().on(services::kTrackingPath).then(std::move(second).after(8));
    device.perform([this] {
      device.kit().addActivity("shop", "second");
      device.kit().addImpression({.campaign_key = 1});
      device.kit().applicationDidBecomeActive();  // which frees the slot
      device.kit().pushTracking();
    });
    flush(device);
  }

  AttributedDevice device;
};

TEST_F(FlushingBehindABatch, WaitsForTheAnswerToItsOwnWhereTheOneBeforeTookItOutOfTheStore) {
  buildBoth(fakes::Answer::json(kit::Dictionary{{"Result", true}}));
  device.advance(seconds(5));
  ASSERT_EQ(device.waiting("shop", "second"), 0u) << "the first answer removed it";
  EXPECT_THAT(results, IsEmpty()) << "it is on its way";
  device.advance(seconds(5));
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(device.kit().ledger().of("activities").under_way, 0u);
}

TEST_F(FlushingBehindABatch, TellsOfWhatTheAnswerBeforeTookOutOfTheStoreAndTheServiceDidNotAcceptThen) {
  buildBoth(fakes::Answer::json(kit::Dictionary{{"Result", false}}));
  device.advance(seconds(10));
  ASSERT_EQ(device.delivered("shop", "second"), 0u);
  EXPECT_EQ(reason(), FlushReason::kGivenUp);
  EXPECT_FALSE(results[0].is_delivered);
  const Ledger ledger = device.kit().ledger();
  EXPECT_EQ(results[0].given_up, ledger.of("activities").givenUp() + ledger.of("impressions").givenUp());
  EXPECT_GE(results[0].given_up, 2u);
  EXPECT_TRUE(ledger.isSound());
}

TEST_F(FlushingBehindABatch, CountsWhatIsInABatchAloneAmongWhatWaits) {
  buildBoth(fakes::Answer::json(kit::Dictionary{{"Result", true}}));
  device.advance(seconds(5));
  FlushResult late;
  device.kit().flush([&late](const FlushResult& result) { late = result; }, seconds(1));
  device.advance(seconds(2));
  EXPECT_EQ(late.reason, FlushReason::kTimeout);
  const Ledger ledger = device.kit().ledger();
  ASSERT_GE(ledger.of("activities").under_way, 1u);
  EXPECT_EQ(late.waiting,
            ledger.of("activities").stored + ledger.of("activities").under_way + ledger.of("impressions").under_way);
}

TEST_F(Flushing, CallsTheEndOfASessionThatWentOnDelivered) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.leave();
  ASSERT_EQ(device.waiting(services::kFendoActivityGroupSession, "end"), 1u);
  device.kit().addActivity("shop", "purchase");
  device.kit().applicationDidBecomeActive();
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(device.kit().ledger().of("activities").givenUp(), 1u);
}

TEST_F(Flushing, GoesOnWhereAWishThatStoppedItsBatchWasTakenBack) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.network().on(services::kGdprReqUrlPath).always(fakes::Answer::body(503, ""));
  const size_t before = batches(device);
  device.perform([this, &device] {
    device.kit().addActivity("shop", "purchase");
    device.kit().pushTracking();
    device.kit().gdprForgetMe(true);
    device.kit().perform([&device] { device.kit().gdprForgetMe(false); });
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
  });
  device.settle();
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(batches(device), before + 1) << "of those that left";
}

TEST_F(Flushing, PushesAgainWhatAnAcceptedBatchCouldNotTrim) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
  device.kit().addActivity("shop", "purchase");
  const size_t before = batches(device);
  flush(device);
  // As at a session start while a batch is under way.
  device.perform([&device] { device.instance().properties().setFendoActivityInfosSentEventKeys(kit::Array()); });
  device.advance(seconds(5));
  EXPECT_EQ(reason(), FlushReason::kDelivered);
  EXPECT_EQ(batches(device), before + 2);
}

TEST_F(Flushing, GivesUpPushingWhatNoAnswerRemoves) {
  AttributedDevice device;
  device.advance(minutes(2));
  device.perform([&device] {
    const auto properties = device.instance().properties();
    const kit::Value without_id = kit::Dictionary{
        {"activityGroupName", "shop"}, {"activityName", "x"}, {"activityCreatedAt", device.machine().loop.now()}};
    properties.inOneStep([&] { properties.append(services::property::fendoActivityInfos, without_id); });
  });
  const size_t before = batches(device);
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kStaysStored);
  EXPECT_EQ(results[0].waiting, 1u);
  EXPECT_EQ(batches(device), before + runtime::kMaxPushesOfAFlush);
}

TEST_F(Flushing, AreRefusedAtOnceHoweverManyCallsWait) {
  AttributedDevice device;
  device.kit().addActivity("shop", "purchase");
  for (size_t call = 0; call < kMaxFlushes; ++call)
    device.kit().flush({}, seconds(5));
  for (size_t call = 0; call < runtime::kMaxPostedCalls; ++call)
    device.kit().perform([] {});
  device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(5));
  EXPECT_EQ(reason(), FlushReason::kTooMany);
  EXPECT_EQ(results[0].waiting, 1u);
}

TEST_F(Flushing, AreToldAtOnceOfAStopThatWasBefore) {
  AttributedDevice device;
  device.goOffline();
  device.kit().addActivity("shop", "purchase");
  device.kit().stop();
  device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(5));
  EXPECT_EQ(reason(), FlushReason::kStopped);
  EXPECT_EQ(results[0].waiting, 1u);
}

/// One walk over the list serves them all; one walk for each would take hours.
TEST_F(Flushing, AsManyAsMayWaitShareTheWorkOfALongList) {
  constexpr size_t kEvents = 5000;
  AttributedDevice device;
  device.advance(minutes(2));
  device.goOffline();
  device.perform([&device] {
    for (size_t event = 0; event < kEvents; ++event)
      device.kit().addActivity("shop", "look");
  });
  device.goOnline();
  for (size_t call = 0; call < kMaxFlushes; ++call) {
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, minutes(30));
    device.kit().addActivity("shop", "between");
  }
  device.advance(minutes(5));
  ASSERT_THAT(results, SizeIs(kMaxFlushes));
  for (const FlushResult& result : results)
    EXPECT_TRUE(result.is_delivered) << toText(result.reason);
  EXPECT_EQ(device.delivered("shop", "look"), kEvents);
}

TEST_F(Flushing, UsesUpNoSessionEndOfAFailedClick) {
  AttributedDevice device;
  device.network().on(services::kReEngagementConversionPath).always(fakes::Answer::body(503, ""));
  device.kit().passOpenURL("https://shop.example/?ck=12&mrvk_eng=1&sn=3");
  device.settle();
  const auto counts = [&device] { return device.instance().properties().reEngagementConversionFailedCnt(); };
  ASSERT_EQ(counts().size(), 1u);
  for (int call = 0; call < 8; ++call)
    flush(device);
  EXPECT_EQ(counts().array()[0]["failure_cnt"], kit::Value(1));
  EXPECT_THAT(device.network().requests(services::kReEngagementConversionPath), SizeIs(1));
}

TEST_F(Flushing, PastTheirNumberAreRefusedWithALine) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).always(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  for (size_t call = 0; call < kMaxFlushes + 2; ++call)
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(5));
  device.settle();
  ASSERT_THAT(results, SizeIs(2));
  EXPECT_EQ(results[0].reason, FlushReason::kTooMany);
  EXPECT_EQ(results[0].waiting, 1u);
  device.advance(seconds(6));
  EXPECT_THAT(results, SizeIs(kMaxFlushes + 2));
  results.clear();
  device.network().on(services::kTrackingPath).clear();
  device.advance(minutes(2));
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
}

TEST_F(Flushing, PastTheirNumberThatAskAgainFromWithinTheAnswerAreAnsweredInALaterTurn) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).always(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  for (size_t call = 0; call < kMaxFlushes; ++call)
    device.kit().flush([](const FlushResult&) {}, seconds(5));
  int told = 0;
  const std::function<void(const FlushResult&)> again = [&](const FlushResult& result) {
    EXPECT_EQ(result.reason, FlushReason::kTooMany);
    if (++told < 3)
      device.kit().flush(again, seconds(5));
  };
  device.kit().flush(again, seconds(5));
  EXPECT_EQ(told, 1);
  device.settle();
  EXPECT_EQ(told, 3);
}

TEST_F(Flushing, ThatAskAgainFromWithinTheAnswerOfAStopAreNotAnswered) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).always(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  int told = 0;
  const std::function<void(const FlushResult&)> again = [&](const FlushResult& result) {
    EXPECT_EQ(result.reason, FlushReason::kStopped);
    ++told;
    device.kit().flush(again, seconds(30));
  };
  device.kit().flush(again, seconds(30));
  device.kit().stop();
  EXPECT_EQ(told, 1);
}

TEST_F(Flushing, AreToldThatTheKitIsStoppedBeforeStopReturns) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).always(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  flush(device);
  ASSERT_THAT(results, IsEmpty());
  device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
  ASSERT_THAT(results, IsEmpty());
  device.kit().stop();
  ASSERT_THAT(results, SizeIs(2));
  EXPECT_EQ(results[0].reason, FlushReason::kStopped);
  EXPECT_EQ(results[1].reason, FlushReason::kStopped);
  EXPECT_EQ(results[1].waiting, 1u);
}

TEST_F(Flushing, AreNotToldOfADeath) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).always(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  flush(device);
  device.kill();
  EXPECT_THAT(results, IsEmpty());
}

TEST_F(Flushing, OutliveWhatTheirCallbackThrows) {
  AttributedDevice device;
  device.kit().addActivity("shop", "purchase");
  device.kit().flush([](const FlushResult&) { throw 7; }, seconds(1));
  flush(device);
  EXPECT_EQ(reason(), FlushReason::kDelivered);
}

TEST(WaitUntilDelivered, LetsVirtualTimePass) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
  device.kit().addActivity("shop", "purchase");
  const double begun = device.machine().loop.monotonicSeconds();
  EXPECT_TRUE(device.kit().waitUntilDelivered(seconds(30)).is_delivered);
  EXPECT_DOUBLE_EQ(device.machine().loop.monotonicSeconds(), begun + 4);
  device.network().on(services::kTrackingPath).then(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  const FlushResult late = device.kit().waitUntilDelivered(seconds(5));
  EXPECT_EQ(late.reason, FlushReason::kTimeout);
  EXPECT_DOUBLE_EQ(device.machine().loop.monotonicSeconds(), begun + 9);
}

TEST(WaitUntilDelivered, InsideACallbackReturnsAtOnceWithALine) {
  AttributedDevice device;
  FlushResult result;
  device.perform([&] {
    device.kit().addActivity("shop", "purchase");
    result = device.kit().waitUntilDelivered(seconds(30));
  });
  EXPECT_EQ(result.reason, FlushReason::kInsideACallback);
  EXPECT_EQ(result.waiting, 1u);
  EXPECT_THAT(device.log().messages(), ::testing::Contains(HasSubstr("a callback cannot wait for a delivery")));
}

TEST(WaitUntilDelivered, AfterAStopSaysSo) {
  AttributedDevice device;
  device.goOffline();
  device.kit().addActivity("shop", "purchase");
  device.settle();
  device.kit().stop();
  EXPECT_EQ(device.kit().waitUntilDelivered(seconds(30)).reason, FlushReason::kStopped);
}

TEST(Stopping, WithTimeToDrainDeliversFirst) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(4));
  device.kit().addActivity("shop", "purchase");
  device.kit().stop(seconds(10));
  EXPECT_EQ(device.waiting("shop", "purchase"), 0u);
}

TEST(Stopping, WaitsNoLongerThanItMay) {
  AttributedDevice device;
  device.network().on(services::kTrackingPath).then(fakes::Answer::silence());
  device.kit().addActivity("shop", "purchase");
  const double begun = device.machine().loop.monotonicSeconds();
  device.kit().stop(seconds(10));
  EXPECT_DOUBLE_EQ(device.machine().loop.monotonicSeconds(), begun + 10);
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
}

TEST(FlushReasons, EachHasItsText) {
  std::vector<std::string_view> texts;
  for (int reason = 0; reason <= static_cast<int>(FlushReason::kOutOfMemory); ++reason) {
    EXPECT_THAT(texts, Not(::testing::Contains(toText(static_cast<FlushReason>(reason)))));
    texts.push_back(toText(static_cast<FlushReason>(reason)));
  }
  EXPECT_THAT(texts, Not(::testing::Contains("unknown")));
}

}  // namespace
}  // namespace morvik::simulation
