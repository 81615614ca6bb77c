// What the app is told when its process has no memory left in the middle of a call that records.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "host/make_host.h"
#include "host/store/sqlite_store.h"
#include "testing/recording_log.h"
#include "tests/host/failing_allocations.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

class MemoryRunsOutInACall : public ::testing::Test {
 protected:
  MemoryRunsOutInACall() { start(); }
  void start() {
    HostOptions options;
    options.store_folder = folder_ / "store";
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 0;
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";  // nothing listens there
    options.main_queue = MainQueueMode::kPumped;
    auto made = makeHost(options);
    host_ = std::get<std::unique_ptr<Host>>(std::move(made));
  }
  /// What another process would find if this one died now.
  size_t storedIn(std::string_view key) const {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = folder_ / "store"}, .read_only = true}, unused).get(key).size();
  }

  /// Has each allocation of `record` fail, and all that follow it. What it answers is compared with the list of `key`.
  void expectTrueAnswers(std::string_view key, const std::function<Recorded(Host&)>& record) {
    size_t recorded = host_->storedValue(key).size();
    int kept = 0;
    int kept_in_memory = 0;
    int refused = 0;
    for (uint64_t succeeding = 0; kept < 3; ++succeeding) {
      test::FailingAllocations memory(succeeding);
      Recorded answer = Recorded::kRefusedEmpty;
      ASSERT_NO_THROW(answer = record(*host_)) << "after " << succeeding << " allocations";
      memory.over();
      recorded += isKept(answer) ? 1U : 0U;
      ASSERT_EQ(host_->storedValue(key).size(), recorded) << toText(answer) << " after " << succeeding;
      if (answer == Recorded::kKept) {
        ASSERT_EQ(storedIn(key), recorded) << "after " << succeeding << " allocations";
        ++kept;
      } else {
        ASSERT_LT(succeeding, 10000U);
        ++(answer == Recorded::kKeptInMemory ? kept_in_memory : refused);
      }
    }
    EXPECT_GT(refused, 0) << "nothing is recorded without memory for it";
    EXPECT_GT(kept_in_memory, 0) << "its commit allocates, so it can run out";
    EXPECT_EQ(storedIn(key), recorded) << "a later commit takes along what an earlier one left";
  }

  const test::ScratchFolder folder_;
  std::unique_ptr<Host> host_;
};

TEST_F(MemoryRunsOutInACall, AnActivityIsKeptOrRefusedAsTheCallSays) {
  expectTrueAnswers("fendoActivityInfos", [](Host& host) { return host.addActivity("shop", "look", "at this"); });
}

TEST_F(MemoryRunsOutInACall, AnImpressionIsKeptOrRefusedAsTheCallSays) {
  const Impression impression{.campaign_key = 7, .space_key = "home"};
  expectTrueAnswers("fendoImpressionInfos", [&impression](Host& host) { return host.addImpression(impression); });
}

TEST_F(MemoryRunsOutInACall, WhatAStoreThatCannotBeWrittenLeavesInMemoryIsThereAndNothingIsThrown) {
  host_.reset();
  std::filesystem::remove_all(folder_ / "store");
  std::filesystem::create_directories(folder_ / "store/morvik.store/in-the-way");
  start();
  size_t recorded = 0;
  for (uint64_t succeeding = 0; succeeding < 500; ++succeeding) {
    test::FailingAllocations memory(succeeding);
    Recorded answer = Recorded::kRefusedEmpty;
    ASSERT_NO_THROW(answer = host_->addActivity("shop", "look", "at this")) << "after " << succeeding << " allocations";
    memory.over();
    ASSERT_NE(answer, Recorded::kKept);
    recorded += isKept(answer) ? 1U : 0U;
    ASSERT_EQ(host_->storedValue("fendoActivityInfos").size(), recorded) << toText(answer);
  }
  EXPECT_GT(recorded, 400U);
}

TEST_F(MemoryRunsOutInACall, WhatItLeftUncommittedIsCommittedAlthoughNothingElseIsRecorded) {
  Recorded answer = Recorded::kRefusedEmpty;
  for (uint64_t succeeding = 0; answer != Recorded::kKeptInMemory; ++succeeding) {
    ASSERT_NE(answer, Recorded::kKept) << "no allocation of its commit failed";
    test::FailingAllocations memory(succeeding);
    answer = host_->addActivity("shop", "look", std::nullopt);
    memory.over();
  }
  const size_t recorded = host_->storedValue("fendoActivityInfos").size();
  host_->dispatch();  // what start() left
  bool has_run = false;
  host_->perform([&has_run] { has_run = true; });
  while (!has_run)
    host_->dispatch();
  EXPECT_EQ(storedIn("fendoActivityInfos"), recorded);
}

}  // namespace
}  // namespace morvik::host
