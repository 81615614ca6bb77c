#include "services/dates.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

namespace morvik::services {
namespace {

using kit::CalendarComponents;
using kit::Date;

constexpr int64_t kMaxMicroseconds = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinMicroseconds = std::numeric_limits<int64_t>::min();

/// A device at a fixed offset that remembers what it was asked.
class FixedCalendar : public kit::Calendar {
 public:
  explicit FixedCalendar(int utc_offset_seconds) : utc_offset_seconds_(utc_offset_seconds) {}
  CalendarComponents components(Date date) const override { return civilAt(date, utc_offset_seconds_); }
  std::optional<Date> date(const CalendarComponents& components) const override {
    ++asked;
    return dateFromCivil(components, utc_offset_seconds_);
  }
  mutable int asked = 0;

 private:
  int utc_offset_seconds_;
};

TEST(Dates, KnowsSomeMomentsByHeart) {
  struct Row {
    int64_t seconds;
    CalendarComponents civil;
  };
  const Row rows[] = {
      {0, {1970, 1, 1, 0, 0, 0}},
      {-1, {1969, 12, 31, 23, 59, 59}},
      {951'782'400, {2000, 2, 29, 0, 0, 0}},
      {951'868'800, {2000, 3, 1, 0, 0, 0}},
      {4'107'542'400, {2100, 3, 1, 0, 0, 0}},  // 2100 has no leap day
      {4'107'542'399, {2100, 2, 28, 23, 59, 59}},
      {-62'135'596'800, {1, 1, 1, 0, 0, 0}},
      {-62'167'219'200, {0, 1, 1, 0, 0, 0}},
      {-62'167'219'201, {-1, 12, 31, 23, 59, 59}},
      {253'402'300'799, {9999, 12, 31, 23, 59, 59}},
      {253'402'300'800, {10000, 1, 1, 0, 0, 0}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(civilAt(Date::fromSeconds(row.seconds), 0), row.civil) << row.seconds;
    EXPECT_EQ(dateFromCivil(row.civil, 0), Date::fromSeconds(row.seconds)) << row.seconds;
  }
}

TEST(Dates, RoundTripOverTheWholeRangeAndEveryOffset) {
  std::mt19937_64 random(292'000);
  for (int i = 0; i < 100'000; ++i) {
    const auto microseconds = static_cast<int64_t>(random());
    const int offset = static_cast<int>(random() % (48 * 3600)) - 24 * 3600;
    const int64_t seconds = microseconds / 1'000'000;
    const Date date = Date::fromSeconds(seconds);
    const CalendarComponents civil = civilAt(date, offset);
    ASSERT_TRUE(isRealDate(civil)) << microseconds;
    ASSERT_EQ(dateFromCivil(civil, offset), date) << microseconds;
  }
}

TEST(Dates, FollowOneAnotherDayByDay) {
  CalendarComponents before = civilAt(Date::fromSeconds(-800LL * 366 * 86'400), 0);
  for (int64_t day = -800LL * 366 + 1; day < 800LL * 366; ++day) {
    const CalendarComponents civil = civilAt(Date::fromSeconds(day * 86'400), 0);
    const bool next_day = civil.year == before.year && civil.month == before.month && civil.day == before.day + 1;
    const bool next_month = civil.year == before.year && civil.month == before.month + 1 && civil.day == 1;
    const bool next_year =
        civil.year == before.year + 1 && civil.month == 1 && civil.day == 1 && before.month == 12 && before.day == 31;
    ASSERT_TRUE(next_day || next_month || next_year) << day;
    ASSERT_TRUE(isRealDate(civil)) << day;
    before = civil;
  }
}

TEST(Dates, HaveACivilTimeAtBothEndsOfTheRange) {
  EXPECT_EQ(civilAt(Date{kMaxMicroseconds}, 0), (CalendarComponents{294247, 1, 10, 4, 0, 54}));
  EXPECT_EQ(civilAt(Date{kMinMicroseconds}, 0), (CalendarComponents{-290308, 12, 21, 19, 59, 5}));
  EXPECT_EQ(iso8601(Date{kMaxMicroseconds}), "294247-01-10T04:00:54.775807Z");
  EXPECT_EQ(iso8601(Date{kMinMicroseconds}), "-290308-12-21T19:59:05.224192Z");
  EXPECT_EQ(koreaDateText(Date{kMaxMicroseconds}), "2942470110130054");
}

TEST(Dates, BeyondTheRangeSaturate) {
  EXPECT_EQ(dateFromCivil({300'000, 1, 1, 0, 0, 0}, 0), Date{kMaxMicroseconds});
  EXPECT_EQ(dateFromCivil({-300'000, 1, 1, 0, 0, 0}, 0), Date{kMinMicroseconds});
  EXPECT_EQ(dateFromCivil({300'001, 1, 1, 0, 0, 0}, 0), std::nullopt);
  EXPECT_EQ(dateFromCivil({kMinMicroseconds, 1, 1, 0, 0, 0}, 0), std::nullopt);
}

TEST(Dates, RefuseComponentsThatNameNoRealDate) {
  const CalendarComponents bad[] = {
      {2023, 0, 1, 0, 0, 0},   {2023, 13, 1, 0, 0, 0}, {2023, 1, 0, 0, 0, 0},   {2023, 1, 32, 0, 0, 0},
      {2023, 3, 32, 0, 0, 0},  {2023, 5, 32, 0, 0, 0}, {2023, 6, 31, 0, 0, 0},  {2023, 7, 32, 0, 0, 0},
      {2023, 8, 32, 0, 0, 0},  {2023, 9, 31, 0, 0, 0}, {2023, 10, 32, 0, 0, 0}, {2023, 11, 31, 0, 0, 0},
      {2023, 12, 32, 0, 0, 0}, {2023, 4, 31, 0, 0, 0}, {2023, 2, 29, 0, 0, 0},  {2100, 2, 29, 0, 0, 0},
      {2024, 2, 30, 0, 0, 0},  {2023, 1, 1, 24, 0, 0}, {2023, 1, 1, -1, 0, 0},  {2023, 1, 1, 0, 60, 0},
      {2023, 1, 1, 0, -1, 0},  {2023, 1, 1, 0, 0, 60}, {2023, 1, 1, 0, 0, -1},  {2023, -1, 1, 0, 0, 0},
      {2023, 1, -1, 0, 0, 0},
  };
  for (const CalendarComponents& civil : bad) {
    EXPECT_FALSE(isRealDate(civil)) << civil.year << '-' << civil.month << '-' << civil.day << ' ' << civil.hour;
    EXPECT_EQ(dateFromCivil(civil, 0), std::nullopt);
  }
  EXPECT_TRUE(isRealDate({2024, 2, 29, 23, 59, 59}));
  EXPECT_TRUE(isRealDate({2000, 2, 29, 0, 0, 0}));
}

TEST(Dates, WriteFourteenDigitsAtNineHoursEastAndInUtc) {
  const Date date = Date::fromSeconds(1'704'034'800);  // 31 December 2023, 15:00 UTC
  EXPECT_EQ(koreaDateText(date), "20240101000000");
  EXPECT_EQ(utcDateText(date), "20231231150000");
  EXPECT_EQ(koreaDateText(Date{date.microseconds - 1}), "20231231235959");
  EXPECT_EQ(utcDateText(Date{-1}), "19691231235959");
  EXPECT_EQ(utcDateText(Date::fromSeconds(-62'135'596'800)), "00010101000000");
}

TEST(Dates, WriteIso8601WithAFractionOnlyWhenThereIsOne) {
  EXPECT_EQ(iso8601(Date{0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(iso8601(Date{1}), "1970-01-01T00:00:00.000001Z");
  EXPECT_EQ(iso8601(Date{1'500'000}), "1970-01-01T00:00:01.500000Z");
  EXPECT_EQ(iso8601(Date{-1}), "1969-12-31T23:59:59.999999Z");
  EXPECT_EQ(iso8601(Date::fromSeconds(-62'167'219'201)), "-0001-12-31T23:59:59Z");
}

TEST(Dates, AreWrittenForPeopleInKorea) {
  EXPECT_EQ(koreaDateTimeText(Date{0}), "1970-01-01 09:00:00");
  EXPECT_EQ(koreaDateTimeText(Date{1'709'303'440'999'999}), "2024-03-01 23:30:40");
  EXPECT_EQ(koreaDateTimeText(Date{-1}), "1970-01-01 08:59:59");
}

TEST(Dates, AreWrittenInIsoFormWithoutAFraction) {
  EXPECT_EQ(utcIsoDateText(Date{0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(utcIsoDateText(Date{1'709'303'440'999'999}), "2024-03-01T14:30:40Z");
  EXPECT_EQ(utcIsoDateText(Date{-1}), "1969-12-31T23:59:59Z");
}

TEST(Dates, ReadEveryIso8601FormThatIsKnown) {
  struct Row {
    const char* text;
    int64_t microseconds;
  };
  const Row rows[] = {
      {"1970-01-01T00:00:00Z", 0},
      {"2023-11-14T22:13:20Z", 1'700'000'000'000'000},
      {"2023-11-15T07:13:20+09:00", 1'700'000'000'000'000},
      {"2023-11-14T16:43:20-05:30", 1'700'000'000'000'000},
      {"1970-01-01T00:00:00.5Z", 500'000},
      {"1970-01-01T00:00:00.000001Z", 1},
      {"1970-01-01T00:00:00.123456-00:00", 123'456},
      {"1969-12-31T23:59:59.999999Z", -1},
      {"0000-01-01T00:00:00Z", -62'167'219'200'000'000},
      {"9999-12-31T23:59:59.999999Z", 253'402'300'799'999'999},
  };
  for (const Row& row : rows)
    EXPECT_EQ(dateFromIso8601(row.text), Date{row.microseconds}) << row.text;
}

TEST(Dates, RefuseTextThatIsNoIso8601Date) {
  for (const char* text : {"",
                           "Z",
                           "1970-01-01",
                           "1970-01-01T00:00:00",
                           "1970-01-01 00:00:00Z",
                           "1970-1-1T00:00:00Z",
                           "1970-01-01T00:00Z",
                           "1970-01-01T00:00:00.Z",
                           "1970-01-01T00:00:00.1234567Z",
                           "1970-01-01T00:00:00+0900",
                           "1970-01-01T00:00:00+24:00",
                           "1970-01-01T00:00:00+09:60",
                           "1970-01-01T00:00:00+9:00",
                           "1970-01-01T00:00:00Zx",
                           " 1970-01-01T00:00:00Z",
                           "1970-01-01T00:00:00Z ",
                           "1970-02-30T00:00:00Z",
                           "1970-01-01T24:00:00Z",
                           "1970-01-01T00:00:60Z",
                           "-001-01-01T00:00:00Z",
                           "+970-01-01T00:00:00Z",
                           "1970-01-01t00:00:00z",
                           "1970/01/01T00:00:00Z",
                           "10000-01-01T00:00:00Z"}) {
    EXPECT_EQ(dateFromIso8601(text), std::nullopt) << text;
  }
}

TEST(Dates, ReadBackWhatTheyWroteInIso8601) {
  std::mt19937_64 random(8601);
  for (int i = 0; i < 20'000; ++i) {
    // From the year 0 to the end of 9999, where years have four digits.
    const auto spread = static_cast<int64_t>(random() % 315'569'520'000'000'000ULL);
    const Date date{spread - 62'167'219'200'000'000};
    ASSERT_EQ(dateFromIso8601(iso8601(date)), date) << iso8601(date);
  }
}

TEST(Dates, NeverReadAnythingFromRandomBytesThatTheyWouldNotWrite) {
  std::mt19937_64 random(99);
  const std::string alphabet = "0123456789-T:.Z+";
  for (int i = 0; i < 50'000; ++i) {
    std::string text = "2024-02-29T12:34:56.789012Z";
    for (size_t change = 0; change < 1 + random() % 3; ++change)
      text[random() % text.size()] = alphabet[random() % alphabet.size()];
    if (const auto date = dateFromIso8601(text)) {
      ASSERT_EQ(dateFromIso8601(iso8601(*date)), date) << text;
    }
  }
}

TEST(DateFormatter, ReadsFourteenDigitsInTheDevicesZone) {
  const FixedCalendar korea(9 * 3600);
  EXPECT_EQ(DateFormatter(korea).dateFromString("20240101000000"), Date::fromSeconds(1'704'034'800));
  const FixedCalendar utc(0);
  EXPECT_EQ(DateFormatter(utc).dateFromString("20240229235959"), Date::fromSeconds(1'709'251'199));
}

TEST(DateFormatter, IsStrict) {
  const FixedCalendar calendar(0);
  const DateFormatter formatter(calendar);
  for (const char* text :
       {"", "2024010100000", "202401010000000", "2024-01-01 00:00", "20240101 00000", "20240101000000 ",
        " 0240101000000", "20240230000000", "20230229000000", "20241301000000", "20240001000000", "20240100000000",
        "20240101240000", "20240101006000", "20240101000060", "2024010100000a", "-0240101000000",
        "\xEF\xBC\x92\x30\x32\x34\x30\x31\x30\x31\x30\x30\x30"}) {
    EXPECT_EQ(formatter.dateFromString(text), std::nullopt) << text;
  }
  EXPECT_EQ(calendar.asked, 0);
}

}  // namespace
}  // namespace morvik::services
