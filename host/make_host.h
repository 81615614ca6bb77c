// The composition root: puts the kit together on this machine.
#pragma once

#include <memory>
#include <variant>

#include "host/host.h"
#include "kit/error.h"
#include "morvik/host_options.h"

namespace morvik::host {

/// Makes a host that runs: as morvik::MorvikCore::start() says, whose work this is. The first host of the process is
/// also the one behind MorvikCoreLib::shared(), until it stops.
std::variant<std::unique_ptr<Host>, kit::Error> makeHost(const HostOptions& options);

}  // namespace morvik::host
