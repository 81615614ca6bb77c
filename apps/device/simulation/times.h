// Lengths of time as people write them: "500ms", "10s", "1d 2h", "1.5s"; and ranges of them: "0s..20s".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace morvik_device::simulation {

inline constexpr double kMillisecondsPerSecond = 1000.0;
/// Ten years of 365 days: longer lives are refused.
inline constexpr int64_t kMaxMilliseconds = int64_t{10} * 365 * 24 * 3600 * 1000;

struct TimeRange {
  int64_t least_milliseconds = 0;
  int64_t most_milliseconds = 0;
  friend bool operator==(TimeRange, TimeRange) = default;
};

/// Numbers with the units d, h, m, s and ms, each at most once and the larger ones first; a fraction of up to three
/// digits is allowed. Nothing for any other text, for one that is no whole number of milliseconds, and past
/// kMaxMilliseconds.
std::optional<int64_t> readTime(std::string_view text);
/// The same, with an optional sign.
std::optional<int64_t> readSignedTime(std::string_view text);
/// "A..B" with A not larger than B, or one time, which is then both.
std::optional<TimeRange> readTimeRange(std::string_view text);

/// The forms that readTime() reads, for messages.
inline constexpr const char* kTimeForms = "a time like 500ms, 10s, 1.5s or 1d 2h";

/// As a clock that began at zero: "0:00:10.500", "1d 2:00:00.000".
std::string clockText(int64_t milliseconds);
/// As readTime() reads it: "10s 500ms", "1d 2h".
std::string timeText(int64_t milliseconds);

}  // namespace morvik_device::simulation
