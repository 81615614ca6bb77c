// What every main queue, background queue and background task port must do, on any loop. A loop's tests define a rig
// and instantiate these:
//
//   struct MyRig {                                // made fresh for each test
//     kit::MainQueue& mainQueue();
//     kit::BackgroundQueue& backgroundQueue();
//     kit::BackgroundTasks& backgroundTasks();    // with a grant of grantSeconds()
//     double grantSeconds();                      // as short as the loop allows
//     double monotonicSeconds();                  // the time that timers follow
//     bool runUntil(std::function<bool()> done);  // lets the loop run; false when it gave up waiting for done()
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(MyLoop, MainQueueContract, MyRig);
//
// `done` is called on the test's thread, blocks may run on others; what both access is behind Seen's lock. The loop
// must be set up so that its last guard catches what blocks throw.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kit/background_tasks.h"
#include "kit/queues.h"

namespace morvik::test {

/// What blocks recorded, in order.
class Seen {
 public:
  void note(const std::string& what) {
    const std::lock_guard lock(mutex_);
    all_.push_back(what);
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex_);
    return all_;
  }
  size_t size() const { return all().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> all_;
};

template <class Rig>
class MainQueueContract : public ::testing::Test {
 protected:
  /// Runs until there are this many entries; false if they did not come.
  bool runUntilSeen(size_t count) {
    return rig.runUntil([this, count] { return seen.size() >= count; });
  }
  /// Runs one more block at the end of the main queue, so that everything posted before it has run.
  bool runWhatWaits() {
    std::atomic<bool> done = false;
    rig.mainQueue().async([&done] { done = true; });
    return rig.runUntil([&done] { return done.load(); });
  }

  Seen seen;
  Rig rig;
};
TYPED_TEST_SUITE_P(MainQueueContract);

TYPED_TEST_P(MainQueueContract, RunsBlocksInTheOrderInWhichTheyCame) {
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back(std::to_string(i));
    this->rig.mainQueue().async([this, i] { this->seen.note(std::to_string(i)); });
  }
  ASSERT_TRUE(this->runUntilSeen(100));
  EXPECT_EQ(this->seen.all(), expected);
}

TYPED_TEST_P(MainQueueContract, RunsABlockThatABlockMadeInALaterTurnBehindThoseThatWaited) {
  this->rig.mainQueue().async([this] {
    this->rig.mainQueue().async([this] { this->seen.note("made inside"); });
    this->rig.mainQueue().async([this] { this->seen.note("made inside, second"); });
    this->seen.note("outer");
  });
  ASSERT_TRUE(this->runUntilSeen(3));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"outer", "made inside", "made inside, second"}));
}

TYPED_TEST_P(MainQueueContract, RunsADelayedBlockNotBeforeItsTime) {
  constexpr double kRounding = 1e-6;  // rounding error of times as floating-point numbers
  const double delay_seconds = 0.02;
  std::atomic<double> ran = 0;
  std::atomic<bool> done = false;
  const double started = this->rig.monotonicSeconds();
  this->rig.mainQueue().after(delay_seconds, [&] {
    ran = this->rig.monotonicSeconds();
    done = true;
  });
  ASSERT_TRUE(this->rig.runUntil([&] { return done.load(); }));
  EXPECT_GE(ran - started, delay_seconds - kRounding);
}

TYPED_TEST_P(MainQueueContract, RunsDelayedBlocksByTheirTimeAndEqualOnesInOrder) {
  this->rig.mainQueue().async([this] {
    this->rig.mainQueue().after(0.06, [this] { this->seen.note("late"); });
    this->rig.mainQueue().after(0.02, [this] { this->seen.note("early"); });
    this->rig.mainQueue().after(0.04, [this] { this->seen.note("middle"); });
    this->rig.mainQueue().after(0.04, [this] { this->seen.note("middle, second"); });
    this->rig.mainQueue().async([this] { this->seen.note("now"); });
  });
  ASSERT_TRUE(this->runUntilSeen(5));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"now", "early", "middle", "middle, second", "late"}));
}

TYPED_TEST_P(MainQueueContract, RunsABlockWithoutDelayInALaterTurn) {
  this->rig.mainQueue().async([this] {
    this->rig.mainQueue().after(0, [this] { this->seen.note("after nothing"); });
    this->seen.note("outer");
  });
  ASSERT_TRUE(this->runUntilSeen(2));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"outer", "after nothing"}));
}

TYPED_TEST_P(MainQueueContract, RunsADelayedBlockBehindThoseThatCameBeforeItWasDueAndBeforeThoseThatComeLater) {
  this->rig.mainQueue().async([this] {
    this->rig.mainQueue().after(0, [this] { this->seen.note("delayed"); });
    this->seen.note("first");
  });
  this->rig.mainQueue().async([this] {
    this->rig.mainQueue().async([this] { this->seen.note("later"); });
    this->seen.note("before");
  });
  ASSERT_TRUE(this->runUntilSeen(4));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"first", "before", "delayed", "later"}));
}

TYPED_TEST_P(MainQueueContract, TakesBlocksFromManyThreadsAndKeepsTheOrderOfEach) {
  constexpr int kThreads = 4;
  constexpr int kBlocks = 250;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      for (int block = 0; block < kBlocks; ++block)
        this->rig.mainQueue().async(
            [this, thread, block] { this->seen.note(std::to_string(thread) + ":" + std::to_string(block)); });
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  ASSERT_TRUE(this->runUntilSeen(kThreads * kBlocks));
  const std::vector<std::string> all = this->seen.all();
  for (int thread = 0; thread < kThreads; ++thread) {
    const std::string mark = std::to_string(thread) + ":";
    std::vector<std::string> of_thread;
    std::copy_if(all.begin(), all.end(), std::back_inserter(of_thread),
                 [&mark](const std::string& note) { return note.starts_with(mark); });
    std::vector<std::string> expected;
    for (int block = 0; block < kBlocks; ++block)
      expected.push_back(mark + std::to_string(block));
    EXPECT_EQ(of_thread, expected) << "thread " << thread;
  }
}

TYPED_TEST_P(MainQueueContract, GoesOnAfterABlockThatThrows) {
  this->rig.mainQueue().async([] { throw std::runtime_error("a block of the main queue fails"); });
  this->rig.mainQueue().after(0, [] { throw 42; });
  this->rig.backgroundQueue().async([] { throw std::runtime_error("a block of the background queue fails"); });
  this->rig.backgroundQueue().async([this] { this->seen.note("background"); });
  this->rig.mainQueue().after(0.01, [this] { this->seen.note("main"); });
  ASSERT_TRUE(this->runUntilSeen(2));
  const std::vector<std::string> all = this->seen.all();
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()), (std::set<std::string>{"background", "main"}));
}

TYPED_TEST_P(MainQueueContract, RunsBackgroundBlocksInOrderAndNeverInsideTheTurnThatMadeThem) {
  std::vector<std::string> expected = {"made"};
  std::mutex turn;
  this->rig.mainQueue().async([this, &turn] {
    // A background thread may start at once, but its entry must come after this turn's, to show which is which.
    const std::lock_guard lock(turn);
    for (int i = 0; i < 50; ++i) {
      this->rig.backgroundQueue().async([this, i, &turn] {
        const std::lock_guard in_order(turn);
        this->seen.note(std::to_string(i));
      });
    }
    this->seen.note("made");
  });
  for (int i = 0; i < 50; ++i)
    expected.push_back(std::to_string(i));
  ASSERT_TRUE(this->runUntilSeen(51));
  EXPECT_EQ(this->seen.all(), expected);
}

TYPED_TEST_P(MainQueueContract, CarriesABlockFromTheBackgroundBackToTheMainQueue) {
  this->rig.backgroundQueue().async([this] {
    this->seen.note("background");
    this->rig.mainQueue().async([this] { this->seen.note("main"); });
  });
  ASSERT_TRUE(this->runUntilSeen(2));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"background", "main"}));
}

TYPED_TEST_P(MainQueueContract, GivesEachBackgroundTaskAnIdentifierOfItsOwn) {
  std::set<kit::BackgroundTaskIdentifier> identifiers;
  for (int i = 0; i < 10; ++i) {
    const auto identifier = this->rig.backgroundTasks().beginBackgroundTaskWithExpirationHandler([] {});
    EXPECT_NE(identifier, kit::kBackgroundTaskInvalid);
    EXPECT_TRUE(identifiers.insert(identifier).second) << identifier << " came twice";
    this->rig.backgroundTasks().endBackgroundTask(identifier);
  }
}

TYPED_TEST_P(MainQueueContract, CallsTheExpirationHandlerOfATaskThatIsNotEndedOnce) {
  this->rig.backgroundTasks().beginBackgroundTaskWithExpirationHandler([this] { this->seen.note("expired"); });
  ASSERT_TRUE(this->runUntilSeen(1));
  this->rig.mainQueue().after(2 * this->rig.grantSeconds(), [this] { this->seen.note("much later"); });
  ASSERT_TRUE(this->runUntilSeen(2));
  EXPECT_EQ(this->seen.all(), (std::vector<std::string>{"expired", "much later"}));
}

TYPED_TEST_P(MainQueueContract, NeverCallsTheExpirationHandlerOfATaskThatWasEnded) {
  const auto identifier =
      this->rig.backgroundTasks().beginBackgroundTaskWithExpirationHandler([this] { this->seen.note("expired"); });
  this->rig.backgroundTasks().endBackgroundTask(identifier);
  this->rig.mainQueue().after(2 * this->rig.grantSeconds(), [this] { this->seen.note("much later"); });
  ASSERT_TRUE(this->runUntilSeen(1));
  EXPECT_EQ(this->seen.all(), std::vector<std::string>{"much later"});
}

TYPED_TEST_P(MainQueueContract, IgnoresTheEndOfAnUnknownTask) {
  const auto open =
      this->rig.backgroundTasks().beginBackgroundTaskWithExpirationHandler([this] { this->seen.note("expired"); });
  this->rig.backgroundTasks().endBackgroundTask(kit::kBackgroundTaskInvalid);
  this->rig.backgroundTasks().endBackgroundTask(open + 1000);
  ASSERT_TRUE(this->runUntilSeen(1));
  EXPECT_EQ(this->seen.all(), std::vector<std::string>{"expired"});
  this->rig.backgroundTasks().endBackgroundTask(open);
  this->rig.backgroundTasks().endBackgroundTask(open);
  ASSERT_TRUE(this->runWhatWaits());
}

REGISTER_TYPED_TEST_SUITE_P(
    MainQueueContract, RunsBlocksInTheOrderInWhichTheyCame, RunsABlockThatABlockMadeInALaterTurnBehindThoseThatWaited,
    RunsADelayedBlockNotBeforeItsTime, RunsDelayedBlocksByTheirTimeAndEqualOnesInOrder,
    RunsABlockWithoutDelayInALaterTurn, RunsADelayedBlockBehindThoseThatCameBeforeItWasDueAndBeforeThoseThatComeLater,
    TakesBlocksFromManyThreadsAndKeepsTheOrderOfEach, GoesOnAfterABlockThatThrows,
    RunsBackgroundBlocksInOrderAndNeverInsideTheTurnThatMadeThem, CarriesABlockFromTheBackgroundBackToTheMainQueue,
    GivesEachBackgroundTaskAnIdentifierOfItsOwn, CallsTheExpirationHandlerOfATaskThatIsNotEndedOnce,
    NeverCallsTheExpirationHandlerOfATaskThatWasEnded, IgnoresTheEndOfAnUnknownTask);

}  // namespace morvik::test
