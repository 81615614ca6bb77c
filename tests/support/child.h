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

/// A child that takes longer counts as hanging.
inline constexpr std::chrono::seconds kGiveUpChild{20};

/// waitpid()'s status of the child; a hanging child is killed.
inline int rawEndOf(pid_t child) {
  auto waiting = std::async(std::launch::async, [child] {
    int status = -1;
    return ::waitpid(child, &status, 0) == child ? status : -1;
  });
  if (waiting.wait_for(kGiveUpChild) != std::future_status::ready)
    ::kill(child, SIGKILL);
  return waiting.get();
}

/// The child's exit status; -1 if it hangs (it is killed then) or dies otherwise.
inline int endOf(pid_t child) {
  const int status = rawEndOf(child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// fork(), at any moment. A sanitizer's runtime has its own locks, which stay locked in the child if another thread
/// held them; so with a sanitizer, fork() waits for a moment when all other threads sleep.
inline pid_t forked() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  waitUntilOtherThreadsSleep();
#endif
  return ::fork();
}

/// Calls `act` and exits with its result.
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
  /// Like endOf().
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
