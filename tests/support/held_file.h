// A file on which another process has its turn.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

namespace morvik::test {

/// As if held by another process: for the system, a second descriptor makes no difference.
class Held {
 public:
  explicit Held(const std::string& path) : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    ::flock(descriptor_, LOCK_EX);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() { ::close(descriptor_); }
  void letGo() const { ::flock(descriptor_, LOCK_UN); }

 private:
  const int descriptor_;
};

}  // namespace morvik::test
