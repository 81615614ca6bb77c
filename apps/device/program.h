// The program: picks the subcommand and runs it.
#pragma once

#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device {

/// Runs the program and returns its exit status: that of the subcommand, 1 when the output could not be written, 2 for
/// a mistake that the caller must fix. `run`, the default, returns 0 after `quit` or the end of the input. Blocks until
/// then.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device
