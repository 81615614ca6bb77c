// Takes a file's turn as another process would.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

namespace morvik::test {

/// As if held by another process: a second descriptor is no different to the system.
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
