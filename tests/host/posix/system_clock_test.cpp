#include "host/posix/system_clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>

#include "services/dates.h"

namespace morvik::host {
namespace {

kit::Date machineNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration_cast<std::chrono::microseconds>(now).count()};
}

TEST(SystemClock, TellsTheMachinesTime) {
  const kit::Date before = machineNow();
  const kit::Date now = SystemClock().now();
  EXPECT_LE(before, now);
  EXPECT_LE(now, machineNow());
}

TEST(SystemClock, TellsTheMachinesSteadyTime) {
  const SystemClock clock;
  const auto before = std::chrono::steady_clock::now();
  const auto now = clock.steadyNow();
  EXPECT_LE(before, now);
  EXPECT_LE(now, std::chrono::steady_clock::now());
}

/// Sets TZ for a test; the tests of one program that do so run one after the other.
class Zone {
 public:
  explicit Zone(const char* name) {
    if (const char* before = std::getenv("TZ"))
      before_ = before;
    setenv("TZ", name, 1);
    tzset();
  }
  ~Zone() {
    if (before_)
      setenv("TZ", before_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> before_;
};

// A zone in this form needs no data files: one hour ahead of UTC, two between the last Sundays of March and October.
constexpr const char* kWithSummerTime = "AAA-1BBB,M3.5.0,M10.5.0/3";

TEST(SystemCalendar, ShowsCivilTimeInTheZoneOfTheEnvironment) {
  const Zone zone(kWithSummerTime);
  const SystemCalendar calendar;
  const kit::CalendarComponents winter{2024, 1, 15, 13, 0, 0};
  const kit::CalendarComponents summer{2024, 7, 15, 14, 0, 0};
  EXPECT_EQ(calendar.components(*services::dateFromIso8601("2024-01-15T12:00:00Z")), winter);
  EXPECT_EQ(calendar.components(*services::dateFromIso8601("2024-07-15T12:00:00Z")), summer);
  EXPECT_EQ(calendar.date(winter), services::dateFromIso8601("2024-01-15T12:00:00Z"));
  EXPECT_EQ(calendar.date(summer), services::dateFromIso8601("2024-07-15T12:00:00Z"));
}

TEST(SystemCalendar, ShowsMomentsBetweenTwoSecondsAndBefore1970) {
  const Zone zone("UTC0");
  const SystemCalendar calendar;
  const kit::CalendarComponents last{1969, 12, 31, 23, 59, 59};
  EXPECT_EQ(calendar.components(kit::Date{-1}), last);
  EXPECT_EQ(calendar.components(kit::Date{999'999}), (kit::CalendarComponents{1970, 1, 1, 0, 0, 0}));
  EXPECT_EQ(calendar.date(last), kit::Date::fromSeconds(-1));
}

TEST(SystemCalendar, ShowsTheEndsOfWhatADateCanHold) {
  const Zone zone("UTC0");
  const SystemCalendar calendar;
  for (const int64_t end : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()})
    EXPECT_EQ(calendar.components(kit::Date{end}), services::civilAt(kit::Date{end}, 0));
}

TEST(SystemCalendar, HasNoDateForWhatIsNone) {
  const SystemCalendar calendar;
  EXPECT_FALSE(calendar.date({2023, 2, 29, 0, 0, 0}));
  EXPECT_FALSE(calendar.date({2023, 4, 31, 0, 0, 0}));
  EXPECT_FALSE(calendar.date({2023, 1, 1, 25, 0, 0}));
  EXPECT_FALSE(calendar.date({2023, 13, 1, 0, 0, 0}));
  EXPECT_FALSE(calendar.date({std::numeric_limits<int64_t>::max(), 1, 1, 0, 0, 0}));
}

TEST(SystemCalendar, NamesTheZone) {
  const Zone zone("Asia/Seoul");
  EXPECT_EQ(SystemCalendar().zoneName(), "Asia/Seoul");
  const Zone with_colon(":Europe/Berlin");
  EXPECT_EQ(SystemCalendar().zoneName(), "Europe/Berlin");
}

}  // namespace
}  // namespace morvik::host
