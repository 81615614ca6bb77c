// morvik-device verbs: lists the verbs.
#pragma once

#include "apps/command_line/command_line.h"
#include "apps/device/surroundings.h"

namespace morvik_device {

/// Exit status: 0, or 1 when the output cannot be written. `surroundings` outlives the job.
morvik_command_line::Subcommand verbsCommand(const Surroundings& surroundings);

}  // namespace morvik_device
