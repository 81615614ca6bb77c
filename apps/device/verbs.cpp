#include "apps/device/verbs.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "apps/device/words.h"
#include "host/json/simdjson_codec.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

using Mistake = std::optional<std::string>;

constexpr size_t kAnyNumber = static_cast<size_t>(-1);

// Between Least and Most words.
template <size_t Least, size_t Most>
Mistake words(std::string_view rest, Arguments& arguments) {
  if (auto mistake = splitWords(rest, arguments.words))
    return mistake;
  if (arguments.words.size() < Least)
    return arguments.words.empty() ? "the arguments are missing" : "an argument is missing";
  if (arguments.words.size() > Most)
    return "there are more arguments than it takes";
  return std::nullopt;
}

// A group, a name and perhaps a parameter; one that begins with a brace is JSON and takes the rest of the line as it
// is.
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
  return words<kGroupAndName, kGroupAndName + 1>(rest, arguments);
}

// A number of seconds, which may have a fraction, from `least` to `most`.
Mistake number(std::string_view rest, double least, double most, double& seconds) {
  const char* end = rest.data() + rest.size();
  const auto [stopped, error] = std::from_chars(rest.data(), end, seconds);
  if (error != std::errc() || stopped != end || !std::isfinite(seconds))
    return "\"" + std::string(rest) + "\" is no number of seconds";
  if (seconds < least || seconds > most)
    return "\"" + std::string(rest) + "\" is out of range";
  return std::nullopt;
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
    return "the rest of the line is no JSON (" + error->message + ")";
  arguments.json = std::move(std::get<kit::Value>(read));
  return std::nullopt;
}

// The name of a stored property, and the rest of the line as JSON.
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
    return "\"" + std::string(rest) + "\" is no whole number of 32 bits";
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

constexpr Verb kVerbs[] = {
    {"active", "", "the app becomes active", words<0, 0>, becomeActive},
    {"background", "", "the app enters the background", words<0, 0>, enterBackground},
    {"event", "GROUP NAME [PARAM]", "records an activity; a PARAM from '{' on is the rest of the line", eventWords,
     recordEvent},
    {"impression", "JSON", "records an impression: campaignKey, spaceKey, resourceKey, conversionKey, isFirstTime",
     json, recordImpression},
    {"open-url", "URL", "a URL opens the app", words<1, 1>, openUrl},
    {"store-url", "URL", "keeps a URL that opened the app for the next session start", words<1, 1>, storeUrl},
    {"facebook-url", "URL", "passes a referral URL obtained from Facebook", words<1, 1>, passFacebookUrl},
    {"third-party-conversion", "", "reports the install as a third party conversion", words<0, 0>,
     reportThirdPartyConversion},
    {"age", "N", "tells the user's age", wholeNumber, setAge},
    {"gender", "N", "tells the user's gender: 1 female, 2 male", wholeNumber, setGender},
    {"user-id", "TEXT", "tells the app's own name for the user", words<1, 1>, setUserId},
    {"clear-user-id", "", "takes the user id back, also one that waits to be sent", words<0, 0>, clearUserId},
    {"forget-me", "true|false", "the user asks to be forgotten, or takes that back", trueOrFalse, forgetMe},
    {"is-forgotten", "", "tells whether the user is marked as forgotten", words<0, 0>, tellWhetherForgotten},
    {"offline", "", "the network status says that there is no network; the transport stays", words<0, 0>, goOffline},
    {"online", "", "the network status says what is there again", words<0, 0>, goOnline},
    {"set", "PROPERTY JSON", "writes a stored property; null makes it absent", propertyAndJson, setStored},
    {"push", "", "sends what is stored", words<0, 0>, push},
    {"flush", "[SECONDS]", "has what is recorded delivered, and waits for it, at most that long (30 s)",
     durationOrNothing, flush},
    {"wait-delivered", "[SECONDS]", "the same from a thread of the app's own, which is blocked meanwhile",
     durationOrNothing, waitDelivered, true},
    {"sending", "on|off", "lets the kit send, or holds it back but for an erasure", onOrOff, switchSending},
    {"wait", "SECONDS", "lets time pass", duration, wait},
    {"clock", "SECONDS", "moves the device's wall clock forward or back; timers are not touched", clockStep, moveClock},
    {"settle", "[SECONDS]", "runs until nothing is in flight, at most that long (30 s)", durationOrNothing, settle},
    {"store", "[PROPERTY ...]", "prints these stored properties, or all", words<0, kAnyNumber>, showStore},
    {"status", "", "prints how the kit stands: session, attribution, what waits, the latest answers", words<0, 0>,
     showStatus},
    {"ledger", "", "prints what became of all that was recorded", words<0, 0>, showLedger},
    {"crash", "TEXT", "throws it, uncaught, on a thread of the app's", words<1, 1>, crash},
    {"crash-signal", "NAME", "ends the process by that signal, SIGSEGV say, as a crash of the kit's", signal,
     crashBySignal},
    {"kill", "", "ends the process by SIGKILL, at once", words<0, 0>, killProcess},
    {"erase", "", "removes what the kit keeps, but for the wish to be forgotten, and ends the program", words<0, 0>,
     erase},
    {"quit", "[SECONDS]", "orderly shutdown, after a flush that may take so long (none); so does the end of input",
     durationOrNothing, quit},
};

std::string form(const Verb& verb) {
  return std::string(verb.name) + (verb.arguments.empty() ? "" : " ") + std::string(verb.arguments);
}

std::string helpLine(const Verb& verb) {
  constexpr size_t kColumn = 28;
  std::string written = "  " + form(verb);
  written.resize(std::max(written.size() + 1, kColumn), ' ');
  return written + std::string(verb.help) + "\n";
}

const Verb* verbNamed(std::string_view name) {
  const auto* verb = std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const Verb& v) { return v.name == name; });
  return verb == std::end(kVerbs) ? nullptr : verb;
}

std::string unknownVerb(std::string_view name) {
  std::string all;
  for (const Verb& verb : kVerbs)
    all += (all.empty() ? "" : ", ") + std::string(verb.name);
  return "\"" + std::string(name) + "\" is no verb; use one of: " + all;
}

}  // namespace

std::span<const Verb> verbs() {
  return kVerbs;
}

std::string verbsHelp() {
  std::string text;
  for (const Verb& verb : kVerbs)
    text += helpLine(verb);
  return text;
}

std::string helpOf(std::string_view name) {
  const Verb* const verb = verbNamed(name);
  return verb != nullptr ? helpLine(*verb) : unknownVerb(name) + "\n";
}

std::string lineTooLong() {
  return "the line is longer than " + std::to_string(kMaxLineBytes) + " bytes; give less at once";
}

bool saysNothing(std::string_view line) {
  line = trimmed(line);
  return line.empty() || line.front() == '#';
}

std::variant<Command, std::string> readCommand(std::string_view line) {
  std::string_view rest = line;
  const std::string_view name = takeBareWord(rest);
  const Verb* const verb = verbNamed(name);
  if (verb == nullptr)
    return unknownVerb(name);
  Command command{verb, {}};
  if (const Mistake mistake = verb->read(rest, command.arguments))
    return std::string(name) + ": " + *mistake + "; write: " + form(*verb);
  return command;
}

}  // namespace morvik_device
