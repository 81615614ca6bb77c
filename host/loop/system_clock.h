// The machine's wall clock, with a correction, and its calendar.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "kit/clock.h"

namespace morvik::host {

/// Any thread.
class SystemClock final : public kit::Clock {
 public:
  kit::Date now() const override;
  /// Moves what now() answers by so many seconds, forward or back, on top of earlier moves; the machine's clock and
  /// timers are not touched. Past the ends of what a date can hold it stays there.
  void moveBySeconds(double seconds);

 private:
  std::atomic<int64_t> offset_microseconds_{0};
};

/// The Gregorian calendar in the zone of the environment's TZ, as it was when the object was made.
class SystemCalendar final : public kit::Calendar {
 public:
  SystemCalendar();
  kit::CalendarComponents components(kit::Date date) const override;
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override;
  /// Name of the zone: "Asia/Seoul" where the machine says so, else its abbreviation. Any thread; may read a link of
  /// the file system.
  std::string zoneName() const;
};

}  // namespace morvik::host
