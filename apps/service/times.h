// Points in time: whole milliseconds since 1970, and their texts. Everything is UTC.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace morvik_service {

/// Asked for the present; a value so that a test can hold time still.
using Clock = std::function<std::int64_t()>;

/// The system's clock.
std::int64_t systemTimeMilliseconds();

/// "2026-03-04T05:06:07.089Z".
std::string isoTime(std::int64_t time_milliseconds);

/// "20260304050607", the form of the dates in answers.
std::string compactTime(std::int64_t time_milliseconds);

}  // namespace morvik_service
