#include "apps/device/scenario/times.h"

#include <cstdio>

namespace morvik_device::scenario {

std::optional<int64_t> readSignedTime(std::string_view text) {
  const bool has_sign = !text.empty() && (text.front() == '-' || text.front() == '+');
  const auto time = readDuration(has_sign ? text.substr(1) : text);
  return time && text.front() == '-' ? std::optional(-*time) : time;
}

std::optional<TimeRange> readTimeRange(std::string_view text) {
  const size_t dots = text.find("..");
  const auto least = readDuration(text.substr(0, dots));
  const auto most = dots == std::string_view::npos ? least : readDuration(text.substr(dots + 2));
  if (!least || !most || *least > *most)
    return std::nullopt;
  return TimeRange{*least, *most};
}

std::string clockText(int64_t milliseconds) {
  constexpr int64_t kSecond = 1000, kMinute = 60 * kSecond, kHour = 60 * kMinute, kDay = 24 * kHour;
  const int64_t days = milliseconds / kDay;
  const int64_t rest = milliseconds % kDay;
  char text[32];
  std::snprintf(text, sizeof text, "%d:%02d:%02d.%03d", static_cast<int>(rest / kHour),
                static_cast<int>(rest / kMinute % 60), static_cast<int>(rest / kSecond % 60),
                static_cast<int>(rest % kSecond));
  return (days > 0 ? std::to_string(days) + "d " : "") + text;
}

}  // namespace morvik_device::scenario
