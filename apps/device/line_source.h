// Sources of verbs: a stream read line by line, or a script that was checked before.
#pragma once

#include <deque>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <variant>

#include "apps/device/verbs.h"

namespace morvik_device {

/// The next command; nothing at the end of the input; or one line for people about what is wrong with it.
using NextCommand = std::variant<std::monostate, Command, std::string>;
using CommandSource = std::function<NextCommand()>;

/// Reads a command from the stream on each call, waiting for the line if necessary. Mistakes name `name` and the line's
/// number. The stream outlives the source.
CommandSource commandsOf(std::istream& stream, std::string name);

/// All commands of a stream, or the first mistake.
std::variant<std::deque<Command>, std::string> readAll(const CommandSource& source);

/// Returns commands that were read before.
CommandSource commandsOf(std::deque<Command> commands);

}  // namespace morvik_device
