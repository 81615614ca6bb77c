// What the host's own code takes for certain, and what happens when it is not so.
#pragma once

#include <string_view>

#include "services/log.h"

namespace morvik::runtime {

/// To be called where an invariant of ours is found broken; `what` says which. Writes a line at error level. In a build
/// for developers (without NDEBUG) the process ends there, so that no test can pass over it; the kit in an app goes on,
/// and never ends its app. Any thread; to be called under no lock.
void invariantBroken(const services::Logger& logger, const char* operation, std::string_view what);

}  // namespace morvik::runtime
