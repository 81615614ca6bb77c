#include "simulation/test_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "services/endpoints.h"
#include "tests/support/environment_variable.h"

namespace morvik::simulation {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fakes = ::morvik::testing;

TEST(TestDevice, DeliversAnEventWithNothingSaidAboutAnything) {
  TestDevice device;
  device.open();
  device.kit().addActivity("shop", "purchase", "sku-42");
  device.leave();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
  EXPECT_EQ(device.waiting("shop", "purchase"), 0u);
  EXPECT_EQ(device.delivered("shop", "look"), 0u);
  EXPECT_EQ(device.service().installs(), 1u);
  EXPECT_EQ(device.service().refusedCount(), 0u);
}

TEST(TestDevice, DeliversAStructuredParameterAsItsJson) {
  TestDevice device;
  device.open();
  device.kit().addActivity("shop", "purchase", Params().set("price", 9.99).set("item", Params().set("sku", "4\xFF")));
  device.leave();
  std::string param;
  for (const kit::Value& event : device.service().events()) {
    if (event["group"].string() == "shop")
      param = event["param"].string();
  }
  EXPECT_EQ(param, "{\"price\":9.99,\"item\":{\"sku\":\"4\xEF\xBF\xBD\"}}");
}

TEST(TestDevice, SendsNothingOfAUserIdThatWasTakenBackAndKeepsNoCopyOfOneThatWasSent) {
  TestDevice device;
  const auto sent = [&device] { return device.network().requests(services::kSetDemographicPath).size(); };
  EXPECT_EQ(device.kit().setUserId("user-7"), Recorded::kKept);
  EXPECT_EQ(device.kit().clearUserId(), Recorded::kKept);
  device.open();
  EXPECT_EQ(sent(), 0u);
  device.kit().setUserId("user-8");
  device.leave();
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(device.instance().properties().fendoUserDemoInfoForComplete_userId(), "user-8");
  device.kit().clearUserId();
  device.restart();
  device.open();
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(device.instance().properties().fendoUserDemoInfoForComplete_userId(), std::nullopt);
}

TEST(TestDevice, RefusesAnEventWhoseStructuredParameterIsTooLarge) {
  TestDevice device;
  device.open();
  const Params large = Params().set("text", std::string(kMaxParamsBytes, 'x'));
  EXPECT_EQ(device.kit().addActivity("shop", "purchase", large), Recorded::kRefusedTooLarge);
  EXPECT_EQ(device.waiting("shop", "purchase"), 0u);
}

TEST(TestDevice, KeepsThreeDaysOfEventsWithoutANetworkAndDeliversEachOnce) {
  TestDevice device;
  device.open();
  device.leave();
  device.goOffline();
  const kit::Date before = device.machine().loop.now();
  for (int day = 0; day < 3; ++day) {
    device.open();
    device.kit().addActivity("shop", "look");
    device.leave();
    device.advance(days(1) - kTimeAfterLeaving);
  }
  EXPECT_EQ(device.machine().loop.now(), before.shiftedBySeconds(3 * 86400.0));
  EXPECT_EQ(device.waiting("shop", "look"), 3u);
  EXPECT_EQ(device.delivered("shop", "look"), 0u);
  device.goOnline();
  device.open();
  device.leave();
  EXPECT_EQ(device.waiting("shop", "look"), 0u);
  EXPECT_EQ(device.delivered("shop", "look"), 3u);
}

TEST(TestDevice, FindsInTheNextProcessWhatTheLastOneRecorded) {
  TestDevice device;
  device.goOffline();
  device.open();
  device.perform([&device] { device.kit().addActivity("shop", "purchase"); });
  device.kit().addActivity("shop", "recorded between two turns");
  device.kill();
  EXPECT_EQ(device.waiting("shop", "recorded between two turns"), 1u);
  EXPECT_FALSE(device.isAlive());
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
  device.advance(hours(5));
  device.restart();
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
  device.open();
  device.leave();
  EXPECT_EQ(device.service().requestCount(), 0u) << "a restart does not restore the network";
  device.goOnline();
  device.open();
  device.leave();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST(TestDevice, LetsAScriptStandInFrontOfTheService) {
  TestDevice device;
  device.open();
  device.network().on("v1/tracking").then(fakes::Answer::body(503, "out of order"));
  device.kit().addActivity("shop", "purchase");
  device.kit().pushTracking();
  device.settle();
  EXPECT_EQ(device.waiting("shop", "purchase"), 1u);
  EXPECT_EQ(device.delivered("shop", "purchase"), 0u);
  device.leave();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST(TestDevice, TellsTheAppsDelegateInEachProcess) {
  std::vector<int64_t> keys;
  auto delegate = std::make_shared<MorvikCoreDelegate>();
  delegate->didSaveConversionKey = [&keys](int64_t key, const std::string&) { keys.push_back(key); };
  int starts = 0;
  TestDeviceOptions options;
  options.is_started = false;
  options.at_start = [&](MorvikCore& kit) {
    ++starts;
    kit.setDelegate(delegate);
  };
  TestDevice device(options);
  EXPECT_FALSE(device.isAlive());
  EXPECT_EQ(starts, 0);
  device.service().setAttribution(kit::Dictionary{{"referralKey", 77}});
  device.restart();
  device.open();
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(keys, std::vector<int64_t>{77});
  device.restart();
  EXPECT_EQ(starts, 2);
}

TEST(TestDevice, SetsTheClockWithoutTimePassing) {
  TestDevice device;
  const kit::Date before = device.machine().loop.now();
  const double monotonic = device.machine().loop.monotonicSeconds();
  device.setClockBy(-days(365));
  EXPECT_EQ(device.machine().loop.now(), before.shiftedBySeconds(-365 * 86400.0));
  EXPECT_EQ(device.machine().loop.monotonicSeconds(), monotonic);
  device.open();
  device.kit().addActivity("shop", "purchase");
  device.leave();
  EXPECT_EQ(device.delivered("shop", "purchase"), 1u);
}

TEST(TestDevice, SendsAWithdrawalAfterAWishThatWasAccepted) {
  TestDevice device;
  device.open();
  device.kit().gdprForgetMe(true);
  device.settle();
  EXPECT_THAT(device.network().requests(services::kGdprReqUrlPath), SizeIs(1));
  device.kit().gdprForgetMe(true);
  device.settle();
  EXPECT_THAT(device.network().requests(services::kGdprReqUrlPath), SizeIs(1)) << "the service knows";
  EXPECT_EQ(device.kit().gdprForgetMe(false), Recorded::kKept);
  device.settle();
  EXPECT_THAT(device.network().requests(services::kGdprReqUrlPath), SizeIs(2));
}

TEST(TestDevice, TakesTheEnvironmentOnlyWhereTheAppAllowsIt) {
  test::EnvironmentVariable level("MORVIK_LOG_LEVEL");
  level.set("0");
  for (const bool is_allowed : {false, true}) {
    TestDeviceOptions options;
    options.app.allow_environment = is_allowed;
    TestDevice device(options);
    device.open();
    EXPECT_EQ(device.log().countContaining("Morvik host: a session started"), is_allowed ? 0u : 1u);
  }
}

TEST(TestDevice, SendsTheReportOfACrashWithTheNextStart) {
  TestDevice device;
  device.open();
  device.crash("fendo: index 3 beyond bounds");
  EXPECT_FALSE(device.isAlive());
  EXPECT_THAT(device.service().requests(fakes::ServiceEndpoint::kCrash), IsEmpty());
  device.restart();
  device.open();
  EXPECT_THAT(device.service().requests(fakes::ServiceEndpoint::kCrash), SizeIs(1));
}

TEST(TestDevice, GivesTheServiceTheKeysOfTheKitAndKeepsItsLog) {
  TestDeviceOptions options;
  options.keys = {"another-app", "another-hash", "another-tracking"};
  options.app.log_level = 0;
  TestDevice quiet(options);
  quiet.open();
  quiet.kit().addActivity("shop", "purchase");
  quiet.leave();
  EXPECT_EQ(quiet.delivered("shop", "purchase"), 1u);
  TestDevice device;
  device.open();
  EXPECT_GT(device.log().lines().size(), quiet.log().lines().size());
}

TEST(TestDevice, SaysWhatIsMissing) {
  TestDevice device;
  device.kill();
  device.kill();
  EXPECT_THROW(device.kit(), std::logic_error);
  EXPECT_THROW(device.open(), std::logic_error);
  TestDeviceOptions options;
  options.app.service_url = "http://elsewhere.example/";
  try {
    const TestDevice refused(options);
    FAIL() << "plain http was accepted";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("https"));
  }
}

TEST(TestDevice, LivesTwiceAlike) {
  const auto life = [] {
    TestDevice device;
    device.open();
    for (int event = 0; event < 15; ++event) {
      device.kit().addActivity("shop", "look", std::to_string(event));
      device.advance(seconds(20));
    }
    device.leave();
    std::string bodies;
    for (const kit::Request& request : device.network().requests())
      bodies += request.url + " " + request.body + "\n";
    return bodies;
  };
  const std::string first = life();
  EXPECT_THAT(first, HasSubstr(services::kTrackingPath));
  EXPECT_EQ(life(), first);
}

}  // namespace
}  // namespace morvik::simulation
