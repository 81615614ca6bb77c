// A process that has used up its file descriptors.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

namespace morvik::test {

/// While this object exists, the process gets at most this many more descriptors; existing ones remain.
class FewDescriptors {
 public:
  explicit FewDescriptors(unsigned more) {
    const int lowest_free = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (lowest_free < 0 || ::close(lowest_free) != 0 || ::getrlimit(RLIMIT_NOFILE, &before_) != 0)
      std::abort();
    set(static_cast<unsigned>(lowest_free) + more);
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;
  ~FewDescriptors() { set(before_.rlim_cur); }

 private:
  void set(rlim_t limit) const {
    const rlimit now{.rlim_cur = limit, .rlim_max = before_.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &now) != 0)
      std::abort();
  }

  rlimit before_{};
};

}  // namespace morvik::test
