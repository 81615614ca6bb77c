#include "host/posix/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <string>
#include <vector>

namespace morvik::host {
namespace {

TEST(Thread, IsNamedAndTakesNoSignalsButFaults) {
  std::string name;
  bool takes_terminate = true;
  std::vector<int> faults_kept_out;
  auto started = startThread("morvik-test", [&] {
    std::array<char, 16> buffer{};
    pthread_getname_np(pthread_self(), buffer.data(), buffer.size());
    name = buffer.data();
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    takes_terminate = sigismember(&mask, SIGTERM) == 0;
    for (const int fault : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
      if (sigismember(&mask, fault) != 0)
        faults_kept_out.push_back(fault);
    }
  });
  ASSERT_TRUE(std::holds_alternative<std::thread>(started));
  std::get<std::thread>(started).join();
  EXPECT_FALSE(takes_terminate);
  EXPECT_EQ(faults_kept_out, std::vector<int>()) << "blocked, a fault kills the process before any handler";
  sigset_t here;
  pthread_sigmask(SIG_SETMASK, nullptr, &here);
  EXPECT_EQ(sigismember(&here, SIGTERM), 0) << "the maker's own signals were not given back";
}

}  // namespace
}  // namespace morvik::host
