#include "apps/device/simulation/times.h"

#include <gtest/gtest.h>

namespace morvik_device::simulation {
namespace {

TEST(Times, AreReadInTheirUnits) {
  EXPECT_EQ(readTime("0s"), 0);
  EXPECT_EQ(readTime("500ms"), 500);
  EXPECT_EQ(readTime("10s"), 10'000);
  EXPECT_EQ(readTime("2m"), 120'000);
  EXPECT_EQ(readTime("3h"), 10'800'000);
  EXPECT_EQ(readTime("1d"), 86'400'000);
}

TEST(Times, MayBePutTogether) {
  EXPECT_EQ(readTime("1d 2h"), 93'600'000);
  EXPECT_EQ(readTime("1d2h3m4s5ms"), 93'784'005);
  EXPECT_EQ(readTime(" 1m  30s "), 90'000);
}

TEST(Times, MayHaveAFractionThatIsWholeMilliseconds) {
  EXPECT_EQ(readTime("1.5s"), 1'500);
  EXPECT_EQ(readTime("0.001s"), 1);
  EXPECT_EQ(readTime("0.5h"), 1'800'000);
  EXPECT_EQ(readTime("0.5ms"), std::nullopt);
  EXPECT_EQ(readTime("0.0001s"), std::nullopt);
}

TEST(Times, RefuseEverythingElse) {
  for (const char* text : {"", " ", "10", "s", "10 s", "s10", "10x", "-1s", "+1s", "1s 1m", "1s 1s", "1.s", ".5s",
                           "1e3s", "10s!", "1,5s", "ten seconds"})
    EXPECT_EQ(readTime(text), std::nullopt) << text;
}

TEST(Times, EndAtTenYears) {
  EXPECT_EQ(readTime("3650d"), kMaxMilliseconds);
  EXPECT_EQ(readTime("3650d 1ms"), std::nullopt);
  EXPECT_EQ(readTime("3651d"), std::nullopt);
  EXPECT_EQ(readTime("99999999999999999999d"), std::nullopt);
  EXPECT_EQ(readTime("315360000000d"), std::nullopt);
}

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

TEST(Times, AreShownAsTheyAreRead) {
  for (const int64_t time : {int64_t{0}, int64_t{1}, int64_t{10'500}, int64_t{93'784'005}, kMaxMilliseconds})
    EXPECT_EQ(readTime(timeText(time)), time) << timeText(time);
  EXPECT_EQ(timeText(93'600'000), "1d 2h");
  EXPECT_EQ(timeText(10'500), "10s 500ms");
}

}  // namespace
}  // namespace morvik_device::simulation
