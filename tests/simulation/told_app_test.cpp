// What the app is told about the kit's work, over a whole run: by its delegate, by status(), by the log at level 4.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/observe/observations.h"
#include "simulation/test_device.h"

namespace morvik::simulation {
namespace {

using kit::Dictionary;
using ::morvik::testing::Answer;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kTracking = "v1/tracking";
constexpr const char* kConversion = "v1/conversion";
constexpr const char* kReEngagement = "v1/reengagement-conversion";
constexpr const char* kErasure = "v1/erasure";

class ToldApp : public ::testing::Test {
 protected:
  ToldApp() {
    delegate_->didDeliver = [this](size_t activities) {
      delivered_ += activities;
      told_.push_back("delivered " + std::to_string(activities));
    };
    delegate_->didFailToDeliver = [this](const DeliveryFailure& failure) {
      told_.push_back("failed " + std::to_string(failure.http_status) + " " + failure.reason +
                      (failure.is_tried_again ? " again" : " never"));
    };
    delegate_->didRefuseEvent = [this](Recorded reason) { told_.emplace_back(toText(reason)); };
    delegate_->didAnswerErasure = [this](bool accepted) {
      told_.emplace_back(accepted ? "erasure accepted" : "erasure not accepted");
    };
  }

  TestDevice& device() {
    if (!device_) {
      options_.at_start = [this](MorvikCore& kit) { kit.setDelegate(delegate_); };
      device_ = std::make_unique<TestDevice>(options_);
    }
    return *device_;
  }
  std::vector<std::string> told() { return std::exchange(told_, {}); }
  uint64_t waiting(const std::string& kind) {
    for (const Status::Waiting& each : device().kit().status().waiting) {
      if (each.kind == kind)
        return each.count;
    }
    ADD_FAILURE() << "unknown kind " << kind;
    return 0;
  }
  std::vector<std::string> logLinesOfTheKit() {
    std::vector<std::string> lines;
    for (const std::string& message : device().log().messages()) {
      if (message.starts_with("Morvik host: "))
        lines.push_back(message.substr(13));
    }
    return lines;
  }

  TestDeviceOptions options_;
  std::shared_ptr<MorvikCoreDelegate> delegate_ = std::make_shared<MorvikCoreDelegate>();
  std::vector<std::string> told_;
  uint64_t delivered_ = 0;

 private:
  std::unique_ptr<TestDevice> device_;
};

// ------------------------------------------------------------------------------------------------------ the delegate

TEST_F(ToldApp, HearsOfEachBatchThatTheServiceAccepted) {
  device().open();
  EXPECT_THAT(told(), ElementsAre("delivered 2"));
  device().kit().addActivity("shop", "look");
  device().leave();
  EXPECT_THAT(told(), ElementsAre("delivered 1"));
}

TEST_F(ToldApp, HearsOfAsManyActivitiesAsTheLedgerCallsDelivered) {
  for (int session = 0; session < 3; ++session) {
    device().open();
    for (int event = 0; event < 13; ++event)
      device().kit().addActivity("shop", "look");
    device().leave();
    device().advance(seconds(session == 0 ? 1 : 600));  // the first session is continued, and its "end" is left out
  }
  EXPECT_GT(delivered_, 39U);
  EXPECT_EQ(delivered_, device().kit().ledger().of("activities").delivered);
}

TEST_F(ToldApp, FindsTheActivitiesGoneFromTheStoreWhenItHearsOfThem) {
  std::vector<uint64_t> waiting_then;
  delegate_->didDeliver = [&](size_t) { waiting_then.push_back(waiting("activities")); };
  device().open();
  EXPECT_THAT(waiting_then, ElementsAre(0));
}

TEST_F(ToldApp, HearsWhyABatchFailedAndThatItIsTriedAgain) {
  device().open();
  told();
  device().network().on(kTracking).then(Answer::body(503, "out of order"));
  device().kit().addActivity("shop", "look");
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 503 batch of activities: The server answered with status 503. again"));
  device().network().on(kTracking).then(Answer::json(Dictionary{{"Result", false}}));
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 200 batch of activities: The service answered, and did not accept. again"));
  device().network().on(kTracking).then(Answer::error("no route"));
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 0 batch of activities: no route again"));
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("delivered 1"));
}

TEST_F(ToldApp, HearsThatAConversionIsTriedAgainUntilTheInstallIsAttributed) {
  device().network().on(kConversion).times(2, Answer::body(500, ""));
  device().open();
  EXPECT_THAT(told(), ElementsAre("failed 500 conversion: The server answered with status 500. again"));
  device().advance(seconds(10));
  EXPECT_THAT(told(), ElementsAre("failed 500 conversion: The server answered with status 500. again"));
  device().advance(seconds(10));
  EXPECT_THAT(told(), ElementsAre("delivered 2")) << "attributed now";
}

TEST_F(ToldApp, HearsThatAThirdPartyConversionIsNeverTriedAgain) {
  device().open();
  told();
  device().network().on("v1/thirdparty-conversion").then(Answer::error("down"));
  device().kit().thirdPartyConversion();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 0 third party conversion: down never"));
}

TEST_F(ToldApp, HearsOfAClickWhetherItIsKeptForAnotherSessionEnd) {
  device().open();
  told();
  device().network().on(kReEngagement).always(Answer::error("down"));
  device().kit().passOpenURL("app://open?mrvk_eng=1&sn=1&ck=5");
  device().settle();
  const std::string again = "failed 0 re-engagement click: down again";
  EXPECT_THAT(told(), ElementsAre(again));
  for (int session_end = 1; session_end <= 5; ++session_end) {
    device().leave();
    EXPECT_THAT(told(), Contains(session_end < 5 ? again : "failed 0 re-engagement click: down never")) << session_end;
    device().advance(seconds(600));
    device().open();
    told();
  }
  device().leave();
  EXPECT_EQ(device().kit().ledger().of("re-engagement clicks").givenUp(), 1U);
}

TEST_F(ToldApp, HearsThatAClickIsLostWhichTheServiceAnsweredButDidNotAccept) {
  device().open();
  told();
  device().network().on(kReEngagement).then(Answer::json(Dictionary{{"Result", false}}));
  device().kit().passOpenURL("app://open?mrvk_eng=1&sn=1&ck=5");
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 200 re-engagement click: The service answered, and did not accept. never"));
}

TEST_F(ToldApp, HearsNothingOfRequestsThatDeliverNothing) {
  device().network().on("v2/schedule").always(Answer::body(404, ""));
  device().network().on("config.json").always(Answer::body(404, ""));
  device().open();
  EXPECT_THAT(told(), ElementsAre("delivered 2"));
}

TEST_F(ToldApp, HearsOfDemographicsCommerceClicksAndCrashReportsThatWereNotAccepted) {
  device().open();
  told();
  for (const char* path : {"v1/demographics", "v1/commerce-conversion"})
    device().network().on(path).then(Answer::body(500, ""));
  device().kit().setAge(30);
  device().kit().passOpenURL("app://open?cid=9");
  device().leave();
  EXPECT_THAT(told(),
              ::testing::AllOf(Contains("failed 500 commerce clicks: The server answered with status 500. again"),
                               Contains("failed 500 demographics: The server answered with status 500. again")));
  device().crash("fendo: index 3 beyond bounds");
  device().network().on("v1/crash").then(Answer::json(Dictionary{{"code", 7}}));
  device().restart();
  device().open();
  EXPECT_THAT(told(), Contains("failed 200 crash reports: The service answered, and did not accept. again"));
}

TEST_F(ToldApp, HearsThatAnActivityWhichIsGivenUpAsTooLargeIsNotTriedAgain) {
  device().open();
  told();
  device().network().on(kTracking).then(Answer::body(413, "")).then(Answer::body(413, ""));
  device().kit().addActivity("shop", "large", std::string(kMaxEventBytes - 100, 'x'));
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 413 batch of activities: The server answered with status 413. never"));
  device().kit().addActivity("shop", "small");
  device().kit().pushTracking();
  device().settle();
  EXPECT_THAT(told(), ElementsAre("failed 413 batch of activities: The server answered with status 413. again"));
}

TEST_F(ToldApp, HearsWhetherAnErasureWasAccepted) {
  device().open();
  told();
  device().network().on(kErasure).then(Answer::body(500, ""));
  device().kit().gdprForgetMe(true);
  device().settle();
  EXPECT_THAT(told(), ElementsAre("erasure not accepted"));
  EXPECT_EQ(device().kit().status().last_failure->failure.reason, "erasure: The server answered with status 500.");
  EXPECT_FALSE(device().kit().status().last_failure->failure.is_tried_again);
  device().kit().gdprForgetMe(true);
  device().settle();
  EXPECT_THAT(told(), ElementsAre("erasure accepted"));
  device().kit().gdprForgetMe(true);
  device().settle();
  EXPECT_THAT(told(), IsEmpty()) << "there is no news";
}

TEST_F(ToldApp, HearsThatNothingIsTriedAgainOnceTheUserAskedToBeForgotten) {
  device().open();
  told();
  device().network().on(kTracking).then(Answer::error("down").after(5));
  device().kit().addActivity("shop", "look");
  device().kit().pushTracking();
  device().settle();
  device().kit().gdprForgetMe(true);
  device().advance(seconds(10));
  EXPECT_THAT(told(), ElementsAre("erasure accepted", "failed 0 batch of activities: down never"));
}

TEST_F(ToldApp, HearsOfEventsThatWereRefused) {
  device().kit().gdprForgetMe(true);
  device().settle();
  told();
  device().perform([this] {
    device().kit().addActivity("shop", "look");
    EXPECT_THAT(told(), IsEmpty()) << "called in a separate turn";
    device().kit().addActivity("shop", "look");
  });
  EXPECT_THAT(told(),
              ElementsAre("refused: the user asked to be forgotten", "refused: the user asked to be forgotten"));
}

TEST_F(ToldApp, HearsOfNoMoreRefusedEventsThanTheLimitAtATimeAndOfLaterOnesAgain) {
  device().kit().gdprForgetMe(true);
  device().settle();
  told();
  device().perform([this] {
    for (size_t event = 0; event < 100'000; ++event)
      device().kit().addActivity("shop", "look");
    EXPECT_EQ(device().instance().pending().main_blocks, runtime::kMaxPendingRefusals + 1)
        << "and one for the lines about them";
  });
  EXPECT_EQ(told().size(), runtime::kMaxPendingRefusals);
  device().perform([this] { device().kit().addActivity("shop", "look"); });
  EXPECT_EQ(told().size(), 1U);
}

TEST_F(ToldApp, BearsSlotsThatThrow) {
  delegate_->didDeliver = [](size_t) { throw std::runtime_error("no room on the screen"); };
  delegate_->didAnswerErasure = [](bool) { throw 7; };
  device().open();
  device().kit().addActivity("shop", "look");
  device().leave();
  EXPECT_EQ(device().delivered("shop", "look"), 1U);
  device().kit().gdprForgetMe(true);
  device().settle();
  EXPECT_TRUE(device().log().has("Morvik host: something was thrown on a virtual queue: no room on the screen"));
  EXPECT_EQ(device().log().countContaining("something was thrown on a virtual queue: "), 3U);
  EXPECT_TRUE(device().kit().isGdprForgetMe());
}

TEST_F(ToldApp, HearsNothingWithoutSlots) {
  delegate_ = std::make_shared<MorvikCoreDelegate>();
  device().open();
  device().network().on(kTracking).then(Answer::error("down"));
  device().kit().addActivity("shop", "look");
  device().leave();
  device().kit().gdprForgetMe(true);
  device().settle();
  device().perform([this] { device().kit().addActivity("shop", "look"); });
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_EQ(device().log().countContaining("threw"), 0U);
}

// ------------------------------------------------------------------------------------------------------------- status

TEST_F(ToldApp, KnowsHowTheKitStandsBeforeAnythingHappened) {
  const Status status = device().kit().status();
  EXPECT_TRUE(status.is_running);
  EXPECT_FALSE(status.is_session_open);
  EXPECT_FALSE(status.is_attributed);
  EXPECT_FALSE(status.referral.has_value());
  EXPECT_FALSE(status.last_success.has_value());
  EXPECT_FALSE(status.last_failure.has_value());
  EXPECT_TRUE(status.is_sending_enabled);
  EXPECT_FALSE(status.is_forgotten);
  std::vector<std::string> kinds;
  for (const Status::Waiting& each : status.waiting) {
    kinds.push_back(each.kind);
    EXPECT_EQ(each.count, 0U) << each.kind;
  }
  EXPECT_THAT(kinds, ElementsAre("activities", "impressions", "re-engagement clicks", "commerce clicks",
                                 "crash reports", "demographics"));
}

TEST_F(ToldApp, KnowsWhoBroughtTheInstall) {
  device().service().setAttribution(Dictionary{
      {"referralKey", 77}, {"subreferralKey", 8}, {"referral_data", "spring"}, {"install_datetime", "20240301000000"}});
  device().open();
  const Status status = device().kit().status();
  ASSERT_TRUE(status.is_attributed);
  EXPECT_EQ(status.referral->conversion_key, 77);
  EXPECT_EQ(status.referral->sub_conversion_key, 8);
  EXPECT_EQ(status.referral->campaign_data, "spring");
  EXPECT_EQ(status.referral->install_datetime, "20240301000000");
}

TEST_F(ToldApp, KnowsWhatWaitsAndWhetherASessionIsOpen) {
  device().open();
  EXPECT_TRUE(device().kit().status().is_session_open);
  device().goOffline();
  device().perform([this] {
    device().kit().addActivity("shop", "look");
    device().kit().setAge(30);
    EXPECT_EQ(waiting("activities"), 1U);
    EXPECT_EQ(waiting("demographics"), 1U);
  });
  device().leave();
  EXPECT_FALSE(device().kit().status().is_session_open);
  EXPECT_EQ(waiting("activities"), 2U) << "with the session's end";
  EXPECT_EQ(waiting("demographics"), 1U);
}

TEST_F(ToldApp, KnowsTheLatestSuccessAndTheLatestFailureOfThisProcessWithTheirTimes) {
  const auto now = [this] {
    return Status::Time(std::chrono::microseconds(device().machine().loop.now().microseconds));
  };
  device().open();
  const auto first = now();
  EXPECT_EQ(device().kit().status().last_success, first);
  EXPECT_FALSE(device().kit().status().last_failure.has_value());
  device().advance(seconds(30));
  device().network().on(kTracking).then(Answer::body(503, ""));
  device().kit().addActivity("shop", "look");
  device().kit().pushTracking();
  device().settle();
  const Status status = device().kit().status();
  EXPECT_EQ(status.last_success, first);
  ASSERT_TRUE(status.last_failure.has_value());
  EXPECT_EQ(status.last_failure->when, now());
  EXPECT_EQ(status.last_failure->failure.http_status, 503);
  EXPECT_EQ(status.last_failure->failure.reason, "batch of activities: The server answered with status 503.");
  EXPECT_TRUE(status.last_failure->failure.is_tried_again);
  device().restart();
  EXPECT_FALSE(device().kit().status().last_success.has_value());
  EXPECT_FALSE(device().kit().status().last_failure.has_value());
  EXPECT_TRUE(device().kit().status().is_attributed);
}

TEST_F(ToldApp, KnowsThatTheUserIsForgotten) {
  device().kit().gdprForgetMe(true);
  device().settle();
  EXPECT_TRUE(device().kit().status().is_forgotten);
  device().restart();
  EXPECT_TRUE(device().kit().status().is_forgotten);
}

TEST_F(ToldApp, KnowsWhetherSendingIsOn) {
  options_.app.sending = false;
  EXPECT_FALSE(device().kit().status().is_sending_enabled);
  device().kit().setSendingEnabled(true);
  device().settle();
  EXPECT_TRUE(device().kit().status().is_sending_enabled);
}

TEST_F(ToldApp, KnowsAfterAStopHowTheKitStoodThen) {
  device().open();
  device().goOffline();
  device().perform([this] { device().kit().addActivity("shop", "look"); });
  device().kit().stop();
  const Status status = device().kit().status();
  EXPECT_FALSE(status.is_running);
  EXPECT_TRUE(status.is_session_open);
  EXPECT_TRUE(status.is_attributed);
  EXPECT_TRUE(status.last_success.has_value());
  EXPECT_EQ(waiting("activities"), 1U);
  device().kit().addActivity("shop", "too late");
  EXPECT_EQ(waiting("activities"), 1U);
}

// --------------------------------------------------------------------------------------------------- the log at level
// 4

TEST_F(ToldApp, ReadsTheKitsLifeInAFewLines) {
  options_.app.log_level = 4;
  device().open();
  device().kit().addActivity("shop", "look");
  device().network().on(kTracking).then(Answer::body(503, ""));
  device().leave();
  device().advance(seconds(600));
  device().network().on(kTracking).then(Answer::error("down"));
  device().open();
  device().kit().applicationDidBecomeActive();  // called again: no new session
  device().leave();
  device().kit().stop();
  device().kit().stop();
  const std::string folder = options_.app.store_folder;
  EXPECT_THAT(logLinesOfTheKit(),
              ElementsAre("version " + std::string(kVersion) + " started on the store folder " + folder,
                          "a session started",                 //
                          "a batch of 2 activities was sent",  //
                          "a batch of 2 activities was accepted",
                          "the session ended",  //
                          "a batch of 1 activities was sent", "a batch of 1 activities was refused with status 503",
                          "a session started",                 //
                          "a batch of 3 activities was sent",  //
                          "a batch of 3 activities got no answer",
                          "the session ended",                 //
                          "a batch of 3 activities was sent",  //
                          "a batch of 3 activities was accepted", "stopped"));
}

TEST_F(ToldApp, ReadsNothingOfThatBelowLevel4NorOfRetriesInIt) {
  options_.app.log_level = 4;
  device().network().on(kConversion).always(Answer::body(500, ""));
  device().open();
  device().advance(seconds(600));
  EXPECT_EQ(logLinesOfTheKit().size(), 2U) << "the start and a session; no line for the ten failed conversions";
  device().kit().setLogLevel(3);
  device().leave();
  device().kit().stop();
  EXPECT_EQ(logLinesOfTheKit().size(), 2U);
}

TEST_F(ToldApp, ReadsOfNoSessionWhileTheUserIsForgotten) {
  options_.app.log_level = 4;
  device().kit().gdprForgetMe(true);
  device().settle();
  device().restart();
  device().log().clear();
  device().open();
  device().leave();
  EXPECT_THAT(logLinesOfTheKit(), IsEmpty());
  EXPECT_FALSE(device().kit().status().is_session_open);
}

}  // namespace
}  // namespace morvik::simulation
