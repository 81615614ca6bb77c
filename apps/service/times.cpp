#include "apps/service/times.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace morvik_service {
namespace {

struct CivilTime {
  int year;
  unsigned month, day;
  int hour, minute, second, millisecond;
};

CivilTime civil(std::int64_t time_milliseconds) {
  using namespace std::chrono;
  const sys_time<milliseconds> point{milliseconds{time_milliseconds}};
  const auto days_part = floor<days>(point);
  const year_month_day date{days_part};
  const hh_mm_ss<milliseconds> clock{point - days_part};
  return {int{date.year()},
          unsigned{date.month()},
          unsigned{date.day()},
          static_cast<int>(clock.hours().count()),
          static_cast<int>(clock.minutes().count()),
          static_cast<int>(clock.seconds().count()),
          static_cast<int>(clock.subseconds().count())};
}

}  // namespace

std::int64_t systemTimeMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string isoTime(std::int64_t time_milliseconds) {
  const CivilTime t = civil(time_milliseconds);
  std::array<char, 80> text;
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", t.year, t.month, t.day, t.hour,
                t.minute, t.second, t.millisecond);
  return text.data();
}

std::string compactTime(std::int64_t time_milliseconds) {
  const CivilTime t = civil(time_milliseconds);
  std::array<char, 80> text;
  std::snprintf(text.data(), text.size(), "%04d%02u%02u%02d%02d%02d", t.year, t.month, t.day, t.hour, t.minute,
                t.second);
  return text.data();
}

}  // namespace morvik_service
