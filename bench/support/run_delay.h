// The time that the machine's load takes from a thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace morvik::bench {

/// How long this thread was ready to run but not scheduled: the machine's load, not a wait of the kit.
class RunDelay {
 public:
  RunDelay() : file_(std::fopen("/proc/thread-self/schedstat", "r")) {
    if (file_ != nullptr)
      std::setvbuf(file_, nullptr, _IONBF, 0);
  }
  ~RunDelay() {
    if (file_ != nullptr)
      std::fclose(file_);
  }
  RunDelay(const RunDelay&) = delete;
  RunDelay& operator=(const RunDelay&) = delete;
  /// Since the thread began; 0 if the system does not tell.
  int64_t nanoseconds() {
    std::array<char, 128> line{};
    if (file_ == nullptr || std::fseek(file_, 0, SEEK_SET) != 0 ||
        std::fgets(line.data(), line.size(), file_) == nullptr)
      return 0;
    char* behind_the_first = nullptr;
    std::strtoll(line.data(), &behind_the_first, 10);
    return std::strtoll(behind_the_first, nullptr, 10);
  }

 private:
  std::FILE* const file_;
};

}  // namespace morvik::bench
