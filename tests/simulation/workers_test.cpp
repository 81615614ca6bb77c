#include "simulation/workers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

namespace morvik::simulation {
namespace {

TEST(RunOnThreads, CallsTheWorkOnceOnEachOfThem) {
  std::mutex mutex;
  std::multiset<std::thread::id> threads;
  runOnThreads(3, [&] {
    const std::scoped_lock hold(mutex);
    threads.insert(std::this_thread::get_id());
  });
  EXPECT_EQ(threads.size(), 3U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 1U);
}

TEST(RunOnThreads, CallsItOnTheCallersThreadAloneForNone) {
  int calls = 0;
  runOnThreads(0, [&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST(RunOnThreads, ThrowsWhatACallThrewOnceAllHaveReturned) {
  std::atomic<int> calls{0};
  const auto work = [&] {
    if (++calls == 2)
      throw std::runtime_error("the second call");
  };
  EXPECT_THROW(runOnThreads(4, work), std::runtime_error);
  EXPECT_EQ(calls, 4);
}

TEST(CallFor, NamesWhoseCallThrewWhat) {
  const auto words = [](const std::function<void()>& work) -> std::string {
    try {
      callFor("device 7 (seed 12)", work);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing";
  };
  EXPECT_EQ(words([] { throw std::invalid_argument("no such day"); }), "device 7 (seed 12) threw: no such day");
  EXPECT_EQ(words([] { throw 7; }), "device 7 (seed 12) threw something that is not a std::exception");
  EXPECT_EQ(words([] {}), "nothing");
}

}  // namespace
}  // namespace morvik::simulation
