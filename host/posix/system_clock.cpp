#include "host/posix/system_clock.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

#include "services/dates.h"

namespace morvik::host {
namespace {

constexpr int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr int kTmYearZero = 1900;

int64_t floorSeconds(kit::Date date) {
  const int64_t whole = date.microseconds / kMicrosecondsPerSecond;
  return date.microseconds % kMicrosecondsPerSecond < 0 ? whole - 1 : whole;
}

kit::CalendarComponents fromTm(const std::tm& civil) {
  return {
      int64_t{civil.tm_year} + kTmYearZero, civil.tm_mon + 1, civil.tm_mday, civil.tm_hour, civil.tm_min, civil.tm_sec};
}

std::optional<std::tm> toTm(const kit::CalendarComponents& components) {
  const int64_t year = components.year - kTmYearZero;
  if (year < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max())
    return std::nullopt;
  std::tm civil{};
  civil.tm_year = static_cast<int>(year);
  civil.tm_mon = components.month - 1;
  civil.tm_mday = components.day;
  civil.tm_hour = components.hour;
  civil.tm_min = components.minute;
  civil.tm_sec = components.second;
  civil.tm_isdst = -1;
  return civil;
}

}  // namespace

kit::Date SystemClock::now() const {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count()};
}

SystemCalendar::SystemCalendar() {
  // localtime_r need not read the environment by itself.
  tzset();
}

kit::CalendarComponents SystemCalendar::components(kit::Date date) const {
  const std::time_t seconds = floorSeconds(date);
  std::tm civil{};
  if (localtime_r(&seconds, &civil) == nullptr)
    return services::civilAt(date, 0);
  return fromTm(civil);
}

std::optional<kit::Date> SystemCalendar::date(const kit::CalendarComponents& components) const {
  if (!services::isRealDate(components))
    return std::nullopt;
  std::optional<std::tm> civil = toTm(components);
  if (!civil)
    return std::nullopt;
  // One second before 1970 is a valid time; only an untouched weekday shows that there was none.
  civil->tm_wday = -1;
  const std::time_t seconds = std::mktime(&*civil);
  if (seconds == -1 && civil->tm_wday == -1)
    return std::nullopt;
  return kit::Date::fromSeconds(seconds);
}

std::string SystemCalendar::zoneName() const {
  if (const char* zone = std::getenv("TZ"); zone != nullptr && *zone != '\0')
    return *zone == ':' ? zone + 1 : zone;
  std::array<char, 256> target{};
  const ssize_t size = readlink("/etc/localtime", target.data(), target.size());
  const std::string_view path(target.data(), size > 0 ? static_cast<size_t>(size) : 0);
  constexpr std::string_view kFolder = "zoneinfo/";
  if (const size_t at = path.find(kFolder); at != std::string_view::npos)
    return std::string(path.substr(at + kFolder.size()));
  return tzname[0];
}

}  // namespace morvik::host
