// The verbs that `run` reads. The rows are in verb_table.cpp.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "apps/device/verb_arguments.h"

namespace morvik_device {

/// A longer line is refused. No useful URL or record is as long.
inline constexpr size_t kMaxLineBytes = size_t{4} * 1024 * 1024;

class Phone;

/// How a verb ended.
struct Outcome {
  std::optional<std::string> refusal;     ///< why it was refused or not completed
  morvik::kit::MutableDictionary fields;  ///< what else it answers
  bool ends_program = false;
};

/// Called once, on the main queue, in the action's turn or in a later one.
using Reply = std::function<void(const Outcome& outcome)>;
using Action = void (*)(Phone& phone, const Arguments& arguments, const Reply& reply);

struct Verb {
  std::string_view name;
  std::string_view arguments;  ///< as the help shows them
  std::string_view help;
  ReadArguments read;
  /// Runs as one block on the device's main queue.
  Action act;
  /// `act` runs on the program's own thread instead, as on a thread of an app; the main queue keeps running.
  bool blocks_its_thread = false;
};

/// All verbs, in the order of the help.
std::span<const Verb> verbs();

/// One line for each verb.
std::string verbsHelp();
/// The line of the verb, or one line for people: there is none of that name.
std::string helpOf(std::string_view name);
/// The message for a line longer than kMaxLineBytes.
std::string lineTooLong();

/// A verb with its arguments, ready to run.
struct Command {
  const Verb* verb = nullptr;
  Arguments arguments;
};

/// Whether a line is blank, or a comment that begins with '#'.
bool saysNothing(std::string_view line);

/// Reads a line that is neither blank nor a comment. The text is one line for people: what is wrong and how to fix it.
std::variant<Command, std::string> readCommand(std::string_view line);

}  // namespace morvik_device
