// `morvik-service expect`.
#pragma once

#include <ostream>

#include "apps/command_line/command_line.h"

namespace morvik_service {

inline constexpr int kExitMet = 0;
inline constexpr int kExitNotMet = 1;

/// Exit status: 0 met, 1 not met, 2 when the expectation could not be checked (the expression, no service). Blocks as
/// long as the expectation waits. The streams outlive the job.
morvik_command_line::Subcommand expectCommand(std::ostream& output, std::ostream& errors);

}  // namespace morvik_service
