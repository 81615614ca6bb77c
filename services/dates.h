// Dates as text, in zones that need no time-zone data. kit::Calendar has the device's own zone.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kit/clock.h"

namespace morvik::services {

/// Civil time of `date` at a fixed offset from UTC. Total: every date has one (years may be negative or beyond 9999).
kit::CalendarComponents civilAt(kit::Date date, int utc_offset_seconds);

/// The date of a civil time at a fixed offset from UTC; nothing if the components are not a real date and time of day.
std::optional<kit::Date> dateFromCivil(const kit::CalendarComponents& components, int utc_offset_seconds);

/// True for a real date of the Gregorian calendar and a time of day from 00:00:00 to 23:59:59.
bool isRealDate(const kit::CalendarComponents& components);

/// "yyyyMMddHHmmss" at UTC+9.
std::string koreaDateText(kit::Date date);
/// "yyyyMMddHHmmss" in UTC.
std::string utcDateText(kit::Date date);
/// "yyyy-MM-dd HH:mm:ss" at UTC+9.
std::string koreaDateTimeText(kit::Date date);
/// "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC; a fraction of a second is cut off.
std::string utcIsoDateText(kit::Date date);
/// "yyyy-MM-dd'T'HH:mm:ss'Z'" in UTC; fractions of a second follow the seconds when there are any.
std::string iso8601(kit::Date date);
/// Reads "yyyy-MM-ddTHH:mm:ss", an optional fraction of up to six digits, then "Z" or an offset like "+09:00".
std::optional<kit::Date> dateFromIso8601(std::string_view text);

/// The formatter of server dates: pattern "yyyyMMddHHmmss" in the device's zone. Strict: exactly 14 digits and a real
/// date.
class DateFormatter {
 public:
  explicit DateFormatter(const kit::Calendar& calendar) : calendar_(&calendar) {}
  std::optional<kit::Date> dateFromString(std::string_view text) const;

 private:
  const kit::Calendar* calendar_;
};

}  // namespace morvik::services
