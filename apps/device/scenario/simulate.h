// morvik-device simulate: plays a scenario and says whether its expectations were met.
#pragma once

#include "apps/command_line/command_line.h"
#include "apps/device/surroundings.h"

namespace morvik_device::scenario {

/// Exit status if an expectation is not met.
inline constexpr int kExitNotMet = 1;

/// Exit status: 0 when all expectations are met, kExitNotMet when not or when the output cannot be written, kExitUsage
/// for a file that cannot be read. `surroundings` outlives the job.
morvik_command_line::Subcommand simulateCommand(const Surroundings& surroundings);

}  // namespace morvik_device::scenario
