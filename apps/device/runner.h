// Runs verbs on a device, one after another.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "apps/device/line_source.h"
#include "apps/device/output.h"
#include "apps/device/phone.h"

namespace morvik_device {

/// Runs commands until the source ends, a verb ends the program, the source has a mistake, or the output fails. Returns
/// the mistake, one line for people, or nothing. Each verb is one block on the phone's main queue; its line is written
/// once what that turn stored is committed, and only then is the next command read. The caller writes the line of the
/// verb that ends the program, `last`. `after_each` runs after every verb, and once more at the end of the source.
/// Blocks; must not be called on the main queue's thread.
std::optional<std::string> runCommands(const CommandSource& source, Phone& phone, Output& output,
                                       std::optional<Command>& last, const std::function<void()>& after_each);

}  // namespace morvik_device
