// Points in time: whole milliseconds since 1970, and their texts. Everything is UTC.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace morvik_service {

/// Returns the current time; a value, so that a test can control time.
using Clock = std::function<std::int64_t()>;

/// The system's clock.
std::int64_t systemTimeMilliseconds();

/// "2026-03-04T05:06:07.089Z".
std::string isoTime(std::int64_t time_milliseconds);

/// "20260304050607", the form of the dates in answers.
std::string compactTime(std::int64_t time_milliseconds);

/// The reverse of `compactTime`; nothing when the text is not exactly 14 digits of a real date and time.
std::optional<std::int64_t> parseCompactTime(std::string_view text);

}  // namespace morvik_service
