#include "testing/fake_calendar.h"

#include "services/dates.h"

namespace morvik::testing {
namespace {

constexpr int kWinterOffsetSeconds = 3600;
constexpr int kSummerOffsetSeconds = 7200;
constexpr int64_t kMicrosecondsPerDay = int64_t{86'400} * 1'000'000;
constexpr int kMarch = 3;
constexpr int kOctober = 10;

/// 01:00 UTC on the last Sunday of a month with 31 days.
kit::Date lastSundayAtOne(int64_t year, int month) {
  const kit::Date last_day = services::dateFromCivil({year, month, 31, 1, 0, 0}, 0).value_or(kit::Date{});
  // 1970-01-01 was a Thursday; earlier dates count down.
  const int64_t days = last_day.microseconds / kMicrosecondsPerDay - (last_day.microseconds < 0 ? 1 : 0);
  const int64_t after_sunday = ((days + 4) % 7 + 7) % 7;
  return {last_day.microseconds - after_sunday * kMicrosecondsPerDay};
}

int offsetAt(kit::Date date) {
  const int64_t year = services::civilAt(date, kWinterOffsetSeconds).year;
  const bool summer = date >= lastSundayAtOne(year, kMarch) && date < lastSundayAtOne(year, kOctober);
  return summer ? kSummerOffsetSeconds : kWinterOffsetSeconds;
}

}  // namespace

kit::CalendarComponents FixedOffsetCalendar::components(kit::Date date) const {
  return services::civilAt(date, utc_offset_seconds_);
}

std::optional<kit::Date> FixedOffsetCalendar::date(const kit::CalendarComponents& components) const {
  return services::dateFromCivil(components, utc_offset_seconds_);
}

kit::CalendarComponents SummerTimeCalendar::components(kit::Date date) const {
  return services::civilAt(date, offsetAt(date));
}

std::optional<kit::Date> SummerTimeCalendar::date(const kit::CalendarComponents& components) const {
  // The summer reading comes first, so it is the first of a time that occurs twice.
  for (const int offset : {kSummerOffsetSeconds, kWinterOffsetSeconds}) {
    const auto date = services::dateFromCivil(components, offset);
    if (!date || offsetAt(*date) == offset)
      return date;
  }
  return lastSundayAtOne(components.year, kMarch);
}

}  // namespace morvik::testing
