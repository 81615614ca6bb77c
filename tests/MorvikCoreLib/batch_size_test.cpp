#include "MorvikCoreLib/batch_size.h"

#include <gtest/gtest.h>

#include <string>

namespace morvik {
namespace {

using kit::Value;

TEST(BatchRoom, TakesSoManyEntriesAndNoMore) {
  BatchRoom room({.records = 2});
  EXPECT_FALSE(room.isFull());
  EXPECT_TRUE(room.take(1));
  EXPECT_TRUE(room.take(2));
  EXPECT_TRUE(room.isFull());
}

TEST(BatchRoom, CountsTheTextOfItsEntriesAndRefusesWhatWouldBeTooMuch) {
  BatchRoom room({.records = 10, .plain_bytes = 10});
  EXPECT_TRUE(room.take("12345678"));
  EXPECT_EQ(room.plainBytes(), 10U);
  EXPECT_FALSE(room.take(1));
  EXPECT_EQ(room.plainBytes(), 10U);
}

TEST(BatchRoom, TakesOneHoweverLargeAndNoneWhereThereIsNoRoomAtAll) {
  BatchRoom room({.records = 10, .plain_bytes = 10});
  EXPECT_TRUE(room.take(std::string(1000, 'x')));
  EXPECT_FALSE(room.take(1));
  EXPECT_TRUE(BatchRoom({.records = 0}).isFull());
}

TEST(BatchSize, IsHalvedToOneActivityAndToNoImpression) {
  BatchSize size({.records = 100});
  size.halve(100, 3);
  EXPECT_EQ(size.activities().records, 50U);
  EXPECT_EQ(size.impressions().records, 1U);
  size.halve(1, 1);
  EXPECT_EQ(size.activities().records, 1U);
  EXPECT_EQ(size.impressions().records, 0U);
  size.halve(1, 0);
  EXPECT_EQ(size.activities().records, 1U);
}

TEST(BatchSize, GrowsBackToTheLimitAndNotBeyond) {
  BatchSize size({.records = 100, .plain_bytes = 7});
  size.halve(60, 2);
  size.halve(1, 1);
  for (const size_t expected : {2U, 4U, 8U, 16U, 32U, 64U, 100U, 100U}) {
    size.grow();
    EXPECT_EQ(size.activities().records, expected);
  }
  EXPECT_EQ(size.impressions().records, 100U);
  EXPECT_EQ(size.activities().plain_bytes, 7U);
}

TEST(BatchSize, IsWithoutALimitUnlessTheKitSetsOne) {
  BatchSize size({});
  EXPECT_FALSE(size.isLimited());
  size.grow();
  EXPECT_TRUE(size.activities().isUnlimited());
  EXPECT_TRUE(BatchSize({.records = 1}).isLimited());
  EXPECT_TRUE(BatchSize({.plain_bytes = 1}).isLimited());
}

}  // namespace
}  // namespace morvik
