#include "host/posix/signal_stack.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "host/posix/thread.h"

namespace morvik::host {
namespace {

stack_t current() {
  stack_t stack{};
  EXPECT_EQ(::sigaltstack(nullptr, &stack), 0);
  return stack;
}

bool isThere(const stack_t& stack) {
  return (stack.ss_flags & SS_DISABLE) == 0;
}

/// On a thread without one; a sanitizer gives one to each.
void onABareThread(void (*check)()) {
  std::thread([check] {
    const stack_t before = current();
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    ASSERT_EQ(::sigaltstack(&none, nullptr), 0);
    check();
    if (isThere(before)) {
      ASSERT_EQ(::sigaltstack(&before, nullptr), 0);
    }
  }).join();
}

/// Asks the kernel.
bool canRead(const char* byte) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::pipe(ends), 0);
  const bool can = ::syscall(SYS_write, ends[1], byte, 1) == 1;
  ::close(ends[0]);
  ::close(ends[1]);
  return can;
}

TEST(SignalStack, IsTheThreadsAsLongAsItLives) {
  onABareThread([] {
    {
      const SignalStack stack;
      EXPECT_TRUE(isThere(current()));
      EXPECT_EQ(current().ss_size, kSignalStackBytes);
    }
    EXPECT_FALSE(isThere(current()));
  });
}

TEST(SignalStack, HasAPageBelowItThatNobodyMayTouch) {
  onABareThread([] {
    const SignalStack stack;
    const char* const lowest = static_cast<const char*>(current().ss_sp);
    EXPECT_TRUE(canRead(lowest));
    EXPECT_FALSE(canRead(lowest - 1));
    EXPECT_FALSE(canRead(lowest - ::sysconf(_SC_PAGESIZE)));
  });
}

TEST(SignalStack, LeavesTheThreadTheOneItHas) {
  onABareThread([] {
    const SignalStack first;
    const void* const before = current().ss_sp;
    {
      const SignalStack second;
      EXPECT_EQ(current().ss_sp, before);
    }
    EXPECT_EQ(current().ss_sp, before);
  });
}

TEST(SignalStack, IsThatOfEachThreadOfTheKits) {
  bool has_one = false;
  auto started = startThread("morvik-test", [&] { has_one = isThere(current()); });
  ASSERT_TRUE(std::holds_alternative<std::thread>(started));
  std::get<std::thread>(started).join();
  EXPECT_TRUE(has_one);
}

}  // namespace
}  // namespace morvik::host
