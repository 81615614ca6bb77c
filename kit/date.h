// A point in time. Integer microseconds, never a double, so that "whole milliseconds, truncated" is exact.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>

namespace morvik::kit {

/// Microseconds since 1970-01-01T00:00:00Z. Any 64-bit value is a date; arithmetic saturates instead of overflowing.
struct Date {
  int64_t microseconds = 0;

  friend constexpr bool operator==(Date a, Date b) { return a.microseconds == b.microseconds; }
  friend constexpr auto operator<=>(Date a, Date b) { return a.microseconds <=> b.microseconds; }

  static constexpr Date fromSeconds(int64_t seconds) {
    constexpr int64_t limit = std::numeric_limits<int64_t>::max() / 1'000'000;
    if (seconds > limit)
      return {std::numeric_limits<int64_t>::max()};
    if (seconds < -limit)
      return {std::numeric_limits<int64_t>::min()};
    return {seconds * 1'000'000};
  }

  /// Seconds since 1970 as a floating-point number, for the few places that send or compare one.
  constexpr double secondsSince1970() const { return static_cast<double>(microseconds) / 1e6; }

  /// This date moved by an offset in seconds (the server clock offset). Infinite offsets, and those that leave the
  /// range, are clamped to its ends; NaN moves nothing.
  Date shiftedBySeconds(double seconds) const;

  /// Whole milliseconds from `earlier` to this date, truncated toward zero; saturated at the ends of 64 bits.
  int64_t millisecondsSince(Date earlier) const;
};

}  // namespace morvik::kit
