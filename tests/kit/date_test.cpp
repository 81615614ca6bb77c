#include "kit/date.h"

#include <gtest/gtest.h>

#include <limits>

namespace morvik::test {
namespace {

using kit::Date;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
const double kInfinity = std::numeric_limits<double>::infinity();

TEST(Date, ComparesInTime) {
  EXPECT_EQ(Date{5}, Date{5});
  EXPECT_LT(Date{-1}, Date{0});
  EXPECT_GT(Date{kMax}, Date{kMin});
}

TEST(Date, IsMadeOfWholeSecondsAndSaturates) {
  EXPECT_EQ(Date::fromSeconds(0), Date{0});
  EXPECT_EQ(Date::fromSeconds(-3), Date{-3'000'000});
  EXPECT_EQ(Date::fromSeconds(kMax / 1'000'000), Date{kMax / 1'000'000 * 1'000'000});
  EXPECT_EQ(Date::fromSeconds(kMax / 1'000'000 + 1), Date{kMax});
  EXPECT_EQ(Date::fromSeconds(-(kMax / 1'000'000) - 1), Date{kMin});
  EXPECT_EQ(Date::fromSeconds(kMax), Date{kMax});
  EXPECT_EQ(Date::fromSeconds(kMin), Date{kMin});
}

TEST(Date, TellsItsSecondsWithTheirFraction) {
  EXPECT_DOUBLE_EQ(Date{1'500'000}.secondsSince1970(), 1.5);
  EXPECT_DOUBLE_EQ(Date{-250'000}.secondsSince1970(), -0.25);
}

TEST(Date, IsShiftedByAnOffsetInSeconds) {
  EXPECT_EQ(Date{10}.shiftedBySeconds(1.5), Date{1'500'010});
  EXPECT_EQ(Date{10}.shiftedBySeconds(-1.5), Date{-1'499'990});
  EXPECT_EQ(Date{10}.shiftedBySeconds(0), Date{10});
  EXPECT_EQ(Date{0}.shiftedBySeconds(0.0000014), Date{1}) << "to the nearest microsecond";
}

TEST(Date, IsNotMovedByNotANumber) {
  EXPECT_EQ(Date{10}.shiftedBySeconds(std::numeric_limits<double>::quiet_NaN()), Date{10});
}

TEST(Date, StopsAtTheEndsOfItsRange) {
  for (const int64_t start : {int64_t{0}, int64_t{1}, int64_t{-1}, kMax, kMin}) {
    for (const double beyond : {kInfinity, 1e300, 1e20, 9223372036854.775808}) {
      EXPECT_EQ(Date{start}.shiftedBySeconds(beyond), Date{kMax}) << start << " shifted by " << beyond;
      EXPECT_EQ(Date{start}.shiftedBySeconds(-beyond), Date{kMin}) << start << " shifted by " << -beyond;
    }
  }
  EXPECT_EQ(Date{kMax - 5}.shiftedBySeconds(1), Date{kMax});
  EXPECT_EQ(Date{kMin + 5}.shiftedBySeconds(-1), Date{kMin});
  EXPECT_EQ(Date{kMin}.shiftedBySeconds(1), Date{kMin + 1'000'000});
}

TEST(Date, CountsWholeMillisecondsTruncatedTowardZero) {
  EXPECT_EQ(Date{1'999}.millisecondsSince({}), 1);
  EXPECT_EQ(Date{999}.millisecondsSince({}), 0);
  EXPECT_EQ(Date{-999}.millisecondsSince({}), 0);
  EXPECT_EQ(Date{-1'999}.millisecondsSince({}), -1);
  EXPECT_EQ(Date{59'999'999}.millisecondsSince({}), 59'999);
  EXPECT_EQ(Date{60'000'500}.millisecondsSince(Date{500}), 60'000);
  EXPECT_EQ(Date{500}.millisecondsSince(Date{60'000'500}), -60'000);
  EXPECT_EQ(Date{7}.millisecondsSince(Date{7}), 0);
}

TEST(Date, SaturatesADistanceThatDoesNotFit) {
  EXPECT_EQ(Date{kMax}.millisecondsSince(Date{-1}), kMax / 1000);
  EXPECT_EQ(Date{kMax}.millisecondsSince(Date{kMin}), kMax / 1000);
  EXPECT_EQ(Date{0}.millisecondsSince(Date{kMin}), kMax / 1000);
  EXPECT_EQ(Date{-1}.millisecondsSince(Date{kMin}), kMax / 1000) << "just fits";
  EXPECT_EQ(Date{-2}.millisecondsSince(Date{kMax}), kMin / 1000);
  EXPECT_EQ(Date{kMin}.millisecondsSince(Date{kMax}), kMin / 1000);
  EXPECT_EQ(Date{kMin}.millisecondsSince(Date{0}), kMin / 1000);
  EXPECT_EQ(Date{kMax}.millisecondsSince(Date{0}), kMax / 1000);
}

}  // namespace
}  // namespace morvik::test
