#include "host/loop/main_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kit/error.h"
#include "tests/host/loop/loop_rig.h"
#include "tests/support/main_queue_contract.h"

namespace morvik::test {
INSTANTIATE_TYPED_TEST_SUITE_P(OwnThread, MainQueueContract, host::OwnThreadRig);
INSTANTIATE_TYPED_TEST_SUITE_P(Pumped, MainQueueContract, host::PumpedRig);
}  // namespace morvik::test

namespace morvik::host {
namespace {

constexpr const char* kThrew = "Morvik host: a block on the main queue threw and ended there: ";

template <class Rig>
class BothLoops : public ::testing::Test {
 protected:
  Rig rig;
};
using Rigs = ::testing::Types<OwnThreadRig, PumpedRig>;
TYPED_TEST_SUITE(BothLoops, Rigs);

TYPED_TEST(BothLoops, RunBlocksThatCameBeforeTheyWereOpen) {
  kit::LogLevels levels;
  testing::RecordingLog log;
  MainLoop loop(LoopMode::kOwnThread, services::Logger(levels, log));
  std::promise<void> ran;
  loop.async([&ran] { ran.set_value(); });
  ASSERT_FALSE(loop.open());
  EXPECT_EQ(ran.get_future().wait_for(kGiveUp), std::future_status::ready);
  EXPECT_TRUE(loop.stop());
}

TYPED_TEST(BothLoops, WriteALineForEachKindOfThrownObject) {
  this->rig.loop.async([] { throw std::runtime_error("one"); });
  this->rig.loop.async([] { throw kit::Exception{"Name", "two", {}}; });
  this->rig.loop.async([] { throw 3; });
  std::atomic<bool> done = false;
  this->rig.loop.async([&done] { done = true; });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  const std::string threw = kThrew;
  EXPECT_EQ(this->rig.log.messages(), (std::vector<std::string>{threw + "one", threw + "two", threw + "int"}));
  EXPECT_EQ(this->rig.log.lines().front().prefix->level, "ERROR");
  EXPECT_EQ(this->rig.log.lines().front().prefix->operation, "-[MainLoop runTurn]");
}

TYPED_TEST(BothLoops, RunWhatWaitsForTheTurnBetweenItsFrameAndTheNextTurn) {
  std::vector<std::string> order;
  std::atomic<bool> done = false;
  this->rig.loop.async([&] {
    this->rig.loop.async([&] {
      order.push_back("next");
      done = true;
    });
    this->rig.loop.afterThisTurn([&] { order.push_back("after"); });
    order.push_back("turn");
  });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_EQ(order, (std::vector<std::string>{"turn", "after", "next"}));
}

TYPED_TEST(BothLoops, CountBlocksAndTimersByTheirDelay) {
  runtime::MainLoopCounts counts;
  std::atomic<bool> done = false;
  this->rig.loop.async([&] {
    this->rig.loop.async([] {});
    this->rig.loop.after(1.0, [] {});
    this->rig.loop.after(0.5, [] {});
    this->rig.loop.after(1.001, [] {});
    this->rig.loop.schedule(0.5, [] {});
    counts = this->rig.loop.counts();
    done = true;
  });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_EQ(counts.blocks, 1U);
  EXPECT_EQ(counts.short_timers, 2U);
  EXPECT_EQ(counts.longer_timers, 1U);
}

TYPED_TEST(BothLoops, NeverRunATimerThatWasCancelled) {
  std::vector<std::string> ran;
  std::atomic<bool> done = false;
  const auto timer = this->rig.loop.schedule(0.01, [&ran] { ran.push_back("cancelled"); });
  this->rig.loop.cancel(timer);
  this->rig.loop.cancel(timer);
  this->rig.loop.after(0.03, [&] {
    ran.push_back("other");
    done = true;
  });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_EQ(ran, std::vector<std::string>{"other"});
}

TYPED_TEST(BothLoops, TakeDelaysThatAreNoUsableNumber) {
  std::atomic<int> ran = 0;
  this->rig.loop.after(std::numeric_limits<double>::quiet_NaN(), [&ran] { ++ran; });
  this->rig.loop.after(-5, [&ran] { ++ran; });
  this->rig.loop.after(-std::numeric_limits<double>::infinity(), [&ran] { ++ran; });
  this->rig.loop.after(std::numeric_limits<double>::infinity(), [&ran] { ran += 100; });
  ASSERT_TRUE(this->rig.runUntil([&ran] { return ran >= 3; }));
  EXPECT_EQ(ran, 3);
  EXPECT_EQ(this->rig.loop.counts().longer_timers, 1U);
}

TYPED_TEST(BothLoops, RefuseToStopFromWithinATurn) {
  std::atomic<bool> done = false;
  std::atomic<bool> stopped = true;
  this->rig.loop.async([&] { stopped = this->rig.loop.stop(); });
  this->rig.loop.async([&done] { done = true; });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_FALSE(stopped);
}

TYPED_TEST(BothLoops, DropWhatWaitsWhenTheyStopAndWhatComesLater) {
  const auto held = std::make_shared<int>(1);
  this->rig.loop.after(1000, [held] {});
  EXPECT_TRUE(this->rig.loop.stop());
  EXPECT_EQ(held.use_count(), 1);
  this->rig.loop.async([held] {});
  this->rig.loop.after(0, [held] {});
  this->rig.loop.schedule(0, [held] {});
  bool ran = false;
  this->rig.loop.runOnMain([&ran] { ran = true; });
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(ran);
  EXPECT_TRUE(this->rig.loop.stop());
  EXPECT_EQ(this->rig.loop.pollDescriptor(), -1);
}

TYPED_TEST(BothLoops, BeginNoTurnOnceTheyWereToldToCease) {
  std::atomic<bool> done = false;
  bool ran = false;
  this->rig.loop.async([&] {
    this->rig.loop.cease();
    this->rig.loop.async([&ran] { ran = true; });
    done = true;
  });
  this->rig.loop.async([&ran] { ran = true; });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_TRUE(this->rig.loop.waitUntilIdle(std::chrono::steady_clock::now() + kGiveUp));
  EXPECT_TRUE(this->rig.loop.stop());
  EXPECT_FALSE(ran);
}

TYPED_TEST(BothLoops, RunWhatWaitsWhenTheyAreDrained) {
  int ran = 0;
  std::thread([&] {
    for (int i = 0; i < 3; ++i)
      this->rig.loop.async([&ran] { ++ran; });
  }).join();
  EXPECT_TRUE(this->rig.loop.drain(std::chrono::steady_clock::now() + kGiveUp));
  EXPECT_EQ(ran, 3);
}

TYPED_TEST(BothLoops, DrainNoFurtherThanTheDeadline) {
  const auto now = std::chrono::steady_clock::now();
  std::promise<void> go;
  this->rig.loop.async([future = std::make_shared<std::future<void>>(go.get_future())] {
    static_cast<void>(future->wait_for(std::chrono::milliseconds(50)));
  });
  this->rig.loop.async([] {});
  EXPECT_FALSE(this->rig.loop.drain(now));
  go.set_value();
}

TYPED_TEST(BothLoops, LetWhatADroppedBlockHoldsCallBackIntoTheQueue) {
  struct CallsBack {
    explicit CallsBack(MainLoop& called) : loop(called) {}
    MainLoop& loop;
    ~CallsBack() {
      loop.async([] {});
    }
  };
  this->rig.loop.after(1000, [held = std::make_shared<CallsBack>(this->rig.loop)] {});
  EXPECT_TRUE(this->rig.loop.stop());
  EXPECT_EQ(this->rig.loop.counts().blocks, 0U);
}

TYPED_TEST(BothLoops, RunABlockAtOnceWithinATurn) {
  std::vector<std::string> order;
  std::atomic<bool> done = false;
  this->rig.loop.async([&] {
    this->rig.loop.runOnMain([&] { order.push_back("inner"); });
    this->rig.loop.runOnMain([] { throw std::runtime_error("inner"); });
    order.push_back("outer");
    done = true;
  });
  ASSERT_TRUE(this->rig.runUntil([&done] { return done.load(); }));
  EXPECT_EQ(order, (std::vector<std::string>{"inner", "outer"}));
  EXPECT_TRUE(this->rig.log.has(std::string(kThrew) + "inner"));
}

TEST(OwnThreadLoop, RunsItsTurnsOnAnotherThreadThanItsMaker) {
  OwnThreadRig rig;
  std::promise<std::thread::id> id;
  rig.loop.runOnMain([&] { id.set_value(rig.loop.isMainThread() ? std::this_thread::get_id() : std::thread::id()); });
  const std::thread::id main = id.get_future().get();
  EXPECT_NE(main, std::thread::id());
  EXPECT_NE(main, std::this_thread::get_id());
  EXPECT_FALSE(rig.loop.isMainThread());
}

TEST(OwnThreadLoop, HasNothingToPump) {
  OwnThreadRig rig;
  EXPECT_EQ(rig.loop.pollDescriptor(), -1);
  EXPECT_EQ(rig.loop.pollTimeoutMilliseconds(), -1);
  rig.loop.dispatch();
}

TEST(OwnThreadLoop, StopsWhileOtherThreadsHandItBlocks) {
  OwnThreadRig rig;
  std::atomic<bool> enough = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!enough) {
        rig.loop.async([] {});
        rig.loop.after(0.001, [] {});
        rig.loop.cancel(rig.loop.schedule(0.001, [] {}));
        rig.loop.counts();
      }
    });
  }
  std::promise<void> ran;
  rig.loop.async([&ran] { ran.set_value(); });
  ran.get_future().wait();
  EXPECT_TRUE(rig.loop.stop());
  enough = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(rig.loop.counts().blocks, 0U);
}

TEST(PumpedLoop, CannotBeDrainedFromAnotherThreadButStopped) {
  PumpedRig rig;
  bool ran = false;
  rig.loop.async([&ran] { ran = true; });
  std::thread([&rig] {
    EXPECT_FALSE(rig.loop.drain(std::chrono::steady_clock::now() + kGiveUp));
    EXPECT_TRUE(rig.loop.stop());
  }).join();
  rig.loop.dispatch();
  EXPECT_FALSE(ran);
  EXPECT_EQ(rig.loop.pollDescriptor(), -1);
  EXPECT_EQ(rig.loop.pollTimeoutMilliseconds(), -1);
}

TEST(PumpedLoop, MakesItsDescriptorReadableForABlockOfAnotherThread) {
  PumpedRig rig;
  rig.loop.dispatch();
  EXPECT_EQ(rig.loop.pollTimeoutMilliseconds(), -1);
  bool ran = false;
  std::thread other([&] { rig.loop.async([&ran] { ran = true; }); });
  pollfd descriptor{rig.loop.pollDescriptor(), POLLIN, 0};
  const int readable = poll(&descriptor, 1, std::chrono::milliseconds(kGiveUp).count());
  other.join();
  EXPECT_EQ(readable, 1);
  EXPECT_FALSE(ran);
  rig.loop.dispatch();
  EXPECT_TRUE(ran);
}

TEST(PumpedLoop, TellsHowLongItMayWaitForTheNextTimer) {
  PumpedRig rig;
  rig.loop.after(1000, [] {});
  rig.loop.dispatch();
  EXPECT_GT(rig.loop.pollTimeoutMilliseconds(), 900'000);
  EXPECT_LE(rig.loop.pollTimeoutMilliseconds(), 1'000'001);
}

TEST(PumpedLoop, RunsACallOnItsThreadAsATurnOfItsOwn) {
  PumpedRig rig;
  std::vector<std::string> order;
  rig.loop.setFrame([&order](const kit::Block& turn) {
    turn();
    order.push_back("framed");
  });
  rig.loop.runOnMain([&] {
    EXPECT_TRUE(rig.loop.isInTurn());
    order.push_back("turn");
  });
  EXPECT_EQ(order, (std::vector<std::string>{"turn", "framed"}));
  EXPECT_FALSE(rig.loop.isInTurn());
}

TEST(PumpedLoop, ReturnsToTheAppThoughBlocksKeepMakingBlocks) {
  PumpedRig rig;
  int turns = 0;
  std::function<void()> again = [&] {
    ++turns;
    rig.loop.async(again);
  };
  rig.loop.async(again);
  rig.loop.dispatch();
  EXPECT_GE(turns, 1);
  const int before = turns;
  rig.pump();
  EXPECT_GT(turns, before);
}

TEST(PumpedLoop, DoesNothingWhenDispatchedFromWithinATurnOrFromAnotherThread) {
  PumpedRig rig;
  std::vector<std::string> order;
  rig.loop.async([&] {
    rig.loop.async([&order] { order.push_back("second"); });
    rig.loop.dispatch();
    order.push_back("first");
  });
  std::thread([&rig] { rig.loop.dispatch(); }).join();
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(rig.runUntil([&order] { return order.size() == 2; }));
  EXPECT_EQ(order, (std::vector<std::string>{"first", "second"}));
}

TEST(PumpedLoop, PumpsWhatComesFromAnotherThreadAndNoLongerThanItMay) {
  PumpedRig rig;
  rig.pump();
  ASSERT_TRUE(rig.loop.canPump());
  bool ran = false;
  std::thread([&rig, &ran] { rig.loop.async([&ran] { ran = true; }); }).join();
  rig.loop.pumpFor(60, [&ran] { return ran; });
  EXPECT_TRUE(ran);
  rig.loop.pumpFor(0.001, [] { return false; });
  std::thread([&rig] { EXPECT_FALSE(rig.loop.canPump()); }).join();
  bool pumps_in_a_turn = true;
  rig.loop.runOnMain([&] { pumps_in_a_turn = rig.loop.canPump(); });
  EXPECT_FALSE(pumps_in_a_turn);
}

TEST(PumpedLoop, PumpsNoTurnThatIsDueOnceTheTimeIsUp) {
  PumpedRig rig;
  int turns = 0;
  for (int turn = 0; turn < 3; ++turn) {
    rig.loop.async([&turns] {
      const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
      while (std::chrono::steady_clock::now() < until) {
      }
      ++turns;
    });
  }
  rig.loop.pumpFor(0.001, [] { return false; });
  EXPECT_LE(turns, 1);
  EXPECT_TRUE(rig.runUntil([&turns] { return turns == 3; })) << "the others run later";
}

TEST(PumpedLoop, PumpsNoTurnThatIsDueOnceItIsDone) {
  PumpedRig rig;
  int turns = 0;
  for (int turn = 0; turn < 3; ++turn)
    rig.loop.async([&turns] { ++turns; });
  rig.loop.pumpFor(60, [&turns] { return turns == 1; });
  EXPECT_EQ(turns, 1);
  EXPECT_TRUE(rig.runUntil([&turns] { return turns == 3; })) << "the others run later";
}

TEST(OwnThreadLoop, RunsABlockWithinItsTimeAndReturnsWhenItIsDone) {
  OwnThreadRig rig;
  EXPECT_FALSE(rig.loop.canPump());
  bool on_main = false;
  EXPECT_TRUE(rig.loop.runWithin(60, [&] { on_main = rig.loop.isInTurn(); }));
  EXPECT_TRUE(on_main);
  EXPECT_TRUE(rig.loop.runWithin(60, [] { throw 3; }));
}

TEST(OwnThreadLoop, NeverRunsABlockThatItHadToGiveUp) {
  OwnThreadRig rig;
  std::promise<void> go_on;
  rig.loop.async([&go_on] { go_on.get_future().wait(); });
  std::atomic<bool> ran = false;
  EXPECT_FALSE(rig.loop.runWithin(0.01, [&ran] { ran = true; }));
  go_on.set_value();
  EXPECT_TRUE(rig.loop.runWithin(60, [] {}));
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace morvik::host
