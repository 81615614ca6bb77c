// How an instance ends: with several callers, within its callbacks, with a disk or an app that does not return.
#include "runtime/life/instance_ending.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "host/store/sqlite_store.h"
#include "host/system_machine.h"
#include "runtime/machine/take_over_table.h"
#include "runtime/make_instance.h"
#include "testing/recording_log.h"
#include "tests/support/busy_turn.h"
#include "tests/support/faulty_vfs.h"
#include "tests/support/full_stderr.h"
#include "tests/support/no_threads.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

using std::chrono::steady_clock;
using test::kGiveUp;
/// Beyond the two seconds, on a busy machine.
constexpr std::chrono::milliseconds kBusy{900};
constexpr const char* kNotFromWithin =
    "Morvik host: the kit cannot be stopped from within one of its callbacks; stop it from outside";

/// The system's machine, with its store on this file system.
class MachineWithDisk final : public SystemMachine {
 public:
  explicit MachineWithDisk(std::string vfs) : vfs_(std::move(vfs)) {}
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    return std::make_unique<SqliteStore>(
        SqliteStoreOptions{.place = {.folder = folder, .vfs = vfs_}, .take_over = runtime::takeOverTable()}, log);
  }

 private:
  const std::string vfs_;
};

/// The system's machine, with access to its store.
class MachineWithStoreAtHand final : public SystemMachine {
 public:
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    auto made = std::make_unique<SqliteStore>(
        SqliteStoreOptions{.place = {.folder = folder}, .take_over = runtime::takeOverTable()}, log);
    store = made.get();
    return made;
  }
  SqliteStore* store = nullptr;
};

class InstanceEndingTest : public test::OnScratchFolder {
 protected:
  static void expectReady(std::future<void> future) { EXPECT_EQ(future.wait_for(kGiveUp), std::future_status::ready); }
};

TEST_F(InstanceEndingTest, RunsWhatWasPostedBeforeInOrder) {
  const auto instance = make();
  std::vector<int> ran;
  for (int i = 0; i < 100; ++i)
    instance->perform([&ran, i] { ran.push_back(i); });
  instance->stop();
  ASSERT_EQ(ran.size(), 100U);
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(InstanceEndingTest, RunsWhatWasPostedBeforeOnThePumpingThread) {
  const auto instance = makePumped();
  int ran = 0;
  std::thread([&] {
    instance->perform([&ran] { ++ran; });
    instance->perform([&ran] { ++ran; });
  }).join();
  instance->stop();
  EXPECT_EQ(ran, 2);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(InstanceEndingTest, LetsAPostedBlockRecordWhileItEndsAndRefusesWhatComesFromOutside) {
  const auto instance = make();
  std::promise<void> is_ending;
  std::promise<void> go;
  instance->perform([&] {
    is_ending.set_value();
    go.get_future().wait();
    instance->applicationDidBecomeActive();
  });
  is_ending.get_future().wait();
  std::thread stopper([&instance] { instance->stop(); });
  bool ran = false;
  while (instance->setAge(7) == Recorded::kKept)
    std::this_thread::yield();
  instance->perform([&ran] { ran = true; });
  go.set_value();
  stopper.join();
  EXPECT_EQ(instance->properties().integerForKey("com.morvik.core.appLaunchCount"), 1);
  EXPECT_FALSE(ran);
}

TEST_F(InstanceEndingTest, RefusesWhatIsRecordedOnceItHasStopped) {
  const auto instance = make();
  EXPECT_EQ(instance->addActivity("g", "before", std::nullopt), Recorded::kKept);
  instance->stop();
  EXPECT_EQ(instance->addActivity("g", "after", std::nullopt), Recorded::kRefusedNotRunning);
  EXPECT_EQ(instance->setAge(7), Recorded::kRefusedNotRunning);
  EXPECT_EQ(instance->passOpenURL("x://y"), Recorded::kRefusedNotRunning);
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kRefusedNotRunning);
  EXPECT_FALSE(instance->isGdprForgetMe());
}

TEST_F(InstanceEndingTest, CountsWhatIsRefusedFromItsBeginningOnAndSaysSoOnce) {
  constexpr uint64_t kWhileItEnds = 100;
  options.log_level = 3;
  auto instance = make();
  test::BusyTurn busy(*instance);
  std::thread stopper([&instance] { instance->stop(); });
  while (instance->setAge(7) == Recorded::kKept)
    std::this_thread::yield();
  for (uint64_t event = 1; event < kWhileItEnds; ++event)
    instance->addActivity("g", "while it ends", std::nullopt);
  busy.end();
  stopper.join();
  EXPECT_EQ(log.countContaining("something was handed over after the end of the kit had begun"), 1U);
  const size_t lines = log.lines().size();
  instance->passOpenURL("x://y");
  EXPECT_EQ(log.lines().size(), lines) << "the log is closed";
  const auto refused = [](runtime::Instance& of) {
    const Ledger ledger = of.ledger();
    EXPECT_TRUE(ledger.isSound()) << "they are in no account";
    return ledger.refused.size() == 1 && ledger.refused[0].reason == toText(Recorded::kRefusedNotRunning)
               ? ledger.refused[0].count
               : 0;
  };
  EXPECT_EQ(refused(*instance), kWhileItEnds + 1);
  instance.reset();
  EXPECT_EQ(refused(*make()), kWhileItEnds) << "what came after the end is not written";
}

TEST_F(InstanceEndingTest, KeepsWhatABlockRecordsWhileTheEndWaitsForIt) {
  const auto instance = make();
  std::promise<void> started;
  std::promise<void> go;
  Recorded within = Recorded::kRefusedNotRunning;
  instance->perform([&] {
    started.set_value();
    go.get_future().wait();
    within = instance->addActivity("g", "within", std::nullopt);
  });
  started.get_future().wait();
  std::thread stopper([&instance] { instance->stop(); });
  // Once the end has begun, nothing is accepted from outside.
  while (instance->addActivity("g", "outside", std::nullopt) == Recorded::kKept)
    std::this_thread::yield();
  go.set_value();
  stopper.join();
  EXPECT_EQ(within, Recorded::kKept);
}

TEST_F(InstanceEndingTest, CountsWhatCannotRunWhenAPumpedKitIsStoppedFromElsewhere) {
  const auto instance = makePumped();
  bool ran = false;
  std::thread([&] {
    for (int i = 0; i < 3; ++i)
      instance->perform([&ran] { ran = true; });
    instance->stop();
  }).join();
  instance->dispatch();
  EXPECT_FALSE(ran);
  EXPECT_EQ(instance->pollDescriptor(), -1);
  EXPECT_EQ(log.countContaining("Morvik host: 3 calls that waited for the main queue could not run any more"), 1U);
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(InstanceEndingTest, IsStoppedFromElsewhereWhileItsThreadPumps) {
  const auto instance = makePumped();
  std::atomic<bool> is_stopped = false;
  std::thread stopper([&] {
    instance->stop();
    is_stopped = true;
  });
  while (!is_stopped) {
    instance->perform([] {});
    static_cast<void>(instance->pollTimeoutMilliseconds());
    instance->dispatch();
  }
  stopper.join();
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, IsEndedByOneOfSeveralThreadsAndTheOthersReturnWhenItIs) {
  const auto instance = make();
  test::BusyTurn busy(*instance);
  std::atomic<bool> callback_ended = false;
  instance->perform([&callback_ended] { callback_ended = true; });
  std::vector<std::future<bool>> stopped;
  for (int i = 0; i < 4; ++i) {
    stopped.push_back(std::async(std::launch::async, [&] {
      instance->stop();
      return callback_ended.load();
    }));
  }
  busy.end();
  for (auto& each : stopped) {
    ASSERT_EQ(each.wait_for(kGiveUp), std::future_status::ready);
    EXPECT_TRUE(each.get());
  }
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, WritesALineAndDoesNothingOnTheBackgroundQueue) {
  std::promise<void> called;  // the instance may call once more while it ends
  std::unique_ptr<runtime::Instance> instance;
  options.modules["Fendo"].saveCommerceEventAndSend = [&] {
    instance->stop();
    called.set_value();
  };
  instance = make();
  instance->perform([&instance] {
    instance->applicationDidBecomeActive();
    // Only now, so that it is the session's end, on the background queue, that hands them to the module.
    instance->properties().setCommerceExpansionInfos(kit::Array{kit::Dictionary{{"cid", "7"}}});
    instance->applicationDidEnterBackground();
  });
  expectReady(called.get_future());
  std::promise<void> goes_on;
  instance->perform([&goes_on] { goes_on.set_value(); });
  expectReady(goes_on.get_future());
  EXPECT_TRUE(log.has(kNotFromWithin));
}

TEST_F(InstanceEndingTest, DoesNothingWithinTheLogSink) {
  runtime::Instance* stopped = nullptr;
  size_t lines = 0;
  options.log_sink = [&](std::string_view) {
    ++lines;
    if (stopped != nullptr)
      stopped->stop();
  };
  const auto instance = makePumped();
  stopped = instance.get();
  instance->perform([] { throw 1; });
  instance->dispatch();
  EXPECT_EQ(lines, 1U);
  bool goes_on = false;
  instance->perform([&goes_on] { goes_on = true; });
  instance->dispatch();
  EXPECT_TRUE(goes_on);
  stopped = nullptr;
}

TEST_F(InstanceEndingTest, IsLeftToItselfWhenACallbackDoesNotComeBack) {
  auto instance = make();
  std::promise<void> started;
  std::promise<void> go;
  std::promise<void> came_back;
  std::atomic<int> ran_afterwards = 0;
  instance->perform([&] {
    started.set_value();
    go.get_future().wait();
    came_back.set_value();
  });
  for (int i = 0; i < 5; ++i)
    instance->perform([&ran_afterwards] { ++ran_afterwards; });
  started.get_future().wait();
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
  EXPECT_EQ(log.countContaining("Morvik host: 5 calls that waited for the main queue could not run any more"), 1U);
  instance.reset();
  const StartResult meanwhile = MorvikCore::start(options);
  EXPECT_FALSE(meanwhile);
  EXPECT_NE(meanwhile.error.find("is in use by another kit of this process"), std::string::npos) << meanwhile.error;
  const size_t lines = log.lines().size();
  go.set_value();
  expectReady(came_back.get_future());
  EXPECT_TRUE(canStartInTheEnd());
  EXPECT_EQ(ran_afterwards, 0);
  EXPECT_EQ(log.lines().size(), lines);
}

TEST_F(InstanceEndingTest, IsLeftToItselfWhenTheDiskDoesNotComeBack) {
  test::FaultyVfs disk;
  std::promise<void> go;
  const std::shared_future<void> may_go_on = go.get_future().share();
  MachineWithDisk machine(disk.name());
  auto instance = makeOn(machine);
  disk.decide([may_go_on](const test::VfsCall& call) {
    if (call.kind == test::VfsCall::Kind::kSync)
      may_go_on.wait();
    return SQLITE_OK;
  });
  instance->applicationDidBecomeActive();
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
  instance.reset();
  EXPECT_FALSE(MorvikCore::start(options));
  go.set_value();
  EXPECT_TRUE(canStartInTheEnd());
  const auto next = make();
  EXPECT_EQ(next->properties().integerForKey("com.morvik.core.appLaunchCount"), 1);
}

TEST_F(InstanceEndingTest, CommitsAndLeavesWhenItIsDestroyedWithinACallback) {
  auto instance = make();
  std::promise<void> left;
  bool ran = false;
  instance->perform([&] {
    instance->applicationDidBecomeActive();
    instance->perform([&ran] { ran = true; });
    instance.reset();
    left.set_value();
  });
  expectReady(left.get_future());
  testing::RecordingLog unused;
  const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
  EXPECT_EQ(inspector.get("fendoActivityInfos").size(), 2U) << "a start and a retention";
  EXPECT_FALSE(MorvikCore::start(options)) << "what is left keeps its store";
  EXPECT_FALSE(ran);
}

TEST_F(InstanceEndingTest, LeavesTheOtherQueueToEndByItselfWhenThatDoesNotComeBack) {
  std::promise<void> started;
  std::promise<void> go;
  std::promise<void> came_back;
  options.modules["Fendo"].saveCommerceEventAndSend = [&] {
    started.set_value();
    go.get_future().wait();
    came_back.set_value();
  };
  auto instance = make();
  instance->perform([&instance] {
    instance->applicationDidBecomeActive();
    // Only now, so that it is the session's end, on the background queue, that hands them to the module.
    instance->properties().setCommerceExpansionInfos(kit::Array{kit::Dictionary{{"cid", "7"}}});
    instance->applicationDidEnterBackground();
  });
  started.get_future().wait();
  std::promise<steady_clock::duration> left;
  instance->perform([&] { left.set_value(timeOf([&instance] { instance.reset(); })); });
  auto time = left.get_future();
  ASSERT_EQ(time.wait_for(kGiveUp), std::future_status::ready);
  EXPECT_LT(time.get(), runtime::kStopTime + kBusy);
  go.set_value();
  expectReady(came_back.get_future());
  EXPECT_FALSE(MorvikCore::start(options)) << "what is left keeps its store";
}

TEST_F(InstanceEndingTest, StopsInTheMiddleOfALongQueueOfBlocks) {
  const auto instance = make();
  std::atomic<size_t> ran = 0;
  // Each posts the next one, endlessly.
  std::function<void()> next = [&] {
    ++ran;
    instance->mainQueue().async(next);
  };
  instance->perform(next);
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
  const size_t at_the_end = ran;
  EXPECT_EQ(ran, at_the_end);
}

// ------------------------------------------------------------------------------------------------------------ the log

/// Ends an instance whose callback returns after stop() and then throws.
void endWithACallbackThatThrowsLate(runtime::Instance& instance) {
  std::promise<void> started;
  const auto may_go_on = std::make_shared<std::promise<void>>();
  instance.perform([&started, future = may_go_on->get_future().share()] {
    started.set_value();
    future.wait();
    throw 1;
  });
  started.get_future().wait();
  instance.stop();
  may_go_on->set_value();
}

TEST_F(InstanceEndingTest, WritesNothingToStandardErrorOnceItHasStopped) {
  options.log_sink = nullptr;
  ::testing::internal::CaptureStderr();
  const auto instance = make();
  endWithACallbackThatThrowsLate(*instance);
  EXPECT_TRUE(canStartInTheEnd());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(InstanceEndingTest, DoesNotWaitForWhoeverShouldReadStandardError) {
  options.log_sink = nullptr;
  const auto instance = make();
  const test::FullStderr full;
  instance->perform([] { throw 1; });
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
  full.restore();
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, PumpedDoesNotWaitForWhoeverShouldReadStandardErrorEither) {
  options.log_sink = nullptr;
  const auto instance = makePumped();
  const test::FullStderr full;
  std::thread([&instance] {
    for (int i = 0; i < 3; ++i)
      instance->perform([] { throw 1; });
  }).join();
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
}

/// Tests the header's own bound: the shortest of several stops is not also delayed by the machine.
TEST_F(InstanceEndingTest, TakesTwoSecondsInAllWhereTheLogSinkDoesNotComeBack) {
  constexpr int kTries = 5;
  auto shortest = steady_clock::duration::max();
  for (int i = 0; i < kTries && shortest >= runtime::kStopTime; ++i) {
    std::promise<void> hangs;
    std::promise<void> go;
    std::atomic<bool> is_to_hang = false;
    options.log_sink = [&](std::string_view) {
      if (!is_to_hang.exchange(false))
        return;
      hangs.set_value();
      go.get_future().wait();
    };
    const auto instance = make();
    is_to_hang = true;
    instance->perform([] { throw 1; });
    instance->perform([] {});
    hangs.get_future().wait();
    // The call that can no longer run is one of the last lines.
    shortest = std::min(shortest, timeOf([&instance] { instance->stop(); }));
    go.set_value();
    EXPECT_TRUE(canStartInTheEnd());
  }
  EXPECT_LT(shortest, runtime::kStopTime);
}

// ---------------------------------------------------------------------------------------------------------- the store

TEST_F(InstanceEndingTest, DoesNotWaitForWhoeverHasTheStoreLocked) {
  const auto instance = make();
  std::promise<void> locked;
  std::promise<void> go;
  std::thread holder([&] {
    instance->properties().inOneStep([&] {
      locked.set_value();
      go.get_future().wait();
    });
  });
  locked.get_future().wait();
  EXPECT_LT(timeOf([&instance] { instance->stop(); }), runtime::kStopTime + kBusy);
  const Status status = instance->status();
  EXPECT_FALSE(status.is_running);
  EXPECT_TRUE(status.waiting.empty());
  go.set_value();
  holder.join();
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, LeavesRemovedWhatIsRemovedOnceItHasBegun) {
  MachineWithStoreAtHand machine;
  const auto instance = makeOn(machine);
  instance->addActivity("g", "n", std::nullopt);
  machine.store->flushAndWait();
  std::promise<void> is_ending;
  std::promise<void> go;
  instance->perform([&] {
    is_ending.set_value();
    go.get_future().wait();
    std::filesystem::remove_all(options.store_folder);
    instance->applicationDidBecomeActive();
    machine.store->flushAndWait();
    EXPECT_FALSE(std::filesystem::exists(options.store_folder)) << "by a flush while the queues run to their end";
  });
  is_ending.get_future().wait();
  std::thread stopper([&instance] { instance->stop(); });
  while (instance->setAge(7) == Recorded::kKept)
    std::this_thread::yield();
  go.set_value();
  stopper.join();
  EXPECT_FALSE(std::filesystem::exists(options.store_folder));
  EXPECT_EQ(log.countContaining("were removed or replaced before the kit had stopped"), 1U);
}

TEST_F(InstanceEndingTest, WithinACallbackLeavesRemovedWhatIsRemovedAfterwards) {
  static auto& machine = *new MachineWithStoreAtHand;  // the instance's parts are kept for good
  auto instance = makeOn(machine);
  SqliteStore& store = *machine.store;
  std::promise<void> left;
  runtime::Instance& running = *instance;
  running.perform([&] {
    instance.reset();
    std::filesystem::remove_all(options.store_folder);
    store.flushAndWait();
    EXPECT_FALSE(std::filesystem::exists(options.store_folder));
    left.set_value();
  });
  left.get_future().wait();
}

// ----------------------------------------------------------------------------------------------- others, at that time

TEST_F(InstanceEndingTest, EndsAWaitThatAnotherThreadIsIn) {
  const auto instance = make();
  // Keeps the waits from being told before they are stopped.
  test::BusyTurn busy(*instance);
  instance->addActivity("g", "n", std::nullopt);
  auto waiting = std::async(std::launch::async, [&instance] { return instance->waitUntilDelivered(kGiveUp); });
  auto draining = std::async(std::launch::async, [&instance] { instance->stop(kGiveUp); });
  auto stopping = std::async(std::launch::async, [&instance] { instance->stop(); });
  while (instance->setAge(7) == Recorded::kKept)
    std::this_thread::yield();
  busy.end();
  EXPECT_EQ(got(std::move(waiting)).reason, FlushReason::kStopped);
  got(std::move(draining));
  got(std::move(stopping));
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, TellsAFlushThatTheMainQueueDoesNotGetToOnTheStoppingThread) {
  const auto instance = make();
  test::BusyTurn busy(*instance);
  std::vector<FlushReason> told;
  std::thread::id told_on;
  instance->addActivity("g", "n", std::nullopt);
  instance->flush(
      [&](const FlushResult& result) {
        told.push_back(result.reason);
        told_on = std::this_thread::get_id();
      },
      kGiveUp);
  instance->stop();
  EXPECT_EQ(told, std::vector<FlushReason>{FlushReason::kStopped});
  EXPECT_EQ(told_on, std::this_thread::get_id());
  busy.end();
  EXPECT_TRUE(canStartInTheEnd());
  EXPECT_EQ(told.size(), 1U);
}

TEST_F(InstanceEndingTest, IsNotBegunAgainFromWithinTheAnswerToAFlushOnTheStoppingThread) {
  const auto instance = make();
  test::BusyTurn busy(*instance);
  instance->addActivity("g", "n", std::nullopt);
  int told = 0;
  bool erased = true;
  const std::function<void(const FlushResult&)> done = [&](const FlushResult&) {
    ++told;
    instance->stop();
    erased = instance->eraseLocalData();
    instance->flush(done, kGiveUp);
  };
  instance->flush(done, kGiveUp);
  instance->stop();
  EXPECT_EQ(told, 1);
  EXPECT_FALSE(erased);
  EXPECT_EQ(log.countContaining("cannot be stopped from within one of its callbacks"), 1U);
  busy.end();
  EXPECT_TRUE(canStartInTheEnd());
}

TEST_F(InstanceEndingTest, TellsAFlushAlsoWhereNoThreadCanBeHadToCloseOn) {
  const auto instance = makePumped();
  instance->addActivity("g", "n", std::nullopt);
  std::vector<FlushReason> told;
  instance->flush([&told](const FlushResult& result) { told.push_back(result.reason); }, kGiveUp);
  // Not on the pumping thread, so that the main queue does not get to it.
  std::thread([&instance] {
    const test::NoThreads none;
    instance->stop();
  }).join();
  EXPECT_EQ(told, std::vector<FlushReason>{FlushReason::kStopped});
}

TEST_F(InstanceEndingTest, TellsAFlushAtOnceThatComesWhileItEnds) {
  const auto instance = make();
  test::BusyTurn busy(*instance);
  instance->addActivity("g", "n", std::nullopt);
  std::thread stopper([&instance] { instance->stop(); });
  while (instance->setAge(7) == Recorded::kKept)
    std::this_thread::yield();
  std::vector<FlushReason> told;
  instance->flush([&told](const FlushResult& result) { told.push_back(result.reason); }, kGiveUp);
  EXPECT_EQ(told, std::vector<FlushReason>{FlushReason::kStopped});
  busy.end();
  stopper.join();
  EXPECT_EQ(told.size(), 1U);
}

TEST_F(InstanceEndingTest, WritesALineAndDoesNothingWithinTheAppsAdClient) {
  runtime::Instance* kit = nullptr;
  std::promise<void> asked;
  options.ad_client.requestAttributionDetails = [&](auto&&...) {
    kit->stop();
    asked.set_value();
  };
  const auto instance = make();
  kit = instance.get();
  instance->applicationDidBecomeActive();
  expectReady(asked.get_future());
  std::promise<void> goes_on;
  instance->perform([&goes_on] { goes_on.set_value(); });
  expectReady(goes_on.get_future());
  EXPECT_TRUE(log.has(kNotFromWithin));
  instance->stop();
}

// ------------------------------------------------------------------------------------------------------------ erasing

TEST_F(InstanceEndingTest, ErasesInTheSameTimeAndTheNextStartFinishesWhatACallbackHeldUp) {
  const auto instance = make();
  instance->addActivity("g", "n", std::nullopt);
  test::BusyTurn busy(*instance);
  bool was_erased = true;
  EXPECT_LT(timeOf([&] { was_erased = instance->eraseLocalData(); }), runtime::kStopTime + kBusy);
  EXPECT_FALSE(was_erased) << "the callback keeps the store";
  EXPECT_EQ(log.countContaining("Morvik host: not all was erased"), 1U);
  EXPECT_FALSE(MorvikCore::start(options));
  busy.end();
  EXPECT_TRUE(canStartInTheEnd());
  EXPECT_EQ(make()->properties().fendoActivityInfos().size(), 0U);
}

TEST_F(InstanceEndingTest, IsErasedByOneOfSeveralThreadsAndTheOthersAnswerTheSame) {
  const auto instance = make();
  instance->addActivity("g", "n", std::nullopt);
  test::BusyTurn busy(*instance);
  std::vector<std::future<bool>> erased;
  std::atomic<int> callers = 0;
  const auto erase = [&] {
    ++callers;
    return instance->eraseLocalData();
  };
  for (int i = 0; i < 4; ++i)
    erased.push_back(std::async(std::launch::async, erase));
  while (instance->setAge(7) == Recorded::kKept || callers < 4)
    std::this_thread::yield();
  erased.push_back(std::async(std::launch::async, erase));
  EXPECT_EQ(erased.back().wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  busy.end();
  for (auto& each : erased)
    EXPECT_TRUE(got(std::move(each)));
  const size_t lines = log.lines().size();
  EXPECT_FALSE(instance->eraseLocalData()) << "it is stopped";
  EXPECT_EQ(log.lines().size(), lines) << "and its log closed";
}

TEST_F(InstanceEndingTest, IsNotErasedFromWithinTheLogSink) {
  runtime::Instance* kit = nullptr;
  std::vector<bool> erased;
  options.log_sink = [&](std::string_view) {
    if (kit != nullptr)
      erased.push_back(kit->eraseLocalData());
  };
  const auto instance = makePumped();
  instance->addActivity("g", "n", std::nullopt);
  kit = instance.get();
  instance->perform([] { throw 1; });
  instance->dispatch();
  kit = nullptr;
  EXPECT_EQ(erased, std::vector<bool>{false});
  EXPECT_EQ(instance->addActivity("g", "n", std::nullopt), Recorded::kKept);
  EXPECT_EQ(instance->properties().fendoActivityInfos().size(), 2U);
}

}  // namespace
}  // namespace morvik::host
