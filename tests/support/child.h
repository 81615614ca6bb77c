// A forked child that a test waits for.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>

namespace morvik::test {

/// A child that takes longer hangs.
inline constexpr std::chrono::seconds kGiveUpChild{20};

/// What the child exits with; -1 when it hangs, and is ended, or dies otherwise.
inline int endOf(pid_t child) {
  auto waiting = std::async(std::launch::async, [child] {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  });
  if (waiting.wait_for(kGiveUpChild) != std::future_status::ready)
    ::kill(child, SIGKILL);
  return waiting.get();
}

/// Does `act` and exits with what that answers.
class Child {
 public:
  explicit Child(const std::function<int()>& act) : id_(::fork()) {
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
