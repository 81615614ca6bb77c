#include "testing/world.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace morvik::test {
namespace {

using testing::json;
using testing::TestWorld;
using testing::WorldOptions;
using Texts = std::vector<std::string>;

Texts activitiesOf(const kit::Value& batch) {
  Texts names;
  for (const kit::Value& entry : batch["activity_info"].array())
    names.emplace_back(entry["activity"].string());
  return names;
}

TEST(TestWorld, IsAFreshInstallWithoutAnyOption) {
  TestWorld world;
  EXPECT_TRUE(world.core().isFirstLaunchOk());
  EXPECT_FALSE(world.core().isStartSessionCalled());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), -1);
  EXPECT_EQ(world.sharedState().kAESSuperKeyForTracking, "test-tracking");
  EXPECT_EQ(world.requests().size(), 0u);
}

TEST(TestWorld, SendsWhatIsRecordedToAServiceThatAccepts) {
  TestWorld world;
  world.serviceAccepts();
  world.becomeActive();
  EXPECT_TRUE(world.core().isStartSessionCalled());
  ASSERT_EQ(world.requests("v1/conversion").size(), 1u);
  EXPECT_EQ(world.payloads("v1/conversion")[0]["searchads_response"], kit::Value(""));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_fendoUserNo(), 1001);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 7);
  world.recordEvent("shop", "purchase", "42");
  world.enterBackground();
  world.loop.advance(1);
  ASSERT_EQ(world.requests("v1/tracking").size(), 2u);
  EXPECT_EQ(activitiesOf(world.payloads("v1/tracking")[0]), (Texts{"start", "retention"}));
  EXPECT_EQ(activitiesOf(world.payloads("v1/tracking")[1]), Texts{"purchase"});
  EXPECT_EQ(world.app.calls(), (Texts{"didSaveFendoUserInfo: 1001, 7, 0, , 0", "didSaveConversionKey: 7, 0"}));
}

TEST(TestWorld, TellsWhichPayloadsOpenWithTheWrongKey) {
  TestWorld world(WorldOptions::attributed());
  world.serviceAccepts();
  world.becomeActive();
  ASSERT_EQ(world.requests("v1/tracking").size(), 1u);
  world.config.setTrackingKey("another");
  EXPECT_THROW(world.payloads("v1/tracking"), std::invalid_argument);
}

TEST(TestWorld, LosesAtAKillWhatNoTurnCommittedAndKeepsTheRest) {
  TestWorld world(WorldOptions::attributed());
  world.recordEvent("shop", "kept");
  world.userDefaults().setFendoUserDemoInfo_age(30);
  world.kill();
  EXPECT_FALSE(world.isAlive());
  world.restart();
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().size(), 1u);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_age(), -1);
  EXPECT_FALSE(world.core().isFirstLaunchOk());
}

TEST(TestWorld, RunsNothingOfTheProcessThatDied) {
  TestWorld world;
  world.serviceAccepts();
  world.transport.on("v1/conversion").always(testing::Answer::silence());
  world.becomeActive();
  world.kill();
  world.loop.advance(3600);
  EXPECT_EQ(world.requests("v1/conversion").size(), 1u) << "neither answer nor retry";
  world.becomeActive();
  EXPECT_EQ(world.requests("v1/conversion").size(), 1u) << "there is no observer";
  world.restart();
  world.becomeActive();
  EXPECT_EQ(world.requests("v1/conversion").size(), 2u);
}

TEST(TestWorld, GoesOnCountingEventsInTheNextProcess) {
  TestWorld world;
  world.recordEvent("a", "b");
  world.restart();
  world.recordEvent("a", "b");
  const kit::Value stored = world.userDefaults().fendoActivityInfos();
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored.array()[0]["activityEventID"], kit::Value("event-1"));
  EXPECT_EQ(stored.array()[1]["activityEventID"], kit::Value("event-2"));
}

TEST(TestWorld, SaysThatThereIsNoProcessOrNoCore) {
  TestWorld world(WorldOptions{.launched = false});
  EXPECT_THROW(world.core(), std::logic_error);
  EXPECT_NO_THROW(world.services());
  world.launch();
  EXPECT_NO_THROW(world.core());
  EXPECT_THROW(world.launch(), std::logic_error);
  world.kill();
  EXPECT_THROW(world.core(), std::logic_error);
  EXPECT_THROW(world.services(), std::logic_error);
}

TEST(TestWorld, LetsEveryPortFailBeforeTheStart) {
  TestWorld world(WorldOptions{.launched = false});
  world.faulty.config.faults.throwAlways("getTrackingSuperkey", testing::Fault::number(7));
  EXPECT_THROW(world.launch(), int);
  world.faulty.config.faults.clear();
  EXPECT_NO_THROW(world.launch());
}

TEST(TestWorld, ReachesTheCoreThroughEachFaultyPort) {
  TestWorld world(WorldOptions::attributed());
  world.faultyServices().faults.throwAt("addActivityGroupName", 1, testing::Fault::exception("Oops", "no room"));
  world.becomeActive();
  EXPECT_EQ(world.log.countContaining("Exception from startSession!"), 1u);
  EXPECT_EQ(world.faultyServices().faults.thrown(),
            Texts{"MorvikCoreServicesLib.addActivityGroupName, call 1: kit::Exception Oops: no room"});
  EXPECT_EQ(world.userDefaults().fendoActivityInfos().size(), 0u);
}

TEST(TestWorld, IsTheSameTwice) {
  const auto live = [] {
    TestWorld world;
    world.serviceAccepts();
    world.becomeActive();
    world.recordEvent("shop", "purchase");
    world.enterBackground();
    world.loop.advance(120);
    world.becomeActive();
    Texts seen = world.log.messages();
    for (const kit::Request& request : world.requests())
      seen.push_back(request.url + " " + request.body);
    return seen;
  };
  const Texts first = live();
  EXPECT_GT(first.size(), 10u);
  EXPECT_EQ(first, live());
}

TEST(TestWorld, StartsWithoutAdClientWhenToldSo) {
  TestWorld world(WorldOptions{.has_ad_client = false});
  world.serviceAccepts();
  world.becomeActive();
  EXPECT_EQ(world.requests("conversion").size(), 0u) << "no way to ask, so no conversion is sent";
}

}  // namespace
}  // namespace morvik::test
