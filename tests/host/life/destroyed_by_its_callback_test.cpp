// A kit destroyed by a callback that an operation of the same thread runs: the operation returns.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>

#include "host/store/sqlite_store.h"
#include "testing/recording_log.h"
#include "tests/support/child.h"
#include "tests/support/on_scratch_folder.h"

namespace morvik::host {
namespace {

using std::chrono::seconds;
using test::Child;
constexpr int kFine = 3;
/// No operation may wait until its time is up: there is nothing left to wait for.
constexpr seconds kLong{60};

class DestroyedByItsCallback : public test::OnScratchFolder {
 protected:
  DestroyedByItsCallback() { options.main_queue = MainQueueMode::kPumped; }

  /// Calls `operation` of a kit that is destroyed by one of its callbacks, in a process of its own, which may hang or
  /// die. Returns how the process ends.
  int endOf(const std::function<bool(MorvikCore&)>& operation) {
    return Child([&] {
             auto core = start();
             core->addActivity("shop", "purchase");
             core->perform([&core] { core.reset(); });
             const bool is_right = operation(*core);
             return is_right && core == nullptr ? kFine : 1;
           })
        .status();
  }
  size_t stored() const {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused)
        .get("fendoActivityInfos")
        .size();
  }
};

TEST_F(DestroyedByItsCallback, AWaitForTheDeliveryTellsThatTheKitIsStopped) {
  const auto wait = [](MorvikCore& core) {
    const FlushResult result = core.waitUntilDelivered(kLong);
    return result.reason == FlushReason::kStopped && result.waiting == 1;
  };
  EXPECT_EQ(endOf(wait), kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(DestroyedByItsCallback, AStopThatDrainsComesBack) {
  EXPECT_EQ(endOf([](MorvikCore& core) {
              core.stop(kLong);
              return true;
            }),
            kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(DestroyedByItsCallback, AStopComesBack) {
  EXPECT_EQ(endOf([](MorvikCore& core) {
              core.stop();
              return true;
            }),
            kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(DestroyedByItsCallback, AnErasingErases) {
  EXPECT_EQ(endOf([](MorvikCore& core) { return core.eraseLocalData(); }), kFine);
  EXPECT_FALSE(std::filesystem::exists(options.store_folder + "/morvik.store"));
}

TEST_F(DestroyedByItsCallback, ADispatchComesBack) {
  EXPECT_EQ(endOf([](MorvikCore& core) {
              core.dispatch();
              return true;
            }),
            kFine);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(DestroyedByItsCallback, AStopComesBackFromTheAnswerToAFlush) {
  Child child([this] {
    auto core = start();
    core->addActivity("shop", "purchase");
    core->flush([&core](const FlushResult&) { core.reset(); }, kLong);
    core->stop();
    return core == nullptr ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
  EXPECT_EQ(stored(), 1U);
}

}  // namespace
}  // namespace morvik::host
