// morvik-device inspect: what waits in a store, with no app running, or beside one that is.
#pragma once

#include <string>
#include <vector>

#include "apps/device/surroundings.h"

namespace morvik_device {

/// Exit status: 0, 1 when nobody takes the output, 2 for options that cannot be and for a folder without a store that
/// can be read; one line says what and how to mend it then. Touches no file. Blocks for reading them.
int runInspect(std::vector<std::string> arguments, const Surroundings& surroundings);

}  // namespace morvik_device
