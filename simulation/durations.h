// Spans of time in which simulated lives are told.
#pragma once

namespace morvik::simulation {

inline constexpr double kMinuteSeconds = 60;
inline constexpr double kHourSeconds = 3'600;
inline constexpr double kDaySeconds = 86'400;
/// As long as the system lets an app finish what it does.
inline constexpr double kGrantSeconds = 35;

}  // namespace morvik::simulation
