// Calendars in time zones that a test chooses.
#pragma once

#include <atomic>
#include <optional>

#include "kit/clock.h"

namespace morvik::testing {

/// A zone with a fixed offset from UTC. Any thread; nothing blocks.
class FixedOffsetCalendar : public kit::Calendar {
 public:
  explicit FixedOffsetCalendar(int utc_offset_seconds = 0) : utc_offset_seconds_(utc_offset_seconds) {}
  /// The device travels to another zone.
  void setUtcOffset(int utc_offset_seconds) { utc_offset_seconds_ = utc_offset_seconds; }

  kit::CalendarComponents components(kit::Date date) const override;
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override;

 private:
  std::atomic<int> utc_offset_seconds_;
};

/// Central European time: UTC+1, and UTC+2 from the last Sunday of March, 01:00 UTC, to that of October. For a local
/// time that is skipped, date() gives the moment of the change; for one that occurs twice, the first. Any thread;
/// nothing blocks.
class SummerTimeCalendar : public kit::Calendar {
 public:
  kit::CalendarComponents components(kit::Date date) const override;
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override;
};

}  // namespace morvik::testing
