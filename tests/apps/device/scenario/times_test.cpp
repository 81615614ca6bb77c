#include "apps/device/scenario/times.h"

#include <gtest/gtest.h>

namespace morvik_device::scenario {
namespace {

TEST(Times, MayHaveASignWhereThatIsMeant) {
  EXPECT_EQ(readSignedTime("-1h"), -3'600'000);
  EXPECT_EQ(readSignedTime("+1h"), 3'600'000);
  EXPECT_EQ(readSignedTime("1h"), 3'600'000);
  EXPECT_EQ(readSignedTime("--1h"), std::nullopt);
  EXPECT_EQ(readSignedTime(""), std::nullopt);
}

TEST(TimeRanges, AreTwoTimesOrOne) {
  EXPECT_EQ(readTimeRange("0s..20s"), (TimeRange{0, 20'000}));
  EXPECT_EQ(readTimeRange("1m 10s..2m"), (TimeRange{70'000, 120'000}));
  EXPECT_EQ(readTimeRange("5s"), (TimeRange{5'000, 5'000}));
  EXPECT_EQ(readTimeRange("20s..10s"), std::nullopt);
  EXPECT_EQ(readTimeRange("..10s"), std::nullopt);
  EXPECT_EQ(readTimeRange("10s.."), std::nullopt);
  EXPECT_EQ(readTimeRange("1s..2s..3s"), std::nullopt);
}

TEST(Times, AreShownAsAClock) {
  EXPECT_EQ(clockText(0), "0:00:00.000");
  EXPECT_EQ(clockText(10'500), "0:00:10.500");
  EXPECT_EQ(clockText(93'784'005), "1d 2:03:04.005");
}

}  // namespace
}  // namespace morvik_device::scenario
