// The composition root: puts the kit together on a machine.
#pragma once

#include <memory>
#include <variant>

#include "kit/error.h"
#include "morvik/start_options.h"
#include "runtime/instance.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Makes an instance on this machine, which it owns; does the work of start(). The first instance of the process is
/// also the one behind MorvikCoreLib::shared(), until it stops.
std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                 std::unique_ptr<Machine> machine);

/// The same on another machine, which outlives the instance. It never belongs to the process: MorvikCoreLib::shared()
/// does not know it, and nothing of the process is observed (report_crashes is ignored).
std::variant<std::unique_ptr<Instance>, kit::Error> makeInstance(const StartOptions& options, Machine& machine);

}  // namespace morvik::runtime
