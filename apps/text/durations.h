// Durations as people write them: "500ms", "10s", "1d 2h", "1.5s".
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace morvik_text {

/// Ten years of 365 days; a longer duration is refused.
inline constexpr std::int64_t kMaxDurationMilliseconds = std::int64_t{10} * 365 * 24 * 3600 * 1000;

/// Milliseconds. Numbers with the units d, h, m, s and ms, each at most once and the larger ones first; a fraction of
/// up to three digits is allowed. Nothing for any other text, for a fraction of a millisecond, and past
/// kMaxDurationMilliseconds.
std::optional<std::int64_t> readDuration(std::string_view text);

/// As readDuration() reads it: "10s 500ms", "1d 2h".
std::string durationText(std::int64_t milliseconds);

}  // namespace morvik_text
