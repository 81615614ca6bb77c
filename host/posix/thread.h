// Threads of the host.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <variant>

#include "kit/error.h"

namespace morvik::host {

/// A thread that runs `body`, under a name (at most 15 characters) that debuggers show. All signals are blocked in it:
/// an app's handlers run on the app's threads. But for those of faults, for which it has a stack (SignalStack). Whoever
/// gets the thread joins it. An error says that the system gave none.
std::variant<std::thread, kit::Error> startThread(const char* name, std::function<void()> body);

}  // namespace morvik::host
