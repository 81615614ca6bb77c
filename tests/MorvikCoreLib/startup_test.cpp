// Making the core object.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::WorldOptions;

WorldOptions withStored(const char* property, const kit::Value& value) {
  WorldOptions options;
  options.store[property] = value;
  return options;
}

TEST(StartUp, AFreshInstallIsOnItsFirstLaunch) {
  TestWorld world;
  EXPECT_TRUE(world.core().isFirstLaunchOk());
}

TEST(StartUp, AnInstallWithAReferralKeyIsNotOnItsFirstLaunch) {
  for (const int64_t key : {int64_t{5}, int64_t{0}, int64_t{-2}}) {
    TestWorld world(withStored("fendoUserInfo_referralKey", key));
    EXPECT_FALSE(world.core().isFirstLaunchOk()) << key;
  }
}

TEST(StartUp, LeavesTheObjectOutOfFocusWithoutSessionOrTracking) {
  TestWorld world;
  MorvikCoreLib& core = world.core();
  EXPECT_FALSE(core.isAppinFocus());
  EXPECT_FALSE(core.isStartSessionCalled());
  EXPECT_FALSE(core._isTrackingCalled());
  EXPECT_EQ(core.failedGetReferralCnt(), 0);
  EXPECT_EQ(core.failedGetAESKeyCnt(), 0);
  EXPECT_EQ(core.failedGDPRCnt(), 0);
  EXPECT_EQ(core._checkSum(), "init");
  EXPECT_EQ(core.background_task(), kit::kBackgroundTaskInvalid);
  EXPECT_FALSE(core._startSessoinDate().has_value());
  EXPECT_FALSE(core._endSessoinDate().has_value());
  EXPECT_TRUE(core.fB_DeepLinkData().isAbsent());
  EXPECT_TRUE(core.searchAdsAttributionDetails().isAbsent());
  EXPECT_TRUE(core._lastJSON().isAbsent());
  EXPECT_TRUE(core.makeGdprParameter().isAbsent());
  EXPECT_EQ(core.ReEngagement_task(), nullptr);
}

TEST(StartUp, LogsVersionAndKeysAtDebugLevel) {
  TestWorld world;
  const auto line =
      world.log.find("MRVK_QA-MorvikCore.framework Version : 1.2.3, app key : test-app, hash key : test-hash");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "DEBUG");
  EXPECT_EQ(line->prefix->component, "Kesmo");
  EXPECT_EQ(line->prefix->file, "lifecycle.cpp");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib init]");
}

TEST(StartUp, FetchesTheTrackingKeyFromAFreshConfigurationAndReplacesAnEarlierOne) {
  TestWorld world;
  EXPECT_EQ(world.sharedState().kAESSuperKeyForTracking, "test-tracking");
  world.config.setTrackingKey("another");
  const auto second = MorvikCoreLib::make(world.ports());
  EXPECT_EQ(world.sharedState().kAESSuperKeyForTracking, "another");
}

TEST(StartUp, OnlyOrientationOneCountsAsPortrait) {
  for (const int orientation : {0, 1, 2, 3, 4}) {
    WorldOptions options;
    options.device.status_bar_orientation = orientation;
    TestWorld world(options);
    EXPECT_EQ(world.userDefaults().fendoUserInfo_isApplicationPortrait(), orientation == 1 ? "true" : "false")
        << orientation;
  }
}

TEST(StartUp, FlushesTheOrientation) {
  TestWorld world;
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoUserInfo_isApplicationPortrait", "synchronize"));
}

TEST(StartUp, RunsNothingBeforeTheFirstNotification) {
  TestWorld world;
  world.loop.advance(100);
  EXPECT_THAT(world.services().calls(), IsEmpty());
  EXPECT_THAT(world.transport.requests(), IsEmpty());
}

TEST(StartUp, ObservesBothNotifications) {
  TestWorld world;
  world.becomeActive();
  EXPECT_TRUE(world.core().isStartSessionCalled());
  world.enterBackground();
  EXPECT_FALSE(world.core().isStartSessionCalled());
}

TEST(StartUp, AUserWhoAskedToBeForgottenTriggersNothing) {
  WorldOptions options = withStored("MorvikCoreUserInfo_isGDPRForgetMe", true);
  options.device.status_bar_orientation = 2;
  TestWorld world(options);
  EXPECT_EQ(world.sharedState().kAESSuperKeyForTracking, "test-tracking");
  EXPECT_EQ(world.userDefaults().fendoUserInfo_isApplicationPortrait(), "false");
  world.store.clearJournal();
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(100);
  EXPECT_FALSE(world.core().isStartSessionCalled());
  EXPECT_FALSE(world.core().isAppinFocus());
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  EXPECT_THAT(world.transport.requests(), IsEmpty());
}

TEST(SharedObject, IsTheSameForEveryCallerAndMadeOnce) {
  TestWorld world;
  ASSERT_TRUE(MorvikCoreLib::provideSharedPorts(world.ports()));
  world.log.clear();
  std::vector<std::shared_ptr<MorvikCoreLib>> seen(4);
  std::vector<std::thread> threads;
  for (auto& object : seen)
    threads.emplace_back([&object] { object = MorvikCoreLib::shared(); });
  for (auto& thread : threads)
    thread.join();
  for (const auto& object : seen) {
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(object, seen.front());
  }
  EXPECT_EQ(world.log.countContaining(".framework Version"), 1U);
  EXPECT_FALSE(seen.front()->_isTrackingCalled());
  MorvikCoreLib::withdrawSharedPorts(world.ports());
}

TEST(SharedObject, IsNullBeforeAKitIsGivenAndAfterItIsWithdrawn) {
  TestWorld world;
  EXPECT_EQ(MorvikCoreLib::shared(), nullptr);
  MorvikCoreLib::provideSharedPorts(world.ports());
  EXPECT_NE(MorvikCoreLib::shared(), nullptr);
  MorvikCoreLib::withdrawSharedPorts(world.ports());
  EXPECT_EQ(MorvikCoreLib::shared(), nullptr);
}

TEST(SharedObject, TakesOneKitAtATime) {
  TestWorld first;
  TestWorld second;
  EXPECT_TRUE(MorvikCoreLib::provideSharedPorts(first.ports()));
  EXPECT_TRUE(MorvikCoreLib::provideSharedPorts(first.ports()));
  EXPECT_FALSE(MorvikCoreLib::provideSharedPorts(second.ports()));
  MorvikCoreLib::withdrawSharedPorts(second.ports());
  EXPECT_NE(MorvikCoreLib::shared(), nullptr);
  MorvikCoreLib::withdrawSharedPorts(first.ports());
}

TEST(TwoObjects, InOneProcessDoNotTouchEachOther) {
  TestWorld first;
  WorldOptions options;
  options.tracking_key = "";
  options.log_level = kit::lcl_vOff;
  TestWorld second(options);
  EXPECT_EQ(first.sharedState().kAESSuperKeyForTracking, "test-tracking");
  EXPECT_EQ(second.sharedState().kAESSuperKeyForTracking, "");
  EXPECT_FALSE(first.log.lines().empty());
  EXPECT_THAT(second.log.lines(), IsEmpty());
}

}  // namespace
}  // namespace morvik
