// The same work on several threads.
#pragma once

#include <functional>
#include <string>

namespace morvik::simulation {

/// Calls `work` once on each of `count` threads, including the caller's (on the caller's at least), and returns when
/// all calls have returned. The first exception is then rethrown here; work that should stop early in that case must do
/// so itself.
void runOnThreads(unsigned count, const std::function<void()>& work);

/// Calls `work`. What it throws is rethrown as a std::runtime_error that names `whose` it was, to find the one among
/// thousands of devices that failed.
void callFor(const std::string& whose, const std::function<void()>& work);

}  // namespace morvik::simulation
