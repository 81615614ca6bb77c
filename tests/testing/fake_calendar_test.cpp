#include "testing/fake_calendar.h"

#include <gtest/gtest.h>

#include "services/dates.h"

namespace morvik::test {
namespace {

kit::Date utc(std::string_view text) {
  return services::dateFromIso8601(text).value();
}

TEST(FixedOffsetCalendar, ShowsCivilTimeAtItsOffset) {
  testing::FixedOffsetCalendar calendar(9 * 3600);
  const kit::CalendarComponents civil{2024, 1, 1, 8, 30, 15};
  EXPECT_EQ(calendar.components(utc("2023-12-31T23:30:15Z")), civil);
  EXPECT_EQ(calendar.date(civil), utc("2023-12-31T23:30:15Z"));
  EXPECT_FALSE(calendar.date({2024, 2, 31, 0, 0, 0}));
  calendar.setUtcOffset(-3600);
  EXPECT_EQ(calendar.components(utc("2024-01-01T00:30:00Z")), (kit::CalendarComponents{2023, 12, 31, 23, 30, 0}));
}

TEST(SummerTimeCalendar, ChangesItsOffsetOnTheLastSundaysOfMarchAndOctober) {
  const testing::SummerTimeCalendar calendar;
  EXPECT_EQ(calendar.components(utc("2024-03-31T00:59:59Z")), (kit::CalendarComponents{2024, 3, 31, 1, 59, 59}));
  EXPECT_EQ(calendar.components(utc("2024-03-31T01:00:00Z")), (kit::CalendarComponents{2024, 3, 31, 3, 0, 0}));
  EXPECT_EQ(calendar.components(utc("2024-10-27T00:59:59Z")), (kit::CalendarComponents{2024, 10, 27, 2, 59, 59}));
  EXPECT_EQ(calendar.components(utc("2024-10-27T01:00:00Z")), (kit::CalendarComponents{2024, 10, 27, 2, 0, 0}));
  EXPECT_EQ(calendar.components(utc("2025-03-30T01:00:00Z")).hour, 3);
  EXPECT_EQ(calendar.components(utc("1965-07-01T12:00:00Z")).hour, 14);
  EXPECT_EQ(calendar.components(utc("1965-12-31T23:30:00Z")), (kit::CalendarComponents{1966, 1, 1, 0, 30, 0}));
}

TEST(SummerTimeCalendar, FindsTheDateOfACivilTime) {
  const testing::SummerTimeCalendar calendar;
  EXPECT_EQ(calendar.date({2024, 1, 15, 12, 0, 0}), utc("2024-01-15T11:00:00Z"));
  EXPECT_EQ(calendar.date({2024, 7, 15, 12, 0, 0}), utc("2024-07-15T10:00:00Z"));
  EXPECT_EQ(calendar.date({2024, 10, 27, 2, 30, 0}), utc("2024-10-27T00:30:00Z")) << "the first of two";
  EXPECT_EQ(calendar.date({2024, 3, 31, 2, 30, 0}), utc("2024-03-31T01:00:00Z")) << "skipped: the moment of the change";
  EXPECT_FALSE(calendar.date({2024, 2, 30, 12, 0, 0}));
  EXPECT_FALSE(calendar.date({2024, 2, 1, 25, 0, 0}));
}

}  // namespace
}  // namespace morvik::test
