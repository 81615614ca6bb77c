// The program's --simulate: a scenario from its file to its verdict.
#pragma once

#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device::scenario {

/// Status of a story in which an expectation was not met.
inline constexpr int kExitNotMet = 1;

/// Plays what the arguments name and returns the exit status: 0 when everything expected came about, kExitNotMet when
/// not or when the output could not be written, kExitUsage for arguments and files that cannot be read.
int runSimulation(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device::scenario
