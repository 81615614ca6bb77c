// How an app starts the kit on a machine of its own.
#pragma once

#include <memory>

#include "morvik/morvik.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// As morvik::MorvikCore::start(), on this machine, which the kit owns.
StartResult start(const StartOptions& options, std::unique_ptr<Machine> machine);

}  // namespace morvik::runtime
