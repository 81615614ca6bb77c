// The verbs: one table of what can be said, how it is written, and what then happens.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "apps/device/actions.h"

namespace morvik_device {

/// A longer line is refused. Longer than any URL or record worth giving.
inline constexpr size_t kMaxLineBytes = size_t{4} * 1024 * 1024;
/// What takes seconds takes no more than a day.
inline constexpr double kMaxSeconds = 86400.0;

struct Verb {
  std::string_view name;
  std::string_view arguments;  ///< as they are written in the help
  std::string_view help;
  /// Reads what follows the verb. Returns what is wrong, or nothing.
  std::optional<std::string> (*read)(std::string_view rest, Arguments& arguments);
  Action act;
  /// Runs on the thread of the program, as on one of an app's own: the main queue goes on meanwhile.
  bool blocks_its_thread = false;
};

/// All verbs, in the order of the help.
std::span<const Verb> verbs();

/// One line for each verb.
std::string verbsHelp();
/// The line of the verb, or one line for people: there is none of that name.
std::string helpOf(std::string_view name);
/// What a line longer than kMaxLineBytes is told.
std::string lineTooLong();

/// A verb with its arguments, ready to run.
struct Command {
  const Verb* verb = nullptr;
  Arguments arguments;
};

/// Whether a line says nothing: blank, or a comment that begins with '#'.
bool saysNothing(std::string_view line);

/// Reads a line that says something. The text is one line for people: what is wrong and how to mend it.
std::variant<Command, std::string> readCommand(std::string_view line);

}  // namespace morvik_device
