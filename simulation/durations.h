// Durations used by simulated runs.
#pragma once

namespace morvik::simulation {

inline constexpr double kMinuteSeconds = 60;
inline constexpr double kHourSeconds = 3'600;
inline constexpr double kDaySeconds = 86'400;
/// How long the system lets an app finish its work.
inline constexpr double kGrantSeconds = 35;

}  // namespace morvik::simulation
