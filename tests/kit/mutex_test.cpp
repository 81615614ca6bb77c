#include "kit/mutex.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

namespace morvik::kit {
namespace {

bool triedByAnother(Mutex& mutex) {
  bool taken = false;
  std::thread([&] {
    taken = mutex.try_lock();
    if (taken)
      mutex.unlock();
  }).join();
  return taken;
}

TEST(Mutex, KeepsOthersOutWhileItIsHeld) {
  Mutex mutex;
  EXPECT_TRUE(triedByAnother(mutex));
  {
    const std::scoped_lock hold(mutex);
    EXPECT_FALSE(triedByAnother(mutex));
  }
  EXPECT_TRUE(triedByAnother(mutex));
}

TEST(Mutex, IsNotTakenTwiceByTheThreadThatHoldsIt) {
  Mutex mutex;
  mutex.lock();
  EXPECT_FALSE(mutex.try_lock());
  mutex.unlock();
  ASSERT_TRUE(mutex.try_lock());
  EXPECT_FALSE(mutex.try_lock());
  mutex.unlock();
  EXPECT_TRUE(triedByAnother(mutex));
}

TEST(Mutex, CountsEveryStepOfManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kSteps = 2'000;
  Mutex mutex;
  int taken = 0;
  int refused = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, waits = i % 2 == 0] {
      for (int step = 0; step < kSteps; ++step) {
        std::unique_lock hold(mutex, std::defer_lock);
        const bool has_it = waits ? (hold.lock(), true) : hold.try_lock();
        if (!has_it)
          hold.lock();
        ++(has_it ? taken : refused);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(taken + refused, kThreads * kSteps);
  EXPECT_GE(taken, kThreads / 2 * kSteps);
}

}  // namespace
}  // namespace morvik::kit
