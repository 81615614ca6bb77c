// The composition root: puts the kit together on a machine.
#pragma once

#include <memory>
#include <variant>

#include "kit/error.h"
#include "morvik/start_options.h"
#include "runtime/instance.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Makes a host that runs on this machine: as start() says, whose work this is. The machine goes with all that a host
/// consists of. The first host of the process is also the one behind MorvikCoreLib::shared(), until it stops.
std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                 std::unique_ptr<Machine> machine);

/// The same on another machine, which outlives the host. It is never the process's own: MorvikCoreLib::shared() does
/// not know of it, and nothing of the process is watched (report_crashes is of no matter).
std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options, Machine& machine);

}  // namespace morvik::runtime
