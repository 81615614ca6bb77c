// Threads of the kit.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <variant>

#include "kit/error.h"

namespace morvik::host {

/// A thread that runs `body`, with a name (at most 15 characters) for debuggers. All signals are blocked in it, so that
/// an app's handlers run on the app's threads; except faults, for which it has a stack (SignalStack). The caller joins
/// it. An error: the system has none left.
std::variant<std::thread, kit::Error> startThread(const char* name, std::function<void()> body);

}  // namespace morvik::host
