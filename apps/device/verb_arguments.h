// The arguments of verbs, and their readers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"

namespace morvik_device {

/// The longest time is a day.
inline constexpr double kMaxSeconds = 86400.0;
/// The wall clock moves by at most a hundred years at once.
inline constexpr double kMaxClockStepSeconds = 3.2e9;

/// The arguments of a verb.
struct Arguments {
  std::vector<std::string> words;
  std::optional<double> seconds;
  std::optional<int32_t> number;
  std::optional<bool> flag;
  morvik::kit::Value json;
};

/// The seconds in whole milliseconds, rounded up.
std::chrono::milliseconds millisecondsOf(double seconds);

/// The fatal signal of that name, or nothing.
std::optional<int> fatalSignal(const std::string& name);

/// Reads what follows a verb into `arguments`. Returns what is wrong, or nothing.
using ReadArguments = std::optional<std::string> (*)(std::string_view rest, Arguments& arguments);

namespace reading {

inline constexpr size_t kAnyNumber = std::numeric_limits<size_t>::max();

std::optional<std::string> wordsBetween(std::string_view rest, size_t least, size_t most, Arguments& arguments);

/// From Least to Most words.
template <size_t Least, size_t Most = Least>
std::optional<std::string> words(std::string_view rest, Arguments& arguments) {
  return wordsBetween(rest, Least, Most, arguments);
}

/// A group, a name and optionally a parameter. A parameter that begins with a brace is JSON and takes the rest of the
/// line as it is.
std::optional<std::string> eventWords(std::string_view rest, Arguments& arguments);
/// Seconds from 0 to kMaxSeconds.
std::optional<std::string> duration(std::string_view rest, Arguments& arguments);
std::optional<std::string> durationOrNothing(std::string_view rest, Arguments& arguments);
/// Seconds from -kMaxClockStepSeconds to kMaxClockStepSeconds.
std::optional<std::string> clockStep(std::string_view rest, Arguments& arguments);
std::optional<std::string> json(std::string_view rest, Arguments& arguments);
/// The name of a stored property, then JSON.
std::optional<std::string> propertyAndJson(std::string_view rest, Arguments& arguments);
/// A whole number of 32 bits.
std::optional<std::string> wholeNumber(std::string_view rest, Arguments& arguments);
std::optional<std::string> trueOrFalse(std::string_view rest, Arguments& arguments);
std::optional<std::string> onOrOff(std::string_view rest, Arguments& arguments);
/// The name of a fatal signal.
std::optional<std::string> signal(std::string_view rest, Arguments& arguments);

}  // namespace reading
}  // namespace morvik_device
