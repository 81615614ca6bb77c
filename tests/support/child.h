// A forked child that a test waits for.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>

#include "tests/support/threads_of_process.h"

namespace morvik::test {

/// A child that takes longer hangs.
inline constexpr std::chrono::seconds kGiveUpChild{20};

/// What waitpid() tells of the child; one that hangs is ended.
inline int rawEndOf(pid_t child) {
  auto waiting = std::async(std::launch::async, [child] {
    int status = -1;
    return ::waitpid(child, &status, 0) == child ? status : -1;
  });
  if (waiting.wait_for(kGiveUpChild) != std::future_status::ready)
    ::kill(child, SIGKILL);
  return waiting.get();
}

/// What the child exits with; -1 when it hangs, and is ended, or dies otherwise.
inline int endOf(pid_t child) {
  const int status = rawEndOf(child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// fork(), at any moment. A sanitizer's runtime has locks of its own that stay locked in the child where another thread
/// held one; so with a sanitizer the moment is one at which all other threads sleep.
inline pid_t forked() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  waitUntilOtherThreadsSleep();
#endif
  return ::fork();
}

/// Does `act` and exits with what that answers.
class Child {
 public:
  explicit Child(const std::function<int()>& act) : id_(forked()) {
    if (id_ == 0)
      ::_exit(act());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!is_over_)
      end();
  }
  /// As endOf().
  int status() {
    is_over_ = true;
    return endOf(id_);
  }
  void end() {
    ::kill(id_, SIGKILL);
    status();
  }

 private:
  const pid_t id_;
  bool is_over_ = false;
};

}  // namespace morvik::test
