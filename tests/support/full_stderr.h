// Standard error as a full pipe that nobody reads.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

namespace morvik::test {

class FullStderr {
 public:
  FullStderr() : before_(::dup(STDERR_FILENO)) {
    if (before_ < 0 || ::pipe2(ends_.data(), O_CLOEXEC) != 0)
      std::abort();
    fill();
    ::dup2(ends_[1], STDERR_FILENO);
  }
  FullStderr(const FullStderr&) = delete;
  FullStderr& operator=(const FullStderr&) = delete;
  ~FullStderr() {
    restore();
    ::close(ends_[0]);
    ::close(ends_[1]);
    ::close(before_);
  }

  /// Fills the pipe again, while nobody writes.
  void fill() const {
    ::fcntl(ends_[1], F_SETFL, O_NONBLOCK);
    const std::array<char, 4096> filling{};
    while (::write(ends_[1], filling.data(), filling.size()) > 0) {
    }
    ::fcntl(ends_[1], F_SETFL, 0);
  }
  /// Restores the process's own standard error.
  void restore() const { ::dup2(before_, STDERR_FILENO); }
  /// Reads everything in it, which makes space.
  std::string read() const {
    ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    std::string all;
    std::array<char, 4096> part{};
    for (ssize_t count = 0; (count = ::read(ends_[0], part.data(), part.size())) > 0;)
      all.append(part.data(), static_cast<size_t>(count));
    return all;
  }

 private:
  const int before_;
  std::array<int, 2> ends_{};
};

}  // namespace morvik::test
