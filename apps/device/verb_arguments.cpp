#include "apps/device/verb_arguments.h"

#include <charconv>
#include <cmath>

#include "apps/device/words.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/fatal_signals.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

using Mistake = std::optional<std::string>;

// A number of seconds, which may have a fraction, from `least` to `most`.
Mistake number(std::string_view rest, double least, double most, double& seconds) {
  const char* end = rest.data() + rest.size();
  const auto [stopped, error] = std::from_chars(rest.data(), end, seconds);
  if (error != std::errc() || stopped != end || !std::isfinite(seconds))
    return "\"" + std::string(rest) + "\" is not a number of seconds";
  if (seconds < least || seconds > most)
    return "\"" + std::string(rest) + "\" is out of range";
  return std::nullopt;
}

}  // namespace

std::optional<int> fatalSignal(const std::string& name) {
  for (const int signal : morvik::host::fatalSignals()) {
    if (morvik::host::signalName(signal) == name)
      return signal;
  }
  return std::nullopt;
}

std::chrono::milliseconds millisecondsOf(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

namespace reading {

Mistake wordsBetween(std::string_view rest, size_t least, size_t most, Arguments& arguments) {
  if (auto mistake = splitWords(rest, arguments.words))
    return mistake;
  if (arguments.words.size() < least)
    return arguments.words.empty() ? "the arguments are missing" : "an argument is missing";
  if (arguments.words.size() > most)
    return "there are more arguments than it takes";
  return std::nullopt;
}

Mistake eventWords(std::string_view rest, Arguments& arguments) {
  constexpr size_t kGroupAndName = 2;
  for (rest = trimmed(rest); arguments.words.size() < kGroupAndName && !rest.empty();) {
    if (auto mistake = takeWord(rest, arguments.words.emplace_back()))
      return mistake;
  }
  if (arguments.words.size() == kGroupAndName && !rest.empty() && rest.front() == '{') {
    arguments.words.emplace_back(rest);
    return std::nullopt;
  }
  return wordsBetween(rest, kGroupAndName, kGroupAndName + 1, arguments);
}

Mistake duration(std::string_view rest, Arguments& arguments) {
  if (rest.empty())
    return "the seconds are missing";
  return number(rest, 0.0, kMaxSeconds, arguments.seconds.emplace());
}

Mistake durationOrNothing(std::string_view rest, Arguments& arguments) {
  return rest.empty() ? std::nullopt : duration(rest, arguments);
}

Mistake clockStep(std::string_view rest, Arguments& arguments) {
  if (rest.empty())
    return "the seconds are missing";
  return number(rest, -kMaxClockStepSeconds, kMaxClockStepSeconds, arguments.seconds.emplace());
}

Mistake json(std::string_view rest, Arguments& arguments) {
  if (rest.empty())
    return "the JSON is missing";
  auto read = morvik::host::SimdjsonCodec().read(rest);
  if (const auto* error = std::get_if<kit::Error>(&read))
    return "the rest of the line is not JSON (" + error->message + ")";
  arguments.json = std::move(std::get<kit::Value>(read));
  return std::nullopt;
}

Mistake propertyAndJson(std::string_view rest, Arguments& arguments) {
  const std::string_view name = takeBareWord(rest);
  if (name.empty())
    return "the arguments are missing";
  arguments.words.emplace_back(name);
  return json(rest, arguments);
}

Mistake wholeNumber(std::string_view rest, Arguments& arguments) {
  if (rest.empty())
    return "the number is missing";
  const char* end = rest.data() + rest.size();
  const auto [stopped, error] = std::from_chars(rest.data(), end, arguments.number.emplace());
  if (error != std::errc() || stopped != end)
    return "\"" + std::string(rest) + "\" is not a 32-bit whole number";
  return std::nullopt;
}

Mistake trueOrFalse(std::string_view rest, Arguments& arguments) {
  if (rest != "true" && rest != "false")
    return "say true or false";
  arguments.flag = rest == "true";
  return std::nullopt;
}

Mistake onOrOff(std::string_view rest, Arguments& arguments) {
  if (rest != "on" && rest != "off")
    return "say on or off";
  arguments.flag = rest == "on";
  return std::nullopt;
}

Mistake signal(std::string_view rest, Arguments& arguments) {
  if (!fatalSignal(std::string(rest)))
    return "say SIGSEGV, SIGABRT, SIGBUS, SIGFPE or SIGILL";
  arguments.words.emplace_back(rest);
  return std::nullopt;
}

}  // namespace reading
}  // namespace morvik_device
