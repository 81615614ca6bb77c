// The kit on the machine that the process runs on.
#pragma once

#include <memory>
#include <variant>

#include "host/system_machine.h"
#include "kit/error.h"
#include "morvik/start_options.h"
#include "runtime/make_instance.h"

namespace morvik::host {

/// Makes an instance that runs on the system; does the work of morvik::MorvikCore::start().
std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options);
/// The same on a machine that is the system's except for the caller's parts. The instance owns it.
std::variant<std::unique_ptr<runtime::Instance>, kit::Error> makeInstance(const StartOptions& options,
                                                                          std::unique_ptr<SystemMachine> machine);

}  // namespace morvik::host
