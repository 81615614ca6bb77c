// The machine's wall clock and calendar.
#pragma once

#include <chrono>
#include <string>

#include "runtime/machine/machine.h"

namespace morvik::host {

/// Any thread.
class SystemClock final : public runtime::MachineClock {
 public:
  kit::Date now() const override;
  std::chrono::steady_clock::time_point steadyNow() const override { return std::chrono::steady_clock::now(); }
};

/// The Gregorian calendar in the zone of the environment's TZ, as set when the object was made.
class SystemCalendar final : public runtime::MachineCalendar {
 public:
  SystemCalendar();
  kit::CalendarComponents components(kit::Date date) const override;
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override;
  /// The zone's name: "Asia/Seoul" if the machine knows it, else its abbreviation. Any thread; may read a link of the
  /// file system.
  std::string zoneName() const override;
};

}  // namespace morvik::host
