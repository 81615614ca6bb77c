#include "apps/service/base/times.h"

#include <algorithm>
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

std::optional<std::int64_t> parseCompactTime(std::string_view text) {
  constexpr std::size_t kTimeDigits = 14;
  if (text.size() != kTimeDigits || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  const auto number = [&](std::size_t begin, std::size_t digits) {
    int value = 0;
    for (const char c : text.substr(begin, digits))
      value = value * 10 + (c - '0');
    return value;
  };
  using namespace std::chrono;
  const year_month_day date{year{number(0, 4)}, month{static_cast<unsigned>(number(4, 2))},
                            day{static_cast<unsigned>(number(6, 2))}};
  const int hour = number(8, 2), minute = number(10, 2), second = number(12, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 59)
    return std::nullopt;
  const sys_time<milliseconds> point = sys_days{date} + hours{hour} + minutes{minute} + seconds{second};
  return point.time_since_epoch().count();
}

}  // namespace morvik_service
