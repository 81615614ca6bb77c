// Times of a scenario: durations, with a sign, and ranges of them: "-1h", "0s..20s".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "apps/text/durations.h"

namespace morvik_device::scenario {

using morvik_text::durationText;
using morvik_text::kMaxDurationMilliseconds;
using morvik_text::readDuration;

inline constexpr double kMillisecondsPerSecond = 1000.0;

struct TimeRange {
  int64_t least_milliseconds = 0;
  int64_t most_milliseconds = 0;
  friend bool operator==(TimeRange, TimeRange) = default;
};

/// Like readDuration(), with an optional sign.
std::optional<int64_t> readSignedTime(std::string_view text);
/// "A..B" with A not larger than B, or one time for both.
std::optional<TimeRange> readTimeRange(std::string_view text);

/// The forms that readDuration() reads, for messages.
inline constexpr const char* kTimeForms = "a time like 500ms, 10s, 1.5s or 1d 2h";

/// As a clock that started at zero: "0:00:10.500", "1d 2:00:00.000".
std::string clockText(int64_t milliseconds);

}  // namespace morvik_device::scenario
