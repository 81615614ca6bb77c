// The same work on some threads.
#pragma once

#include <functional>
#include <string>

namespace morvik::simulation {

/// Calls `work` on so many threads, the caller's among them, each once and at least on the caller's, and returns when
/// all calls have. What a call throws is thrown here once the others have returned, the first of it: a work that should
/// then end early sees to that itself.
void runOnThreads(unsigned count, const std::function<void()>& work);

/// Calls `work`. What it throws is thrown on as a std::runtime_error that names `whose` it was: of some thousand lives
/// the one has to be found that ended so.
void callFor(const std::string& whose, const std::function<void()>& work);

}  // namespace morvik::simulation
