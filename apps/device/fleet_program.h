// morvik-device --fleet: many devices live against one service in this process, and their account is balanced.
#pragma once

#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device {

/// Exit status: 0 when the account balances, 1 when it does not (or nobody takes the output), 2 for options that cannot
/// be. Blocks until all lives are over.
int runFleet(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device
