// What the app is told if its process runs out of memory in the middle of a recording call.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "host/make_instance.h"
#include "host/store/file_eraser.h"
#include "host/store/sqlite_store.h"
#include "runtime/siblings/kept_identifier.h"
#include "testing/recording_log.h"
#include "tests/host/failing_allocations.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

class MemoryRunsOutInACall : public ::testing::Test {
 protected:
  MemoryRunsOutInACall() { start(); }
  StartOptions optionsHere() const {
    StartOptions options;
    options.store_folder = folder_ / store_;
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 0;
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";  // nothing listens there
    options.main_queue = MainQueueMode::kPumped;
    return options;
  }
  void start() {
    instance_.reset();
    auto made = makeInstance(optionsHere());
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<runtime::Instance>>(made)) << std::get<kit::Error>(made).message;
    instance_ = std::get<std::unique_ptr<runtime::Instance>>(std::move(made));
  }
  /// What another process would find if this one died now.
  size_t storedIn(std::string_view key) const {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = folder_ / store_}, .read_only = true}, unused).get(key).size();
  }

  /// Makes each allocation of `record`, and all later ones, fail. Compares its result with the list of `key`.
  void expectTrueAnswers(std::string_view key, const std::function<Recorded(runtime::Instance&)>& record) {
    size_t recorded = instance_->storedValue(key).size();
    int kept = 0;
    int kept_in_memory = 0;
    int refused = 0;
    for (uint64_t succeeding = 0; kept < 3; ++succeeding) {
      test::FailingAllocations memory(succeeding);
      Recorded answer = Recorded::kRefusedEmpty;
      ASSERT_NO_THROW(answer = record(*instance_)) << "after " << succeeding << " allocations";
      memory.over();
      recorded += isKept(answer) ? 1U : 0U;
      ASSERT_EQ(instance_->storedValue(key).size(), recorded) << toText(answer) << " after " << succeeding;
      ASSERT_TRUE(instance_->ledger().isSound()) << toText(answer) << " after " << succeeding;
      if (answer == Recorded::kKept) {
        ASSERT_EQ(storedIn(key), recorded) << "after " << succeeding << " allocations";
        ++kept;
      } else {
        ASSERT_LT(succeeding, 10000U);
        ASSERT_TRUE(isKept(answer) || answer == Recorded::kRefusedNoMemory) << toText(answer);
        ++(answer == Recorded::kKeptInMemory ? kept_in_memory : refused);
      }
    }
    EXPECT_GT(refused, 0) << "nothing is recorded without memory for it";
    EXPECT_GT(kept_in_memory, 0) << "its commit allocates, so it can run out";
    EXPECT_EQ(storedIn(key), recorded) << "a later commit takes along what an earlier one left";
  }

  /// Calls `call` with each of its allocations, and all later ones, failing, until none fails.
  void atEachAllocation(const std::function<void()>& call, const std::function<void(const std::string& when)>& then) {
    for (uint64_t succeeding = 0;; ++succeeding) {
      test::FailingAllocations memory(succeeding);
      EXPECT_NO_THROW(call()) << "after " << succeeding << " allocations";
      memory.over();
      then("after " + std::to_string(succeeding) + " allocations");
      if (!memory.hasFailed() || ::testing::Test::HasFailure())
        return;
    }
  }
  void runWhatWaits() {
    bool has_run = false;
    instance_->perform([&has_run] { has_run = true; });
    while (!has_run)
      instance_->dispatch();
  }

  /// After `set`, both places of the value have it, or neither, according to its result.
  void expectBothOrNeither(const char* pending, const char* complete, const kit::Value& one, const kit::Value& other,
                           const std::function<Recorded(const kit::Value&)>& set) {
    kit::Value stands = other;
    ASSERT_EQ(set(other), Recorded::kKept);
    kit::Value wanted = one;
    Recorded answer = Recorded::kRefusedEmpty;
    int refused = 0;
    atEachAllocation([&] { answer = set(wanted); },
                     [&](const std::string& when) {
                       if (isKept(answer))
                         stands = wanted;
                       else
                         EXPECT_EQ(answer, Recorded::kRefusedNoMemory) << when;
                       refused += isKept(answer) ? 0 : 1;
                       EXPECT_EQ(instance_->storedValue(pending), stands) << toText(answer) << ' ' << when;
                       EXPECT_EQ(instance_->storedValue(complete), stands) << toText(answer) << ' ' << when;
                       EXPECT_TRUE(instance_->ledger().isSound()) << when;
                       wanted = stands == one ? other : one;
                     });
    EXPECT_GT(refused, 0);
    start();
    EXPECT_EQ(instance_->storedValue(pending), stands);
    EXPECT_EQ(instance_->storedValue(complete), stands);
    EXPECT_TRUE(instance_->ledger().isSound());
  }

  const test::ScratchFolder folder_;
  std::string store_ = "store";
  std::unique_ptr<runtime::Instance> instance_;
};

TEST_F(MemoryRunsOutInACall, AnActivityIsKeptOrRefusedAsTheCallSays) {
  expectTrueAnswers("fendoActivityInfos",
                    [](runtime::Instance& instance) { return instance.addActivity("shop", "look", "at this"); });
}

TEST_F(MemoryRunsOutInACall, AnImpressionIsKeptOrRefusedAsTheCallSays) {
  const Impression impression{.campaign_key = 7, .space_key = "home"};
  expectTrueAnswers("fendoImpressionInfos",
                    [&impression](runtime::Instance& instance) { return instance.addImpression(impression); });
}

TEST_F(MemoryRunsOutInACall, WhatAStoreThatCannotBeWrittenLeavesInMemoryIsThereAndNothingIsThrown) {
  instance_.reset();
  std::filesystem::remove_all(folder_ / store_);
  std::filesystem::create_directories(folder_ / "store/morvik.store/in-the-way");
  start();
  size_t recorded = 0;
  for (uint64_t succeeding = 0; succeeding < 500; ++succeeding) {
    test::FailingAllocations memory(succeeding);
    Recorded answer = Recorded::kRefusedEmpty;
    ASSERT_NO_THROW(answer = instance_->addActivity("shop", "look", "at this"))
        << "after " << succeeding << " allocations";
    memory.over();
    ASSERT_NE(answer, Recorded::kKept);
    recorded += isKept(answer) ? 1U : 0U;
    ASSERT_EQ(instance_->storedValue("fendoActivityInfos").size(), recorded) << toText(answer);
  }
  EXPECT_GT(recorded, 400U);
}

TEST_F(MemoryRunsOutInACall, WhatItLeftUncommittedIsCommittedAlthoughNothingElseIsRecorded) {
  Recorded answer = Recorded::kRefusedEmpty;
  for (uint64_t succeeding = 0; answer != Recorded::kKeptInMemory; ++succeeding) {
    ASSERT_NE(answer, Recorded::kKept) << "no allocation of its commit failed";
    test::FailingAllocations memory(succeeding);
    answer = instance_->addActivity("shop", "look", std::nullopt);
    memory.over();
  }
  const size_t recorded = instance_->storedValue("fendoActivityInfos").size();
  instance_->dispatch();  // what start() left over
  bool has_run = false;
  instance_->perform([&has_run] { has_run = true; });
  while (!has_run)
    instance_->dispatch();
  EXPECT_EQ(storedIn("fendoActivityInfos"), recorded);
}

TEST_F(MemoryRunsOutInACall, AnAgeStandsInBothItsPlacesOrInNeitherAsTheCallSays) {
  expectBothOrNeither("fendoUserDemoInfo_age", "fendoUserDemoInfoForComplete_age", kit::Value(27), kit::Value(28),
                      [this](const kit::Value& age) { return instance_->setAge(static_cast<int32_t>(age.integer())); });
}

TEST_F(MemoryRunsOutInACall, AGenderStandsInBothItsPlacesOrInNeitherAsTheCallSays) {
  expectBothOrNeither(
      "fendoUserDemoInfo_gender", "fendoUserDemoInfoForComplete_gender", kit::Value(1), kit::Value(-1),
      [this](const kit::Value& value) { return instance_->setGender(static_cast<int32_t>(value.integer())); });
}

TEST_F(MemoryRunsOutInACall, AUserIdStandsInBothItsPlacesOrInNeitherAsTheCallSays) {
  expectBothOrNeither("fendoUserDemoInfo_userId", "fendoUserDemoInfoForComplete_userId",
                      kit::Value("a user id that is longer than what a short text may be"), kit::Value(),
                      [this](const kit::Value& id) {
                        return id.isString() ? instance_->setUserId(id.string()) : instance_->clearUserId();
                      });
}

TEST_F(MemoryRunsOutInACall, AWishToBeForgottenStandsAndIsToldOrDoesNotStandAsTheCallSays) {
  bool stands = false;
  bool wanted = true;
  Recorded answer = Recorded::kRefusedEmpty;
  runWhatWaits();
  atEachAllocation([&] { answer = instance_->gdprForgetMe(wanted); },
                   [&](const std::string& when) {
                     if (isKept(answer)) {
                       stands = wanted;
                       EXPECT_GT(instance_->pending().main_blocks, 0U) << "nobody tells it " << when;
                     }
                     EXPECT_EQ(instance_->isGdprForgetMe(), stands) << toText(answer) << ' ' << when;
                     EXPECT_EQ(instance_->properties().MorvikCoreUserInfo_isGDPRForgetMe(), stands) << when;
                     wanted = !stands;
                     runWhatWaits();
                   });
  start();
  EXPECT_EQ(instance_->isGdprForgetMe(), stands);
}

TEST_F(MemoryRunsOutInACall, WhatIsRefusedIsRefusedForItsReasonAndCounted) {
  uint64_t refusals = 0;
  const std::string too_long(kMaxEventBytes + 1, 'x');
  const auto refuse = [&](const std::function<Recorded()>& call, Recorded reason) {
    Recorded answer = Recorded::kKept;
    uint64_t so_often = 0;
    atEachAllocation([&] { answer = call(); },
                     [&](const std::string& when) {
                       EXPECT_EQ(answer, reason) << when;
                       ++so_often;
                     });
    refusals += so_often;
    for (const Ledger::Refused& refused : instance_->ledger().refused) {
      if (refused.reason == toText(reason))
        so_often -= refused.count;
    }
    EXPECT_EQ(so_often, 0U) << toText(reason);
  };
  instance_->setLogLevel(3);  // so that there are lines to post
  refuse([&] { return instance_->addActivity("", "look", std::nullopt); }, Recorded::kRefusedEmpty);
  refuse([&] { return instance_->addActivity("shop", too_long, std::nullopt); }, Recorded::kRefusedTooLarge);
  instance_->gdprForgetMe(true);
  refuse([&] { return instance_->addActivity("shop", "look", std::nullopt); }, Recorded::kRefusedForgotten);
  runWhatWaits();
  instance_->stop();
  refuse([&] { return instance_->addActivity("shop", "look", std::nullopt); }, Recorded::kRefusedNotRunning);
  EXPECT_GT(refusals, 8U);
}

TEST_F(MemoryRunsOutInACall, AFlushIsAnsweredOnce) {
  instance_->addActivity("shop", "look", std::nullopt);
  int answers = 0;
  std::optional<FlushReason> reason;
  int without_memory = 0;
  std::function<void(const FlushResult&)> done;
  atEachAllocation(
      [&] {
        answers = 0;
        done = [&](const FlushResult& result) {
          ++answers;
          reason = result.reason;
        };
        instance_->flush(std::move(done), std::chrono::seconds(5));
      },
      [&](const std::string& when) {
        runWhatWaits();
        EXPECT_EQ(answers, 1) << when;
        EXPECT_TRUE(reason == FlushReason::kOutOfMemory || reason == FlushReason::kNotAttributed) << when;
        without_memory += reason == FlushReason::kOutOfMemory ? 1 : 0;
      });
  EXPECT_GT(without_memory, 0);
}

TEST_F(MemoryRunsOutInACall, APerformedBlockThatCouldNotBePostedIsNotWaitedFor) {
  size_t runs = 0;
  int calls = 0;
  atEachAllocation(
      [&] {
        ++calls;
        instance_->perform([&runs] { ++runs; });
      },
      [](const std::string&) {});
  EXPECT_GT(calls, 1);
  runWhatWaits();
  EXPECT_GE(runs, 1);
  // Only what waits counts for the limit.
  runs = 0;
  for (size_t waiting = 0; waiting < runtime::kMaxPostedCalls; ++waiting)
    instance_->perform([&runs] { ++runs; });
  while (instance_->pending().main_blocks > 0)
    instance_->dispatch();
  EXPECT_EQ(runs, runtime::kMaxPostedCalls);
}

TEST_F(MemoryRunsOutInACall, NoOtherOperationThrowsAndTheKitGoesOn) {
  const auto delegate = std::make_shared<const MorvikCoreDelegate>();
  const std::vector<std::function<void()>> operations = {
      [&] { instance_->applicationDidBecomeActive(); },
      [&] { instance_->applicationDidEnterBackground(); },
      [&] { instance_->pushTracking(); },
      [&] { static_cast<void>(instance_->waitUntilDelivered(std::chrono::milliseconds(0))); },
      [&] { instance_->setSendingEnabled(false); },
      [&] { instance_->setSendingEnabled(true); },
      [&] { instance_->passOpenURL("app://x?cid=shoe"); },
      [&] { instance_->thirdPartyConversion(); },
      [&] { instance_->setDelegate(delegate); },
      [&] { instance_->setLogLevel(0); },
      [&] { static_cast<void>(instance_->ledger()); },
      [&] { static_cast<void>(instance_->explain("018f3406-9e00-7abc-8def-0123456789ab")); },
      [&] { static_cast<void>(instance_->status()); },
      [&] { instance_->dispatch(); },
  };
  for (size_t number = 0; number < operations.size(); ++number) {
    SCOPED_TRACE(number);
    // Sessions alternate, so one of the first two operations has nothing to do.
    atEachAllocation(operations[number], [](const std::string&) {});
    runWhatWaits();
    EXPECT_EQ(instance_->addActivity("shop", "look", std::nullopt), Recorded::kKept);
    EXPECT_TRUE(instance_->ledger().isSound());
  }
  EXPECT_TRUE(instance_->status().is_running);
}

TEST_F(MemoryRunsOutInACall, AStopGoesOnWithTheNextOneAndTheFolderIsFreeThen) {
  bool has_failed = true;
  for (uint64_t succeeding = 0; has_failed; ++succeeding) {
    test::FailingAllocations memory(succeeding);
    EXPECT_NO_THROW(instance_->stop()) << "after " << succeeding << " allocations";
    memory.over();
    has_failed = memory.hasFailed();
    instance_->stop();
    EXPECT_FALSE(instance_->status().is_running) << "after " << succeeding << " allocations";
    start();
    ASSERT_NE(instance_, nullptr) << "after " << succeeding << " allocations";
  }
}

TEST_F(MemoryRunsOutInACall, AnErasingThatWasBegunIsFinishedByTheNextStart) {
  int not_begun = 0;
  int left = 0;
  bool has_failed = true;
  for (uint64_t succeeding = 0; has_failed; ++succeeding) {
    SCOPED_TRACE("after " + std::to_string(succeeding) + " allocations");
    const kit::Value id = instance_->storedValue(runtime::kInstallIdKey);
    bool is_erased = false;
    test::FailingAllocations memory(succeeding);
    EXPECT_NO_THROW(is_erased = instance_->eraseLocalData());
    memory.over();
    has_failed = memory.hasFailed();
    const bool is_begun = is_erased || std::filesystem::exists(FileEraser::markerPath({.folder = folder_ / store_}));
    not_begun += is_begun ? 0 : 1;
    left += is_begun && !is_erased ? 1 : 0;
    start();
    ASSERT_NE(instance_, nullptr);
    EXPECT_EQ(instance_->storedValue(runtime::kInstallIdKey) != id, is_begun);
  }
  EXPECT_GT(not_begun, 0);
  EXPECT_GT(left, 0);
}

TEST_F(MemoryRunsOutInACall, TheDestructorLeavesWhatItCannotEnd) {
  test::FailingAllocations memory(0);
  instance_.reset();
  memory.over();
  StartOptions options = optionsHere();
  const auto made = makeInstance(options);
  ASSERT_TRUE(std::holds_alternative<kit::Error>(made)) << "its threads may still be at work";
  EXPECT_NE(std::get<kit::Error>(made).message.find("in use by another kit of this process"), std::string::npos)
      << std::get<kit::Error>(made).message;
}

}  // namespace
}  // namespace morvik::host
