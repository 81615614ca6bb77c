// The device's wall clock and calendar.
#pragma once

#include <cstdint>
#include <optional>

#include "kit/date.h"

namespace morvik::kit {

/// Wall-clock time. It may jump, forward and back; timers do not follow it.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Any thread, also one that is about to die; does not block and takes no lock.
  virtual Date now() const = 0;
};

/// Civil time, Gregorian. Month and day count from 1.
struct CalendarComponents {
  int64_t year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  friend bool operator==(const CalendarComponents&, const CalendarComponents&) = default;
};

/// The device's current calendar and time zone.
class Calendar {
 public:
  virtual ~Calendar() = default;
  /// Civil time of `date` in the device's zone, at that moment's offset. Any thread; does not block.
  virtual CalendarComponents components(Date date) const = 0;
  /// The date at which the device's zone shows these components; nothing if there is none (31 February, hour 25; a time
  /// skipped by a clock change may yield the moment of the change). Any thread; does not block.
  virtual std::optional<Date> date(const CalendarComponents& components) const = 0;
};

}  // namespace morvik::kit
