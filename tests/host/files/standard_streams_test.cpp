#include "host/files/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "tests/support/child.h"

namespace morvik::host {
namespace {

constexpr int kFine = 3;
constexpr const char* kNowhere = "/dev/null";

bool isClosed(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) < 0;
}

/// As printf() meets it.
bool canBeWritten(int descriptor) {
  return ::write(descriptor, "text", 4) == 4;
}

/// In a process of its own: what it answers while standard output and standard error are closed.
int withoutOutput(const std::function<int()>& act) {
  return test::Child([&act] {
           ::close(STDOUT_FILENO);
           ::close(STDERR_FILENO);
           return act();
         })
      .status();
}

TEST(StandardStreamsTaken, LeavesThemToNobodyAndThenClosedAgain) {
  EXPECT_EQ(withoutOutput([] {
              {
                const StandardStreamsTaken taken;
                const int opened = ::open(kNowhere, O_WRONLY);
                if (opened <= STDERR_FILENO || canBeWritten(STDOUT_FILENO) || errno != EBADF)
                  return 1;
              }
              return isClosed(STDOUT_FILENO) && isClosed(STDERR_FILENO) ? kFine : 2;
            }),
            kFine);
}

TEST(StandardStreamsTaken, LastsUntilTheLastOneGoes) {
  EXPECT_EQ(withoutOutput([] {
              std::optional<StandardStreamsTaken> first(std::in_place);
              {
                const StandardStreamsTaken second;
                first.reset();
                if (isClosed(STDOUT_FILENO))
                  return 1;
              }
              return isClosed(STDOUT_FILENO) ? kFine : 2;
            }),
            kFine);
}

TEST(StandardStreamsTaken, LeavesWhatTheAppHasOpenedThereMeanwhile) {
  EXPECT_EQ(withoutOutput([] {
              {
                const StandardStreamsTaken taken;
                const int opened = ::open(kNowhere, O_WRONLY);
                ::dup2(opened, STDOUT_FILENO);
              }
              return canBeWritten(STDOUT_FILENO) && isClosed(STDERR_FILENO) ? kFine : 1;
            }),
            kFine);
}

TEST(StandardStreamsTaken, TouchesNoneThatAreOpen) {
  test::Child child([] {
    ::close(STDERR_FILENO);
    const int own = ::open(kNowhere, O_WRONLY);
    if (own != STDERR_FILENO)
      return 1;
    { const StandardStreamsTaken taken; }
    return canBeWritten(STDERR_FILENO) ? kFine : 2;
  });
  EXPECT_EQ(child.status(), kFine);
}

}  // namespace
}  // namespace morvik::host
