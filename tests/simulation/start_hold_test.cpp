#include "runtime/life/start_hold.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "runtime/machine/passing_store.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_flusher.h"
#include "simulation/virtual_machine_loop.h"
#include "testing/recording_log.h"

namespace morvik::simulation {
namespace {

using runtime::StoreOpening;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Reports a given state, and counts the attempts to open it again.
class StoreThatSays final : public runtime::PassingStore {
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
    hold_->begin({.when_over = [this] { ++over_; },
                  .deliver = [this](kit::Notification notification) { deliver(notification); }});
  }
  void deliver(kit::Notification notification) {
    delivered_.push_back(notification);
    if (fails_to_deliver_)
      throw std::bad_alloc();
  }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::RecordingLog log_;
  kit::LogLevels levels_;
  VirtualMainLoop main_loop_{loop_, services::Logger(levels_, log_)};
  SimulatedDisk disk_;
  host::SqliteStore kept_{{.place = disk_.place(), .make_flusher = flushesOn(loop_)}, log_};
  std::optional<StoreThatSays> store_;
  std::optional<runtime::StartHold> hold_;
  int over_ = 0;
  bool fails_to_deliver_ = false;
  std::vector<kit::Notification> delivered_;
};

constexpr auto kCame = kit::Notification::kApplicationDidBecomeActive;
constexpr auto kWent = kit::Notification::kApplicationDidEnterBackground;

TEST_F(StartHoldTest, HoldsNothingWhereTheStoreIsThereOrStaysAway) {
  for (const StoreOpening opening : {StoreOpening::kOpened, StoreOpening::kCreated, StoreOpening::kSetAside,
                                     StoreOpening::kNewerVersion, StoreOpening::kLocked}) {
    hold_.reset();
    delivered_.clear();
    begin(opening);
    hold_->pass(kCame);
    EXPECT_THAT(delivered_, ElementsAre(kCame));
    EXPECT_FALSE(hold_->isHolding());
    EXPECT_FALSE(hold_->isUnavailable());
    loop_.advance(runtime::kStartHoldSeconds);
    EXPECT_EQ(store_->tries(), 0);
  }
}

TEST_F(StartHoldTest, TriesAgainUntilItsTimeIsUpAndThenDeliversWhatWaitsInItsOrder) {
  begin(StoreOpening::kUnavailable);
  for (const kit::Notification notification : {kCame, kCame, kWent, kCame})
    hold_->pass(notification);
  loop_.advance(runtime::kStartHoldSeconds - runtime::kStartHoldTrySeconds);
  EXPECT_TRUE(hold_->isHolding());
  EXPECT_THAT(delivered_, IsEmpty());
  EXPECT_EQ(over_, 0);
  loop_.advance(runtime::kStartHoldTrySeconds);
  EXPECT_FALSE(hold_->isHolding());
  EXPECT_THAT(delivered_, ElementsAre(kCame, kWent, kCame));
  EXPECT_EQ(over_, 1);
  EXPECT_EQ(store_->tries(), static_cast<int>(runtime::kStartHoldSeconds / runtime::kStartHoldTrySeconds));
  hold_->pass(kWent);
  EXPECT_THAT(delivered_, ElementsAre(kCame, kWent, kCame, kWent)) << "nothing waits any more";
}

TEST_F(StartHoldTest, KeepsSoManyNotificationsAndTheLatestState) {
  begin(StoreOpening::kUnavailable);
  for (size_t i = 0; i < runtime::kMaxHeldNotifications; ++i)
    hold_->pass(i % 2 == 0 ? kCame : kWent);
  hold_->pass(kCame);
  loop_.advance(runtime::kStartHoldSeconds);
  EXPECT_EQ(delivered_.size(), runtime::kMaxHeldNotifications - 1);
  EXPECT_EQ(delivered_.back(), kCame);
}

TEST_F(StartHoldTest, GoesOnAskingUntilTheStoreHasRecovered) {
  begin(StoreOpening::kUnavailable);
  loop_.advance(runtime::kStartHoldSeconds);
  const int in_the_hold = store_->tries();
  loop_.advance(10 * runtime::kStoreReopenSeconds);
  EXPECT_EQ(store_->tries(), in_the_hold + 10);
  EXPECT_TRUE(hold_->isUnavailable());
  hold_->storeRecovered();
  loop_.advance(10 * runtime::kStoreReopenSeconds);
  EXPECT_EQ(store_->tries(), in_the_hold + 10);
  EXPECT_FALSE(hold_->isUnavailable());
}

TEST_F(StartHoldTest, EndsOnceAndTriesNoMoreWhenTheStoreRecovers) {
  begin(StoreOpening::kUnavailable);
  hold_->storeRecovered();
  hold_->storeRecovered();
  loop_.advance(2 * runtime::kStartHoldSeconds);
  EXPECT_EQ(over_, 1);
  EXPECT_EQ(store_->tries(), 1);
}

TEST_F(StartHoldTest, EndsWhereThereIsNoMemoryToGoOnWith) {
  begin(StoreOpening::kUnavailable, 3);
  hold_->pass(kCame);
  loop_.advance(3 * runtime::kStartHoldTrySeconds);
  EXPECT_FALSE(hold_->isHolding());
  EXPECT_THAT(delivered_, ElementsAre(kCame));
}

TEST_F(StartHoldTest, HoldsNothingMoreWhereADeliveryThrew) {
  begin(StoreOpening::kUnavailable);
  fails_to_deliver_ = true;
  hold_->pass(kCame);
  hold_->pass(kWent);
  loop_.advance(runtime::kStartHoldSeconds);
  EXPECT_THAT(delivered_, ElementsAre(kCame));
  fails_to_deliver_ = false;
  hold_->pass(kCame);
  EXPECT_THAT(delivered_, ElementsAre(kCame, kCame));
}

}  // namespace
}  // namespace morvik::simulation
