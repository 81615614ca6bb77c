// How an app starts the kit on a machine of its own choice.
#pragma once

#include <memory>

#include "morvik/morvik.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// As morvik::MorvikCore::start(), on this machine, which goes with the kit.
StartResult start(const StartOptions& options, std::unique_ptr<Machine> machine);

}  // namespace morvik::runtime
