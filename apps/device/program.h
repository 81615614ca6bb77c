// The program: options, then verbs one after the other until the input ends.
#pragma once

#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device {

/// Runs the program and returns its exit status. What names another mode ("--fleet", "--simulate", "inspect") hands
/// over to that one; else a device runs: 0 after `quit` or the end of the input, 1 when its output could not be
/// written, 2 for what the one who called it has to mend. Blocks until then.
int runProgram(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device
