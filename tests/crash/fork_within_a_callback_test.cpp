// A child forked within a callback returns into the kit, of which only that thread is left.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <string_view>
#include <utility>

#include "host/posix/log_sinks.h"
#include "host/store/sqlite_store.h"
#include "morvik/morvik.h"

#include "tests/support/child.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/threads_of_process.h"

namespace morvik::host {
namespace {

using test::endOf;
/// A caller that waits this long hangs.
constexpr std::chrono::minutes kPatience{10};
constexpr int kFine = 3;
/// The only thread of a child.
constexpr size_t kAlone = 1;

class ForkWithinACallback : public ::testing::Test {
 protected:
  ForkWithinACallback() {
    options.store_folder = folder / "store";
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";
  }
  void start() {
    StartResult started = MorvikCore::start(options);
    ASSERT_TRUE(started) << started.error;
    core = std::move(started.core);
  }
  void startPumped() {
    options.main_queue = MainQueueMode::kPumped;
    start();
  }
  size_t stored() const {
    StderrLogSink unused;
    return SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused)
        .get("fendoActivityInfos")
        .size();
  }
  void performAFork() {
    core->perform([this] { child = test::forked(); });
  }
  /// After the block: the child ends here, with kFine if `is_fine` and it has no other thread.
  void endInTheChild(bool is_fine) const {
    if (child == 0)
      ::_exit(is_fine && test::threadsOfThisProcess() == kAlone ? kFine : 1);
  }

  const test::ScratchFolder folder;
  StartOptions options;
  std::unique_ptr<MorvikCore> core;
  pid_t child = -1;
};

TEST_F(ForkWithinACallback, ReturnsToNothing) {
  start();
  std::promise<void> forked;
  core->perform([&] {
    core->addActivity("fork", "before");
    child = test::forked();
    if (child != 0)
      forked.set_value();
    else
      core->addActivity("fork", "in the child");
  });
  forked.get_future().wait();
  EXPECT_NE(endOf(child), -1);
  EXPECT_EQ(core->addActivity("fork", "afterwards"), Recorded::kKept);
  core->stop();
  EXPECT_EQ(stored(), 2U);
}

TEST_F(ForkWithinACallback, ReturnsToAWaitThatEndsAtOnce) {
  startPumped();
  core->addActivity("fork", "before");
  performAFork();
  const FlushResult result = core->waitUntilDelivered(kPatience);
  endInTheChild(result.reason == FlushReason::kStopped && !result.is_delivered);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_EQ(result.reason, FlushReason::kNotAttributed);
  core->stop();
  EXPECT_EQ(stored(), 1U);
}

TEST_F(ForkWithinACallback, ReturnsToAStopThatDoesNothing) {
  startPumped();
  core->addActivity("fork", "before");
  performAFork();
  core->stop();
  endInTheChild(true);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(ForkWithinACallback, ReturnsToAStopThatDeliversNothing) {
  startPumped();
  core->addActivity("fork", "before");
  performAFork();
  core->stop(kPatience);
  endInTheChild(true);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(ForkWithinACallback, ReturnsToAStopFromWhatAFlushCallsAtTheEnd) {
  startPumped();
  core->addActivity("fork", "before");
  core->flush([this](const FlushResult&) { child = test::forked(); }, kPatience);
  core->stop();
  endInTheChild(true);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(ForkWithinACallback, ReturnsToAnErasureThatErasesNothing) {
  startPumped();
  core->addActivity("fork", "before");
  performAFork();
  const bool is_erased = core->eraseLocalData();
  endInTheChild(!is_erased);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_TRUE(is_erased);
}

TEST_F(ForkWithinACallback, ReturnsToAnErasureFromWhatAFlushCallsAtTheEnd) {
  startPumped();
  core->addActivity("fork", "before");
  core->thirdPartyConversion();
  core->dispatch();
  core->flush([this](const FlushResult&) { child = test::forked(); }, kPatience);
  const bool is_erased = core->eraseLocalData();
  endInTheChild(!is_erased);
  EXPECT_EQ(endOf(child), kFine);
  EXPECT_TRUE(is_erased);
}

}  // namespace
}  // namespace morvik::host
