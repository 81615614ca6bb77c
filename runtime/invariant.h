// Reports broken invariants of the kit's own code.
#pragma once

#include <string_view>

#include "services/log.h"

namespace morvik::runtime {

/// Call where an invariant is found broken; `what` says which. Writes a line at error level. In a developer build
/// (without NDEBUG) the process ends here, so that no test can miss it. In an app the kit goes on and never ends the
/// app. Any thread; hold no lock.
void invariantBroken(const services::Logger& logger, const char* operation, std::string_view what);

}  // namespace morvik::runtime
