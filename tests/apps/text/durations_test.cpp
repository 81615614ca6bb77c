#include "apps/text/durations.h"

#include <gtest/gtest.h>

namespace morvik_text {
namespace {

TEST(Durations, AreReadInTheirUnits) {
  EXPECT_EQ(readDuration("0s"), 0);
  EXPECT_EQ(readDuration("500ms"), 500);
  EXPECT_EQ(readDuration("10s"), 10'000);
  EXPECT_EQ(readDuration("2m"), 120'000);
  EXPECT_EQ(readDuration("3h"), 10'800'000);
  EXPECT_EQ(readDuration("1d"), 86'400'000);
}

TEST(Durations, MayBePutTogether) {
  EXPECT_EQ(readDuration("1d 2h"), 93'600'000);
  EXPECT_EQ(readDuration("1d2h3m4s5ms"), 93'784'005);
  EXPECT_EQ(readDuration(" 1m  30s "), 90'000);
}

TEST(Durations, MayHaveAFractionThatIsWholeMilliseconds) {
  EXPECT_EQ(readDuration("1.5s"), 1'500);
  EXPECT_EQ(readDuration("0.001s"), 1);
  EXPECT_EQ(readDuration("0.5h"), 1'800'000);
  EXPECT_EQ(readDuration("0.5ms"), std::nullopt);
  EXPECT_EQ(readDuration("0.0001s"), std::nullopt);
}

TEST(Durations, RefuseEverythingElse) {
  for (const char* text : {"", " ", "10", "s", "10 s", "s10", "10x", "-1s", "+1s", "1s 1m", "1s 1s", "1.s", ".5s",
                           "1e3s", "10s!", "1,5s", "ten seconds"})
    EXPECT_EQ(readDuration(text), std::nullopt) << text;
}

TEST(Durations, EndAtTenYears) {
  EXPECT_EQ(readDuration("3650d"), kMaxDurationMilliseconds);
  EXPECT_EQ(readDuration("3650d 1ms"), std::nullopt);
  EXPECT_EQ(readDuration("3651d"), std::nullopt);
  EXPECT_EQ(readDuration("99999999999999999999d"), std::nullopt);
  EXPECT_EQ(readDuration("315360000000d"), std::nullopt);
}

TEST(Durations, AreShownAsTheyAreRead) {
  for (const std::int64_t time :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{10'500}, std::int64_t{93'784'005}, kMaxDurationMilliseconds})
    EXPECT_EQ(readDuration(durationText(time)), time) << durationText(time);
  EXPECT_EQ(durationText(93'600'000), "1d 2h");
  EXPECT_EQ(durationText(10'500), "10s 500ms");
}

}  // namespace
}  // namespace morvik_text
