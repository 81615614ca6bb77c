#include "testing/virtual_loop.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/main_queue_contract.h"

namespace morvik::test {
namespace {

using testing::VirtualLoop;
using Texts = std::vector<std::string>;

struct VirtualRig {
  VirtualRig() {
    loop.setExceptionSink([](const std::exception_ptr&) {});
  }
  kit::MainQueue& mainQueue() { return loop.mainQueue(); }
  kit::BackgroundQueue& backgroundQueue() { return loop.backgroundQueue(); }
  kit::BackgroundTasks& backgroundTasks() { return loop.backgroundTasks(); }
  double grantSeconds() { return testing::kBackgroundGrantSeconds; }
  double monotonicSeconds() { return loop.monotonicSeconds(); }
  bool runUntil(const std::function<bool()>& done) { return loop.advanceUntil(done, 1000); }

  VirtualLoop loop;
};

INSTANTIATE_TYPED_TEST_SUITE_P(VirtualLoop, MainQueueContract, VirtualRig);

TEST(VirtualLoop, StartsAtTimesThatAreNotZero) {
  const VirtualLoop loop;
  EXPECT_GT(loop.now().microseconds, 0);
  EXPECT_GT(loop.monotonicSeconds(), 0);
}

TEST(VirtualLoop, RunsNothingByItself) {
  VirtualLoop loop;
  bool ran = false;
  loop.mainQueue().async([&] { ran = true; });
  EXPECT_FALSE(ran);
  EXPECT_EQ(loop.waitingMainBlocks(), 1u);
  EXPECT_EQ(loop.runUntilIdle(), 1u);
  EXPECT_TRUE(ran);
  EXPECT_FALSE(loop.step());
}

TEST(VirtualLoop, LetsNoTimePassWhileBlocksRun) {
  VirtualLoop loop;
  const kit::Date before = loop.now();
  loop.mainQueue().after(0.5, [] {});
  loop.perform([] {});
  EXPECT_EQ(loop.now(), before);
  EXPECT_EQ(loop.waitingTimers(), 1u);
  EXPECT_DOUBLE_EQ(loop.secondsToNextTimer().value(), 0.5);
}

TEST(VirtualLoop, MovesBothTimesTogether) {
  VirtualLoop loop;
  const kit::Date wall = loop.now();
  const double monotonic = loop.monotonicSeconds();
  loop.advance(12.5);
  EXPECT_EQ(loop.now().microseconds - wall.microseconds, 12'500'000);
  EXPECT_DOUBLE_EQ(loop.monotonicSeconds() - monotonic, 12.5);
}

TEST(VirtualLoop, RunsEachTimerAtItsOwnTime) {
  VirtualLoop loop;
  const kit::Date start = loop.now();
  std::vector<int64_t> milliseconds;
  const auto note = [&] { milliseconds.push_back(loop.now().millisecondsSince(start)); };
  loop.mainQueue().after(3, note);
  loop.mainQueue().after(1, [&] {
    note();
    loop.mainQueue().after(1, note);
  });
  loop.advance(2.5);
  EXPECT_EQ(milliseconds, (std::vector<int64_t>{1000, 2000}));
  EXPECT_EQ(loop.now().millisecondsSince(start), 2500);
  loop.advance(0.5);
  EXPECT_EQ(milliseconds, (std::vector<int64_t>{1000, 2000, 3000}));
}

TEST(VirtualLoop, KeepsTimersWhereTheyAreWhenTheWallClockIsSet) {
  VirtualLoop loop;
  bool ran = false;
  loop.mainQueue().after(10, [&] { ran = true; });
  loop.moveWallClock(-365.0 * 86'400);
  loop.setWallClock(kit::Date::fromSeconds(86'400));
  loop.advance(9.999);
  EXPECT_FALSE(ran);
  loop.advance(0.001);
  EXPECT_TRUE(ran);
  EXPECT_EQ(loop.now(), kit::Date::fromSeconds(86'410));
}

TEST(VirtualLoop, AdvancesUntilSomethingHappenedAndNoFurther) {
  VirtualLoop loop;
  const kit::Date start = loop.now();
  int ran = 0;
  for (const double delay_seconds : {1.0, 2.0, 3.0})
    loop.mainQueue().after(delay_seconds, [&] { ++ran; });
  EXPECT_TRUE(loop.advanceUntil([&] { return ran == 2; }, 60));
  EXPECT_EQ(loop.now().millisecondsSince(start), 2000);
  EXPECT_FALSE(loop.advanceUntil([&] { return ran == 4; }, 60));
  EXPECT_EQ(loop.now().millisecondsSince(start), 62'000);
}

TEST(VirtualLoop, RunsABackgroundBlockWholeBeforeTheNextMainBlock) {
  VirtualLoop loop;
  Texts seen;
  loop.mainQueue().async([&] {
    loop.mainQueue().async([&] { seen.emplace_back("main"); });
    loop.backgroundQueue().async([&] {
      EXPECT_EQ(loop.running(), VirtualLoop::Running::kBackgroundBlock);
      seen.emplace_back("background");
      loop.backgroundQueue().async([&] { seen.emplace_back("second background"); });
      seen.emplace_back("background goes on");
    });
    EXPECT_EQ(loop.running(), VirtualLoop::Running::kMainBlock);
  });
  loop.runUntilIdle();
  EXPECT_EQ(seen, (Texts{"background", "background goes on", "second background", "main"}));
  EXPECT_EQ(loop.running(), VirtualLoop::Running::kNothing);
}

TEST(VirtualLoop, CommitsAtTheEndOfEachTurnBeforeWhatWaitedForTheCommit) {
  VirtualLoop loop;
  Texts seen;
  loop.addCommit([&] { seen.emplace_back("commit"); });
  loop.addCommit([&] { seen.emplace_back("second commit"); });
  loop.mainQueue().async([&] {
    loop.afterCommit([&] { seen.emplace_back("request leaves"); });
    seen.emplace_back("main block");
  });
  loop.backgroundQueue().async([&] {
    loop.afterCommit([&] { seen.emplace_back("request of the background leaves"); });
    seen.emplace_back("background block");
  });
  loop.runUntilIdle();
  EXPECT_EQ(seen, (Texts{"background block", "commit", "second commit", "request of the background leaves",
                         "main block", "commit", "second commit", "request leaves"}));
}

TEST(VirtualLoop, MakesATurnForWhatIsToFollowACommitOutsideOfAnyTurn) {
  VirtualLoop loop;
  Texts seen;
  loop.addCommit([&] { seen.emplace_back("commit"); });
  loop.afterCommit([&] { seen.emplace_back("request leaves"); });
  EXPECT_EQ(seen, Texts{});
  loop.runUntilIdle();
  EXPECT_EQ(seen, (Texts{"commit", "request leaves"}));
}

TEST(VirtualLoop, EndsTheTurnOfABlockThatThrowsAndThenRethrows) {
  VirtualLoop loop;
  Texts seen;
  loop.addCommit([&] { seen.emplace_back("commit"); });
  loop.mainQueue().async([] { throw std::runtime_error("the block failed"); });
  loop.mainQueue().async([&] { seen.emplace_back("next"); });
  EXPECT_THROW(loop.runUntilIdle(), std::runtime_error);
  EXPECT_EQ(seen, Texts{"commit"});
  loop.runUntilIdle();
  EXPECT_EQ(seen, (Texts{"commit", "next", "commit"}));
}

TEST(VirtualLoop, HandsWhatABlockThrewToItsSink) {
  VirtualLoop loop;
  int thrown = 0;
  loop.setExceptionSink([&](const std::exception_ptr& exception) {
    try {
      std::rethrow_exception(exception);
    } catch (int number) {
      thrown = number;
    }
  });
  loop.perform([] { throw 7; });
  EXPECT_EQ(thrown, 7);
}

TEST(VirtualLoop, StopsBlocksThatKeepMakingNewOnes) {
  VirtualLoop loop({.max_blocks_at_one_time = 100});
  std::function<void()> again = [&] { loop.mainQueue().async(again); };
  loop.mainQueue().async(again);
  try {
    loop.runUntilIdle();
    FAIL() << "nothing stopped the loop";
  } catch (const testing::RunawayLoop& error) {
    EXPECT_STREQ(error.what(),
                 "virtual loop: 100 blocks ran without time passing, and still there are more: blocks keep making new "
                 "ones (raise max_blocks_at_one_time if this is meant)");
  }
}

TEST(VirtualLoop, TakesAsManyBlocksAtOneTimeAsTheLimitSays) {
  VirtualLoop loop({.max_blocks_at_one_time = 100});
  for (int i = 0; i < 100; ++i)
    loop.mainQueue().async([] {});
  EXPECT_EQ(loop.runUntilIdle(), 100u);
}

TEST(VirtualLoop, RefusesToBeRunFromInsideABlock) {
  VirtualLoop loop;
  loop.mainQueue().async([&] {
    EXPECT_THROW(loop.step(), std::logic_error);
    EXPECT_THROW(loop.runUntilIdle(), std::logic_error);
    EXPECT_THROW(loop.perform([] {}), std::logic_error);
    EXPECT_THROW(loop.advance(1), std::logic_error);
    EXPECT_THROW(loop.kill(), std::logic_error);
  });
  EXPECT_EQ(loop.runUntilIdle(), 1u);
}

TEST(VirtualLoop, PostsANotificationToItsObserversInOrderInOneTurn) {
  VirtualLoop loop;
  Texts seen;
  loop.notifications().addObserver(kit::Notification::kApplicationDidBecomeActive, [&] { seen.emplace_back("first"); });
  loop.notifications().addObserver(kit::Notification::kApplicationDidEnterBackground,
                                   [&] { seen.emplace_back("other"); });
  loop.notifications().addObserver(kit::Notification::kApplicationDidBecomeActive,
                                   [&] { seen.emplace_back("second"); });
  loop.notifications().post(kit::Notification::kApplicationDidBecomeActive);
  EXPECT_EQ(seen, Texts{});
  EXPECT_TRUE(loop.step());
  EXPECT_EQ(seen, (Texts{"first", "second"}));
}

TEST(VirtualLoop, GrantsABackgroundTaskThirtySeconds) {
  VirtualLoop loop;
  Texts seen;
  const auto identifier = loop.backgroundTasks().beginBackgroundTaskWithExpirationHandler([&] {
    EXPECT_EQ(loop.running(), VirtualLoop::Running::kMainBlock);
    seen.emplace_back("expired");
  });
  EXPECT_EQ(loop.openBackgroundTasks(), std::vector{identifier});
  loop.advance(29.999);
  EXPECT_EQ(seen, Texts{});
  loop.advance(0.001);
  EXPECT_EQ(seen, Texts{"expired"});
  EXPECT_EQ(loop.expiredBackgroundTasks(), 1u);
  EXPECT_EQ(loop.openBackgroundTasks(), std::vector{identifier});
  loop.backgroundTasks().endBackgroundTask(identifier);
  EXPECT_EQ(loop.openBackgroundTasks(), std::vector<kit::BackgroundTaskIdentifier>{});
}

TEST(VirtualLoop, LeavesNoTimerBehindWhenATaskIsEnded) {
  VirtualLoop loop;
  loop.backgroundTasks().endBackgroundTask(loop.backgroundTasks().beginBackgroundTaskWithExpirationHandler([] {}));
  EXPECT_EQ(loop.waitingTimers(), 0u);
  loop.advance(60);
  EXPECT_EQ(loop.expiredBackgroundTasks(), 0u);
}

TEST(VirtualLoop, ForgetsTheProcessThatDiesAndKeepsTheTime) {
  VirtualLoop loop;
  Texts seen;
  const auto note = [&seen](const char* what) { return [&seen, what] { seen.emplace_back(what); }; };
  loop.addCommit(note("commit"));
  loop.mainQueue().async(note("main"));
  loop.mainQueue().after(1, note("timer"));
  loop.backgroundQueue().async(note("background"));
  loop.afterCommit(note("request"));
  loop.backgroundTasks().beginBackgroundTaskWithExpirationHandler(note("expired"));
  loop.notifications().addObserver(kit::Notification::kApplicationDidBecomeActive, note("observer"));
  const kit::Date before = loop.now();
  loop.kill();
  EXPECT_EQ(loop.now(), before);
  EXPECT_EQ(loop.openBackgroundTasks(), std::vector<kit::BackgroundTaskIdentifier>{});
  loop.notifications().post(kit::Notification::kApplicationDidBecomeActive);
  loop.advance(60);
  EXPECT_EQ(seen, Texts{"commit"}) << "only the turn of the new notification runs";
}

TEST(VirtualLoop, LetsAnObjectSpeakToTheLoopWhenItDiesWithItsBlock) {
  VirtualLoop loop;
  struct Speaker {
    explicit Speaker(VirtualLoop& its_loop) : loop(its_loop) {}
    ~Speaker() {
      loop.mainQueue().async([] {});
    }
    VirtualLoop& loop;
  };
  loop.mainQueue().after(5, [speaker = std::make_shared<Speaker>(loop)] { (void)speaker; });
  loop.kill();
  EXPECT_EQ(loop.waitingMainBlocks(), 1u);
}

TEST(VirtualLoop, TakesAnyWaitingTime) {
  VirtualLoop loop;
  Texts seen;
  loop.mainQueue().after(-5, [&] { seen.emplace_back("negative"); });
  loop.mainQueue().after(std::numeric_limits<double>::quiet_NaN(), [&] { seen.emplace_back("no number"); });
  loop.mainQueue().after(std::numeric_limits<double>::infinity(), [&] { seen.emplace_back("never"); });
  loop.advance(86'400);
  EXPECT_EQ(seen, (Texts{"negative", "no number"}));
}

}  // namespace
}  // namespace morvik::test
