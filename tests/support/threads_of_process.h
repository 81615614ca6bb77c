// How many threads this process has, and whether they are busy.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace morvik::test {

inline constexpr const char* kTasks = "/proc/self/task";

inline size_t threadsOfThisProcess() {
  const std::filesystem::directory_iterator threads(kTasks);
  return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}

/// The kernel's state of a thread of this process: 'S' asleep; 'X' gone.
inline char stateOfThread(const std::filesystem::path& task) {
  std::ifstream file(task / "stat");
  std::string line;
  if (!std::getline(file, line))
    return 'X';
  // "ID (NAME) STATE ...": the name may contain anything.
  const size_t end_of_name = line.rfind(") ");
  return end_of_name + 2 < line.size() ? line[end_of_name + 2] : 'X';
}

inline bool doOtherThreadsSleep() {
  const std::string own = std::to_string(::gettid());
  for (const auto& task : std::filesystem::directory_iterator(kTasks)) {
    const char state = task.path().filename() == own ? 'S' : stateOfThread(task.path());
    if (state != 'S' && state != 'X')
      return false;
  }
  return true;
}

/// Gives up after some seconds, if a thread never sleeps.
inline void waitUntilOtherThreadsSleep() {
  constexpr std::chrono::seconds kPatience{10};
  const auto give_up = std::chrono::steady_clock::now() + kPatience;
  while (!doOtherThreadsSleep() && std::chrono::steady_clock::now() < give_up)
    std::this_thread::yield();
}

}  // namespace morvik::test
