// Sending switched off and on, flushes and erasing on the real machine, from the app's own threads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "host/make_instance.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/endpoints.h"
#include "simulation/levered_machine.h"
#include "testing/recording_log.h"
#include "tests/host/net/loopback_server.h"
#include "tests/support/busy_turn.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr seconds kGiveUp{20};

class SendingOfInstance : public ::testing::Test {
 protected:
  SendingOfInstance()
      : server_({}, [this](const test::ServedRequest& request, test::Peer& peer) { serve(request, peer); }) {
    options.store_folder = folder / "store";
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 3;
    options.log_sink = [this](std::string_view line) { log.line(line); };
    options.service_url = server_.url("/");
  }

  std::unique_ptr<runtime::Instance> make(MainQueueMode mode = MainQueueMode::kOwnThread) {
    options.main_queue = mode;
    auto machine = std::make_unique<simulation::LeveredMachine>();
    levers = machine.get();
    auto made = host::makeInstance(options, std::move(machine));
    if (const auto* error = std::get_if<kit::Error>(&made)) {
      ADD_FAILURE() << error->message;
      return nullptr;
    }
    return std::get<std::unique_ptr<runtime::Instance>>(std::move(made));
  }
  /// With its first session open and its install attributed.
  std::unique_ptr<runtime::Instance> makeAttributed(MainQueueMode mode = MainQueueMode::kOwnThread) {
    auto instance = make(mode);
    instance->applicationDidBecomeActive();
    instance->addActivity("shop", "first", std::nullopt);
    EXPECT_TRUE(instance->waitUntilDelivered(kGiveUp).is_delivered);
    return instance;
  }
  size_t arrived(std::string_view path) {
    size_t count = 0;
    for (const test::ServedRequest& request : server_.requests())
      count += request.target.find(path) != std::string::npos ? 1u : 0u;
    return count;
  }
  static void turn(runtime::Instance& instance) {
    std::promise<void> over;
    instance.perform([&over] { over.set_value(); });
    ASSERT_EQ(over.get_future().wait_for(kGiveUp), std::future_status::ready);
  }
  /// Requests of the session's start may still be under way.
  static void rest(runtime::Instance& instance) {
    const auto give_up = steady_clock::now() + kGiveUp;
    while (instance.pending().requests > 0 && steady_clock::now() < give_up)
      turn(instance);
    ASSERT_EQ(instance.pending().requests, 0u);
  }
  static size_t stored(runtime::Instance& instance) { return instance.properties().fendoActivityInfos().size(); }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(options.store_folder))
      found.insert(entry.path().filename());
    return found;
  }

  test::ScratchFolder folder;
  testing::RecordingLog log;
  StartOptions options;
  simulation::Levers* levers = nullptr;  ///< the latest instance's
  std::atomic<bool> answers_batches{true};
  std::atomic<bool> answers_clicks{true};

 private:
  void serve(const test::ServedRequest& request, test::Peer& peer) {
    const auto asks = [&request](const char* path) { return request.target.find(path) != std::string::npos; };
    if (asks(services::kTrackingPath)) {
      if (answers_batches)
        peer.answer(200, R"({"Result":true})");
      return;
    }
    if (asks(services::kReEngagementConversionPath) && !answers_clicks)
      return;
    if (asks(services::kConversionPath))
      return peer.answer(200, R"({"Result":true,"Data":{"user_no":1001,"referralKey":7}})");
    peer.answer(200, R"({"Result":true})");
  }
  test::LoopbackServer server_;
};

TEST_F(SendingOfInstance, AFreshInstallIsAttributedAndDeliversWhatTheAppWaitsFor) {
  const auto instance = make();
  instance->applicationDidBecomeActive();
  instance->addActivity("shop", "purchase", "sku-42");
  const FlushResult result = instance->waitUntilDelivered(kGiveUp);
  EXPECT_TRUE(result.is_delivered) << toText(result.reason);
  EXPECT_EQ(stored(*instance), 0u);
}

TEST_F(SendingOfInstance, PumpedTheWaitPumps) {
  const auto instance = makeAttributed(MainQueueMode::kPumped);
  instance->addActivity("shop", "purchase", std::nullopt);
  EXPECT_TRUE(instance->waitUntilDelivered(kGiveUp).is_delivered);
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  const auto begun = steady_clock::now();
  EXPECT_EQ(instance->waitUntilDelivered(milliseconds(50)).reason, FlushReason::kTimeout);
  EXPECT_GE(steady_clock::now() - begun, milliseconds(50));
}

TEST_F(SendingOfInstance, PumpedAnotherThreadWaitsForTheOneThatPumps) {
  const auto instance = makeAttributed(MainQueueMode::kPumped);
  instance->addActivity("shop", "purchase", std::nullopt);
  auto waiting = std::async(std::launch::async, [&instance] { return instance->waitUntilDelivered(kGiveUp); });
  while (waiting.wait_for(milliseconds(1)) != std::future_status::ready)
    instance->dispatch();
  EXPECT_TRUE(waiting.get().is_delivered);
}

TEST_F(SendingOfInstance, PumpedByNobodyTheWaitEndsInTime) {
  const auto instance = makeAttributed(MainQueueMode::kPumped);
  instance->addActivity("shop", "purchase", std::nullopt);
  auto waiting = std::async(std::launch::async, [&instance] { return instance->waitUntilDelivered(milliseconds(50)); });
  ASSERT_EQ(waiting.wait_for(kGiveUp), std::future_status::ready);
  const FlushResult result = waiting.get();
  EXPECT_EQ(result.reason, FlushReason::kTimeout);
  EXPECT_EQ(result.waiting, 1u);
}

TEST_F(SendingOfInstance, PumpedByNobodyTheWaitLeavesNoTimerBehind) {
  const auto instance = make(MainQueueMode::kPumped);
  instance->dispatch();
  ASSERT_EQ(instance->pollTimeoutMilliseconds(), -1);
  auto waiting = std::async(std::launch::async, [&instance] { return instance->waitUntilDelivered(milliseconds(20)); });
  ASSERT_EQ(waiting.wait_for(kGiveUp), std::future_status::ready);
  instance->dispatch();
  EXPECT_EQ(instance->pollTimeoutMilliseconds(), -1) << "nobody waits any more";
}

/// Keeps the main queue busy until destroyed.
class BlockedMainQueue {
 public:
  explicit BlockedMainQueue(runtime::Instance& instance) {
    std::promise<void> begun;
    instance.perform([&begun, go = go_.get_future().share()] {
      begun.set_value();
      go.wait();
    });
    begun.get_future().wait();
  }
  BlockedMainQueue(const BlockedMainQueue&) = delete;
  BlockedMainQueue& operator=(const BlockedMainQueue&) = delete;
  ~BlockedMainQueue() { go_.set_value(); }

 private:
  std::promise<void> go_;
};

TEST_F(SendingOfInstance, ThoseWhoGiveUpOnABlockedMainQueueLeaveOneBlockThereAtMost) {
  const auto instance = make();
  {
    const BlockedMainQueue blocked(*instance);
    instance->addActivity("shop", "look", std::nullopt);
    const size_t before = instance->pending().main_blocks;
    for (int wait = 0; wait < 100; ++wait)
      EXPECT_FALSE(instance->waitUntilDelivered(milliseconds(wait % 2)).is_delivered);
    EXPECT_LE(instance->pending().main_blocks, before + 1);
  }
  EXPECT_EQ(instance->waitUntilDelivered(kGiveUp).reason, FlushReason::kNotAttributed) << "whoever comes later is told";
}

TEST_F(SendingOfInstance, TheTimeOfAFlushCountsFromTheCallAlsoBehindABlockedMainQueue) {
  const auto instance = makeAttributed();
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  std::promise<bool> was_told_first;
  std::optional<FlushResult> told;
  {
    const BlockedMainQueue blocked(*instance);
    instance->flush([&told](const FlushResult& result) { told = result; }, milliseconds(20));
    levers->after(0.1, [&] { was_told_first.set_value(told.has_value()); });
    // Longer than both timers.
    EXPECT_EQ(instance->waitUntilDelivered(milliseconds(200)).reason, FlushReason::kTimeout);
  }
  EXPECT_TRUE(was_told_first.get_future().get());
  ASSERT_TRUE(told);
  EXPECT_EQ(told->reason, FlushReason::kTimeout);
  EXPECT_EQ(told->waiting, 1u);
}

TEST_F(SendingOfInstance, AFlushWhoseTimeIsUpBeforeItsTurnAsksForTheDeliveryAllTheSame) {
  const auto instance = makeAttributed();
  instance->addActivity("shop", "purchase", std::nullopt);
  std::promise<FlushResult> told;
  {
    const BlockedMainQueue blocked(*instance);
    // Its turn waits there, and the flush is for the next one.
    instance->waitUntilDelivered(milliseconds(1));
    instance->flush([&told](const FlushResult& result) { told.set_value(result); }, milliseconds(0));
  }
  EXPECT_EQ(told.get_future().get().reason, FlushReason::kTimeout);
  const auto give_up = steady_clock::now() + kGiveUp;
  while (stored(*instance) > 0 && steady_clock::now() < give_up)
    std::this_thread::yield();
  EXPECT_EQ(stored(*instance), 0u);
}

/// A turn of an app that takes its time.
void spinFor(milliseconds time) {
  const auto until = steady_clock::now() + time;
  while (steady_clock::now() < until) {
  }
}

TEST_F(SendingOfInstance, PumpedTheWaitBeginsNoTurnOnceItsTimeIsUp) {
  const auto instance = makeAttributed(MainQueueMode::kPumped);
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  int turns = 0;
  for (int turn = 0; turn < 20; ++turn) {
    instance->perform([&turns] {
      ++turns;
      spinFor(milliseconds(20));
    });
  }
  EXPECT_EQ(instance->waitUntilDelivered(milliseconds(50)).reason, FlushReason::kTimeout);
  EXPECT_LE(turns, 3);
}

TEST_F(SendingOfInstance, PumpedTheTimeOfTheWaitCountsFromTheCallAlsoBehindOtherTurns) {
  const auto instance = makeAttributed(MainQueueMode::kPumped);
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  instance->perform([] { spinFor(milliseconds(40)); });
  bool is_later = false;
  levers->after(0.07, [&is_later] { is_later = true; });
  EXPECT_EQ(instance->waitUntilDelivered(milliseconds(60)).reason, FlushReason::kTimeout);
  EXPECT_FALSE(is_later);
}

TEST_F(SendingOfInstance, AFlushBehindOneThatWaitsTellsOfWhatWasPostedBetweenTheTwo) {
  const auto instance = make();
  std::promise<FlushResult> first;
  std::promise<FlushResult> second;
  {
    const BlockedMainQueue blocked(*instance);
    instance->addActivity("shop", "before", std::nullopt);
    instance->flush([&](const FlushResult& result) { first.set_value(result); }, kGiveUp);
    instance->perform([&] { instance->addActivity("shop", "between", std::nullopt); });
    instance->flush([&](const FlushResult& result) { second.set_value(result); }, kGiveUp);
  }
  EXPECT_EQ(first.get_future().get().waiting, 1u);
  EXPECT_EQ(second.get_future().get().waiting, 2u);
}

TEST_F(SendingOfInstance, InsideACallbackOfEitherQueueTheWaitReturnsAtOnce) {
  std::promise<FlushResult> in_background;
  MorvikCore* kit = nullptr;
  options.modules["Fendo"].saveCommerceEventAndSend = [&] {
    in_background.set_value(kit->waitUntilDelivered(kGiveUp));
  };
  const auto instance = makeAttributed();
  kit = instance.get();
  std::promise<FlushResult> on_main;
  instance->perform([&] { on_main.set_value(kit->waitUntilDelivered(kGiveUp)); });
  EXPECT_EQ(on_main.get_future().get().reason, FlushReason::kInsideACallback);
  instance->perform([&instance] { instance->properties().setCommerceExpansionInfos(kit::Array{1}); });
  instance->applicationDidEnterBackground();
  EXPECT_EQ(in_background.get_future().get().reason, FlushReason::kInsideACallback);
}

TEST_F(SendingOfInstance, AFlushIsToldOfAStopOnTheMainQueueBeforeItReturns) {
  const auto instance = makeAttributed();
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  std::thread::id main_queue;
  instance->perform([&main_queue] { main_queue = std::this_thread::get_id(); });
  turn(*instance);
  std::thread::id told_on;
  FlushResult told;
  instance->flush(
      [&](const FlushResult& result) {
        told_on = std::this_thread::get_id();
        told = result;
      },
      seconds(60));
  auto waiting = std::async(std::launch::async, [&instance] { return instance->waitUntilDelivered(seconds(60)); });
  while (waiting.wait_for(milliseconds(0)) == std::future_status::timeout && arrived(services::kTrackingPath) < 2)
    turn(*instance);
  instance->stop();
  EXPECT_EQ(told.reason, FlushReason::kStopped);
  EXPECT_EQ(told.waiting, 1u);
  EXPECT_EQ(told_on, main_queue);
  EXPECT_EQ(waiting.get().reason, FlushReason::kStopped);
}

TEST_F(SendingOfInstance, AStopThatMayDrainDeliversFirst) {
  const auto instance = makeAttributed();
  instance->addActivity("shop", "purchase", std::nullopt);
  instance->stop(kGiveUp);
  EXPECT_EQ(stored(*instance), 0u);
}

TEST_F(SendingOfInstance, AStopThatMayDrainTakesNoLongerThanThatAndTwoSeconds) {
  const auto instance = makeAttributed();
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  const auto begun = steady_clock::now();
  instance->stop(milliseconds(100));
  EXPECT_LT(steady_clock::now() - begun, milliseconds(2100));
  EXPECT_EQ(stored(*instance), 1u);
}

TEST_F(SendingOfInstance, OffFromTheStartNothingArrivesUntilItIsOn) {
  options.sending = false;
  const auto instance = make();
  instance->applicationDidBecomeActive();
  instance->addActivity("shop", "purchase", std::nullopt);
  EXPECT_EQ(instance->waitUntilDelivered(kGiveUp).reason, FlushReason::kSendingOff);
  EXPECT_EQ(arrived(""), 0u);
  instance->setSendingEnabled(true);
  const FlushResult result = instance->waitUntilDelivered(kGiveUp);
  EXPECT_TRUE(result.is_delivered) << toText(result.reason);
}

TEST_F(SendingOfInstance, OffAgainBeforeAnythingIsAskedForAFlushThatWaitsForThatIsTold) {
  options.sending = false;
  const auto instance = make();
  instance->applicationDidBecomeActive();
  instance->addActivity("shop", "purchase", std::nullopt);
  std::promise<FlushResult> told;
  {
    const BlockedMainQueue blocked(*instance);
    instance->setSendingEnabled(true);
    instance->flush([&told](const FlushResult& result) { told.set_value(result); }, seconds(60));
    // After the flush began, and before the requests that resume with sending.
    instance->perform([&instance] { instance->setSendingEnabled(false); });
  }
  auto answer = told.get_future();
  ASSERT_EQ(answer.wait_for(kGiveUp), std::future_status::ready);
  EXPECT_EQ(answer.get().reason, FlushReason::kSendingOff);
  EXPECT_EQ(arrived(""), 0u);
}

TEST_F(SendingOfInstance, OffIsAtOnceWhateverTheMainQueueIsAt) {
  const auto instance = makeAttributed();
  rest(*instance);
  const size_t before = arrived("");
  test::BusyTurn busy(*instance, [&] {
    instance->addActivity("shop", "purchase", std::nullopt);
    instance->pushTracking();
  });
  instance->setSendingEnabled(false);
  busy.end();
  turn(*instance);
  turn(*instance);
  EXPECT_EQ(instance->pending().requests, 0u) << "the turn had begun it; it is made again";
  EXPECT_EQ(arrived(""), before);
  instance->setSendingEnabled(true);
  EXPECT_TRUE(instance->waitUntilDelivered(kGiveUp).is_delivered);
}

TEST_F(SendingOfInstance, AWishStopsWhatWaitsForAConnection) {
  const auto instance = makeAttributed();
  answers_clicks = false;
  for (int key = 1; key <= 20; ++key)
    instance->passOpenURL("shop://offer?mrvk_eng=1&sn=3&ck=" + std::to_string(key));
  while (arrived(services::kReEngagementConversionPath) < runtime::kMaxConnectionsPerHost)
    turn(*instance);
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  turn(*instance);
  turn(*instance);
  EXPECT_EQ(instance->pending().requests, runtime::kMaxConnectionsPerHost + 1)
      << "those that have left, and the erasure";
  EXPECT_EQ(arrived(services::kReEngagementConversionPath), runtime::kMaxConnectionsPerHost);
  instance->stop();
  EXPECT_EQ(arrived(services::kReEngagementConversionPath), runtime::kMaxConnectionsPerHost);
}

TEST_F(SendingOfInstance, AWishStopsWhatTheTurnOfAnotherThreadHasStarted) {
  const auto instance = makeAttributed();
  rest(*instance);
  const size_t before = arrived("");
  test::BusyTurn busy(*instance, [&] {
    instance->addActivity("shop", "purchase", std::nullopt);
    instance->pushTracking();
  });
  levers->setOffline(true);
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  busy.end();
  turn(*instance);
  turn(*instance);
  EXPECT_EQ(instance->pending().requests, 0u);
  EXPECT_EQ(arrived(""), before);
  EXPECT_EQ(instance->ledger().of("activities").stored, 1u);
}

TEST_F(SendingOfInstance, SwitchedByManyThreadsItEndsAsItWasSwitchedLast) {
  const auto instance = makeAttributed();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&instance, thread] {
      for (int round = 0; round < 200; ++round)
        instance->setSendingEnabled((round + thread) % 2 == 0);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  instance->setSendingEnabled(false);
  instance->setSendingEnabled(true);
  instance->addActivity("shop", "purchase", std::nullopt);
  EXPECT_TRUE(instance->waitUntilDelivered(kGiveUp).is_delivered);
}

// ------------------------------------------------------------------------------------------------------------- erasing

TEST_F(SendingOfInstance, AWithdrawalOnAnotherThreadIsSentAfterAnAcceptedWishOnOne) {
  const auto instance = makeAttributed();
  std::mutex mutex;
  std::condition_variable told;
  std::vector<bool> answers;
  const auto delegate = std::make_shared<MorvikCoreDelegate>();
  delegate->didAnswerErasure = [&](bool accepted) {
    const std::lock_guard lock(mutex);
    answers.push_back(accepted);
    told.notify_all();
  };
  instance->setDelegate(delegate);
  const auto wishAndWait = [&](bool forget_me, size_t answers_then) {
    std::thread([&] { EXPECT_EQ(instance->gdprForgetMe(forget_me), Recorded::kKept); }).join();
    std::unique_lock lock(mutex);
    EXPECT_TRUE(told.wait_for(lock, kGiveUp, [&] { return answers.size() == answers_then; }));
  };
  wishAndWait(true, 1);
  wishAndWait(false, 2);
  EXPECT_THAT(answers, ElementsAre(true, true));
  EXPECT_EQ(arrived(services::kGdprReqUrlPath), 2u);
  EXPECT_TRUE(instance->isGdprForgetMe()) << "an accepted wish marks the user as forgotten, whatever it asked for";
  instance->stop();
}

TEST_F(SendingOfInstance, ErasedNothingOfTheKitIsLeftAndWhatIsNotItsOwnStays) {
  {
    const auto first = make();
    std::filesystem::create_directories(folder / "store/photos");
    for (const char* name : {"morvik.store.unreadable-1", "morvik.store.unreadable-1-wal", "crash-signal",
                             "crash-reports", "crash-reports.unreadable", "morvik.store.backup", "notes.txt",
                             "morvik.store.unreadable-x", "photos/crash-signal"})
      std::ofstream(folder / (std::string("store/") + name)) << "x";
    first->addActivity("shop", "purchase", std::nullopt);
    turn(*first);
    EXPECT_TRUE(first->eraseLocalData());
    EXPECT_FALSE(first->eraseLocalData()) << "it is stopped";
  }
  EXPECT_THAT(names(), ElementsAre("morvik.store.backup", "morvik.store.lock", "morvik.store.unreadable-x",
                                   "morvik.store.wish", "notes.txt", "photos"));
  EXPECT_TRUE(std::filesystem::exists(folder / "store/photos/crash-signal"));
}

TEST_F(SendingOfInstance, ErasedNothingIsLeftAlsoWhereSomebodyHasRemovedTheFolderBefore) {
  const auto first = make();
  first->addActivity("shop", "purchase", std::nullopt);
  turn(*first);
  std::filesystem::remove_all(folder / "store");
  first->addActivity("shop", "purchase", std::nullopt);
  EXPECT_TRUE(first->eraseLocalData());
  EXPECT_THAT(names(), ElementsAre("morvik.store.lock", "morvik.store.wish"));
}

TEST_F(SendingOfInstance, ErasedTheNextStartIsANewInstall) {
  std::string id;
  {
    const auto first = makeAttributed();
    id = std::string(first->storedValue(runtime::kInstallIdKey).string());
    EXPECT_TRUE(first->eraseLocalData());
  }
  const auto next = make();
  EXPECT_NE(next->storedValue(runtime::kInstallIdKey).string(), id);
  EXPECT_EQ(next->properties().fendoUserInfo_referralKey(), -1);
  EXPECT_EQ(stored(*next), 0u);
  EXPECT_FALSE(next->isGdprForgetMe());
  EXPECT_TRUE(next->ledger().isSound());
}

TEST_F(SendingOfInstance, ErasedTheWishToBeForgottenRemainsAndWhetherTheServiceKnows) {
  {
    const auto first = makeAttributed();
    first->gdprForgetMe(true);
    const auto is_synced = [&first] { return first->properties().MorvikCoreUserInfo_isGDPRForgetMeServerSynced(); };
    const auto deadline = steady_clock::now() + kGiveUp;
    while (!is_synced() && steady_clock::now() < deadline)
      turn(*first);
    ASSERT_TRUE(is_synced());
    EXPECT_TRUE(first->eraseLocalData());
  }
  const auto next = make();
  EXPECT_TRUE(next->isGdprForgetMe());
  EXPECT_TRUE(next->properties().MorvikCoreUserInfo_isGDPRForgetMeServerSynced());
  EXPECT_EQ(stored(*next), 0u);
  EXPECT_EQ(names().count("morvik.store.erasing"), 0u);
}

TEST_F(SendingOfInstance, ErasingEndsExchangesWithoutTheirHandlers) {
  const auto instance = makeAttributed();
  answers_batches = false;
  instance->addActivity("shop", "purchase", std::nullopt);
  instance->pushTracking();
  std::atomic<int> told{0};
  instance->flush([&told](const FlushResult&) { ++told; }, seconds(60));
  turn(*instance);
  EXPECT_TRUE(instance->eraseLocalData());
  EXPECT_EQ(told, 1) << "the flush, and of a stop";
  instance->addActivity("shop", "never", std::nullopt);
  EXPECT_THAT(names(), ElementsAre("morvik.store.lock", "morvik.store.wish"));
}

TEST_F(SendingOfInstance, InsideACallbackNothingIsErased) {
  const auto instance = makeAttributed();
  std::promise<bool> erased;
  instance->perform([&] { erased.set_value(instance->eraseLocalData()); });
  EXPECT_FALSE(erased.get_future().get());
  EXPECT_EQ(names().count("morvik.store"), 1u);
  EXPECT_TRUE(instance->waitUntilDelivered(kGiveUp).is_delivered) << "it runs on";
  // Within a callback nothing is written; a later turn does that.
  EXPECT_THAT(log.messages(), Contains(HasSubstr("nothing was erased")));
}

}  // namespace
}  // namespace morvik::host
