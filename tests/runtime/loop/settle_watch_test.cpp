#include "runtime/loop/settle_watch.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/host/loop/loop_rig.h"

namespace morvik::runtime {
namespace {

class SettleWatchTest : public ::testing::Test {
 protected:
  SettleWatchTest() {
    rig.loop.setFrame([this](const kit::Block& turn) {
      turn();
      watch.check();
    });
  }

  host::PumpedRig rig;
  bool is_settled = false;
  SettleWatch watch{rig.loop, [this] { return is_settled; }};
  std::vector<bool> told;
  SettleWatch::Done tell = [this](bool settled) { told.push_back(settled); };
};

TEST_F(SettleWatchTest, TellsAtTheEndOfTheFirstTurnAfterWhichAllIsSettled) {
  rig.loop.runOnMain([this] { watch.begin(1000, tell); });
  EXPECT_TRUE(watch.isWatching());
  EXPECT_TRUE(told.empty());
  rig.loop.runOnMain([this] { is_settled = true; });
  EXPECT_EQ(told, std::vector<bool>{true});
  EXPECT_FALSE(watch.isWatching());
  rig.loop.runOnMain([] {});
  EXPECT_EQ(told.size(), 1U);
}

TEST_F(SettleWatchTest, TellsInTheTurnItBeganInWhenAllIsSettledAlready) {
  is_settled = true;
  rig.loop.runOnMain([this] { watch.begin(1000, tell); });
  EXPECT_EQ(told, std::vector<bool>{true});
}

TEST_F(SettleWatchTest, TellsThatItIsNotSettledWhenTheLimitIsUp) {
  rig.loop.runOnMain([this] { watch.begin(0.01, tell); });
  ASSERT_TRUE(rig.runUntil([this] { return !told.empty(); }));
  EXPECT_EQ(told, std::vector<bool>{false});
}

TEST_F(SettleWatchTest, TellsWhoWaitedBeforeThatItIsNotSettled) {
  rig.loop.runOnMain([this] { watch.begin(1000, tell); });
  std::vector<bool> second;
  rig.loop.runOnMain([&] { watch.begin(1000, [&second](bool settled) { second.push_back(settled); }); });
  EXPECT_EQ(told, std::vector<bool>{false});
  EXPECT_TRUE(second.empty());
  rig.loop.runOnMain([this] { is_settled = true; });
  EXPECT_EQ(second, std::vector<bool>{true});
}

}  // namespace
}  // namespace morvik::runtime
