#include "host/posix/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/child.h"

namespace morvik::host {
namespace {

constexpr int kFine = 3;
constexpr const char* kNowhere = "/dev/null";

std::string fileOf(int descriptor) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), ignored);
}

/// As printf() would find it.
bool canBeWritten(int descriptor) {
  return ::write(descriptor, "text", 4) == 4;
}

/// Two threads race for standard output's descriptor here, and the kernel decides. The app's side asks the kernel
/// directly: a race detector follows descriptors through the C library's calls and takes such a reuse for a data race.
void closeDirectly(int descriptor) {
  ::syscall(SYS_close, descriptor);
}

/// The kernel refuses for as long as another thread is about to open something there.
void moveToOutput(int descriptor) {
  while (::syscall(SYS_dup3, descriptor, STDOUT_FILENO, 0) < 0 && errno == EBUSY) {
  }
  closeDirectly(descriptor);
}

void openAsOutput(const char* path) {
  closeDirectly(STDOUT_FILENO);
  const int opened = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_PATH));
  if (opened != STDOUT_FILENO)
    moveToOutput(opened);
}

/// Runs `act` in a process of its own with standard output and standard error closed; returns its result.
int withoutOutput(const std::function<int()>& act) {
  return test::Child([&act] {
           ::close(STDOUT_FILENO);
           ::close(STDERR_FILENO);
           return act();
         })
      .status();
}

TEST(ClosedStandardStreams, AreLeftToNobodyFromThenOn) {
  EXPECT_EQ(withoutOutput([] {
              fillClosedStandardStreams();
              const int opened = ::open(kNowhere, O_WRONLY);
              return opened > STDERR_FILENO && fileOf(STDOUT_FILENO) == kNowhere && fileOf(STDERR_FILENO) == kNowhere
                         ? kFine
                         : 1;
            }),
            kFine);
}

TEST(ClosedStandardStreams, CannotBeWrittenThoughTheyAreFilled) {
  EXPECT_EQ(withoutOutput([] {
              fillClosedStandardStreams();
              return !canBeWritten(STDOUT_FILENO) && errno == EBADF ? kFine : 1;
            }),
            kFine);
}

TEST(ClosedStandardStreams, HaveNothingToReadWhenTheyAreFilled) {
  test::Child child([] {
    ::close(STDIN_FILENO);
    fillClosedStandardStreams();
    char byte = 0;
    return ::read(STDIN_FILENO, &byte, 1) == 0 ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST(ClosedStandardStreams, AreNotTouchedOnceTheAppHasOpenedThem) {
  test::Child child([] {
    ::close(STDERR_FILENO);
    const int own = ::open(kNowhere, O_WRONLY);
    if (own != STDERR_FILENO)
      return 1;
    fillClosedStandardStreams();
    return canBeWritten(STDERR_FILENO) ? kFine : 2;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST(ClosedStandardStreams, KeepWhatTheAppPutsThereWhileTheyAreFilled) {
  constexpr int kTries = 10'000;
  test::Child child([] {
    ::close(STDOUT_FILENO);
    std::atomic<bool> is_over = false;
    std::thread filling([&is_over] {
      while (!is_over)
        fillClosedStandardStreams();
    });
    bool is_lost = false;
    for (int i = 0; i < kTries && !is_lost; ++i) {
      openAsOutput("/");
      is_lost = fileOf(STDOUT_FILENO) != "/";
    }
    is_over = true;
    filling.join();
    return is_lost ? 1 : kFine;
  });
  EXPECT_EQ(child.status(), kFine);
}

}  // namespace
}  // namespace morvik::host
