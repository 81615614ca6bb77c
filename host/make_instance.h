// The kit on the machine that the process runs on.
#pragma once

#include <memory>
#include <variant>

#include "host/system_machine.h"
#include "kit/error.h"
#include "morvik/start_options.h"
#include "runtime/make_instance.h"

namespace morvik::host {

/// Makes a host that runs on the system: as morvik::MorvikCore::start() says, whose work this is.
std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options);
/// The same on a machine that is the system's but for parts of the caller's. It goes with the kit.
std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                          std::unique_ptr<SystemMachine> machine);

}  // namespace morvik::host
