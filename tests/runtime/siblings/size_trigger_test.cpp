#include "runtime/siblings/size_trigger.h"

#include <gtest/gtest.h>

#include "testing/virtual_loop.h"

namespace morvik::runtime {
namespace {

class SizeTriggerTest : public ::testing::Test {
 protected:
  SizeTriggerTest() {
    trigger.setCall([this] { ++calls; });
  }
  int callsAfterStoring(int activities) {
    const int before = calls;
    for (int i = 0; i < activities; ++i) {
      trigger.activityWasStored();
      loop.runUntilIdle();
    }
    return calls - before;
  }

  testing::VirtualLoop loop;
  SizeTrigger trigger{loop.mainQueue()};
  int calls = 0;
};

TEST_F(SizeTriggerTest, CallsOnTheMainQueueAfterEachStoredActivity) {
  trigger.activityWasStored();
  EXPECT_EQ(calls, 0);
  loop.runUntilIdle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(callsAfterStoring(5), 5);
}

TEST_F(SizeTriggerTest, NeverHasTwoCallsOnTheirWay) {
  for (int i = 0; i < 100; ++i)
    trigger.activityWasStored();
  EXPECT_EQ(loop.waitingMainBlocks(), 1U);
  loop.runUntilIdle();
  EXPECT_EQ(calls, 1);
}

TEST_F(SizeTriggerTest, MayBeAskedAgainFromWithinTheCall) {
  trigger.setCall([this] {
    if (++calls < 3)
      trigger.activityWasStored();
  });
  trigger.activityWasStored();
  loop.runUntilIdle();
  EXPECT_EQ(calls, 3);
}

TEST_F(SizeTriggerTest, RestsForTenActivitiesAfterASmallRefusedBatch) {
  trigger.batchWasRefused(10);
  EXPECT_EQ(callsAfterStoring(9), 0);
  EXPECT_EQ(callsAfterStoring(1), 1);
  EXPECT_EQ(callsAfterStoring(1), 1);
}

TEST_F(SizeTriggerTest, RestsForATenthOfALargeRefusedBatch) {
  trigger.batchWasRefused(100'009);
  EXPECT_EQ(callsAfterStoring(9'999), 0);
  EXPECT_EQ(callsAfterStoring(1), 1);
}

TEST_F(SizeTriggerTest, RestsForTenActivitiesAfterABatchOfUnknownSize) {
  trigger.batchWasRefused(0);
  EXPECT_EQ(callsAfterStoring(9), 0);
  EXPECT_EQ(callsAfterStoring(1), 1);
}

TEST_F(SizeTriggerTest, WakesWhenASessionStartsOrEnds) {
  trigger.batchWasRefused(1000);
  trigger.sessionDidStartOrEnd();
  EXPECT_EQ(callsAfterStoring(1), 1);
}

TEST_F(SizeTriggerTest, WakesWhenABatchIsAccepted) {
  trigger.batchWasRefused(1000);
  trigger.batchWasAccepted();
  EXPECT_EQ(callsAfterStoring(1), 1);
}

}  // namespace
}  // namespace morvik::runtime
