#include "host/life/start_hold.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <optional>

#include "host/machine/passing_store.h"
#include "host/store/sqlite_store.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_flusher.h"
#include "simulation/virtual_loop_host.h"
#include "testing/recording_log.h"

namespace morvik::simulation {
namespace {

using host::StoreOpening;

/// Says how it was opened, and counts how often it is tried again.
class StoreThatSays final : public host::PassingStore {
 public:
  StoreThatSays(MachineStore& store, StoreOpening opening) : PassingStore(store), opening_(opening) {}
  StoreOpening opening() const override { return opening_; }
  void flushNow() override {
    if (++tries_ == fails_at_)
      throw std::bad_alloc();
  }
  void failAt(int attempt) { fails_at_ = attempt; }
  int tries() const { return tries_; }

 private:
  const StoreOpening opening_;
  int tries_ = 0;
  int fails_at_ = 0;
};

class StartHoldTest : public ::testing::Test {
 protected:
  StartHoldTest() { main_loop_.open(); }
  void begin(StoreOpening opening, int fails_at = 0) {
    store_.emplace(kept_, opening);
    store_->failAt(fails_at);
    hold_.emplace(*store_, main_loop_);
    hold_->begin([this] { ++over_; });
  }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::RecordingLog log_;
  kit::LogLevels levels_;
  VirtualMainLoop main_loop_{loop_, services::Logger(levels_, log_)};
  SimulatedDisk disk_;
  host::SqliteStore kept_{{.place = disk_.place(), .make_flusher = flushesOn(loop_)}, log_};
  std::optional<StoreThatSays> store_;
  std::optional<host::StartHold> hold_;
  int over_ = 0;
};

TEST_F(StartHoldTest, HoldsNothingWhereTheStoreIsThereOrStaysAway) {
  for (const StoreOpening opening : {StoreOpening::kOpened, StoreOpening::kCreated, StoreOpening::kSetAside,
                                     StoreOpening::kNewerVersion, StoreOpening::kLocked}) {
    hold_.reset();
    begin(opening);
    bool ran = false;
    hold_->whenOver([&ran] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_FALSE(hold_->isHolding());
    EXPECT_EQ(store_->tries(), 0);
  }
}

TEST_F(StartHoldTest, TriesAgainUntilItsTimeIsUpAndThenRunsTheLatestOfWhatWaits) {
  begin(StoreOpening::kUnavailable);
  int ran = 0;
  hold_->whenOver([&ran] { ran = 1; });
  hold_->whenOver([&ran] { ran = 2; });
  loop_.advance(host::kStartHoldSeconds - host::kStartHoldTrySeconds);
  EXPECT_TRUE(hold_->isHolding());
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(over_, 0);
  loop_.advance(host::kStartHoldTrySeconds);
  EXPECT_FALSE(hold_->isHolding());
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(over_, 1);
  EXPECT_EQ(store_->tries(), static_cast<int>(host::kStartHoldSeconds / host::kStartHoldTrySeconds));
}

TEST_F(StartHoldTest, EndsOnceAndTriesNoMore) {
  begin(StoreOpening::kUnavailable);
  hold_->end();
  hold_->end();
  loop_.advance(host::kStartHoldSeconds);
  EXPECT_EQ(over_, 1);
  EXPECT_EQ(store_->tries(), 1);
}

TEST_F(StartHoldTest, EndsWhereThereIsNoMemoryToGoOnWith) {
  begin(StoreOpening::kUnavailable, 3);
  bool ran = false;
  hold_->whenOver([&ran] { ran = true; });
  loop_.advance(3 * host::kStartHoldTrySeconds);
  EXPECT_FALSE(hold_->isHolding());
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace morvik::simulation
