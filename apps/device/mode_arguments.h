// The command line of a mode of the program.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device {

/// Reads the arguments into what `app` was told of. Nothing when the mode can go on; else the exit status with which
/// the program ends: the help was printed, or one line about what is wrong and where help is (`how_to_ask`).
std::optional<int> readModeArguments(CLI::App& app, std::vector<std::string> arguments, const std::string& how_to_ask,
                                     const Surroundings& surroundings);

}  // namespace morvik_device
