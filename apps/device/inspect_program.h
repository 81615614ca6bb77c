// morvik-device inspect: what is pending in a store, whether or not an app is using it.
#pragma once

#include "apps/command_line/command_line.h"
#include "apps/device/surroundings.h"

namespace morvik_device {

/// Exit status: 0, 1 when the output cannot be written, 2 for a folder without a readable store; one line then says
/// what is wrong and how to fix it. Changes no file. Blocks while reading. `surroundings` outlives the job.
morvik_command_line::Subcommand inspectCommand(const Surroundings& surroundings);

}  // namespace morvik_device
