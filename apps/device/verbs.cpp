#include "apps/device/verbs.h"

#include <algorithm>

#include "apps/device/words.h"

namespace morvik_device {
namespace {

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
  const auto verb = std::find_if(verbs().begin(), verbs().end(), [&](const Verb& v) { return v.name == name; });
  return verb == verbs().end() ? nullptr : &*verb;
}

std::string unknownVerb(std::string_view name) {
  std::string all;
  for (const Verb& verb : verbs())
    all += (all.empty() ? "" : ", ") + std::string(verb.name);
  return "\"" + std::string(name) + "\" is not a verb; use one of: " + all;
}

}  // namespace

std::string verbsHelp() {
  std::string text;
  for (const Verb& verb : verbs())
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
  if (const auto mistake = verb->read(rest, command.arguments))
    return std::string(name) + ": " + *mistake + "; write: " + form(*verb);
  return command;
}

}  // namespace morvik_device
