// morvik-device fleet: many devices run against one service in this process, and their ledgers are checked.
#pragma once

#include "apps/command_line/command_line.h"
#include "apps/device/surroundings.h"

namespace morvik_device {

/// Exit status: 0 when everything is accounted for, 1 when not or when the output cannot be written. Blocks until all
/// devices are done. `surroundings` outlives the job.
morvik_command_line::Subcommand fleetCommand(const Surroundings& surroundings);

}  // namespace morvik_device
