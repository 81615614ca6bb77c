#include "simulation/levered_machine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <utility>
#include <variant>

#include "tests/support/on_scratch_folder.h"

namespace morvik::simulation {
namespace {

kit::Date machineNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration_cast<std::chrono::microseconds>(now).count()};
}

TEST(LeveredMachine, AddsUpWhatItsClockIsMovedBy) {
  LeveredMachine machine;
  const auto clock = machine.makeClock();
  machine.moveClock(3600);
  machine.moveClock(-60.5);
  const int64_t ahead = clock->now().microseconds - machineNow().microseconds;
  EXPECT_NEAR(static_cast<double>(ahead), 3539.5e6, 10e6);
}

TEST(LeveredMachine, LeavesItsSteadyTimeWhereItIsWhenItsClockIsMoved) {
  LeveredMachine machine;
  const auto clock = machine.makeClock();
  const auto before = std::chrono::steady_clock::now();
  machine.moveClock(3600);
  const auto now = clock->steadyNow();
  EXPECT_LE(before, now);
  EXPECT_LE(now, std::chrono::steady_clock::now());
}

TEST(LeveredMachine, StopsItsClockAtTheEndsOfWhatADateCanHold) {
  LeveredMachine machine;
  const auto clock = machine.makeClock();
  machine.moveClock(1e300);
  EXPECT_EQ(clock->now().microseconds, std::numeric_limits<int64_t>::max());
  machine.moveClock(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(clock->now().microseconds, std::numeric_limits<int64_t>::max());
}

TEST(LeveredMachine, KnowsNoNetworkWhileItIsOffline) {
  LeveredMachine machine;
  const auto facts = machine.makeFacts();
  machine.setOffline(true);
  EXPECT_EQ(facts->networkStatus(true), "unknown");
  machine.setOffline(false);
  EXPECT_NE(facts->networkStatus(true), "unknown");
}

class KitOnALeveredMachine : public test::OnScratchFolder {
 protected:
  KitOnALeveredMachine() {
    auto machine = std::make_unique<LeveredMachine>();
    levers_ = machine.get();
    auto made = host::makeInstance(options, std::move(machine));
    if (auto* instance = std::get_if<std::unique_ptr<runtime::Instance>>(&made))
      instance_ = std::move(*instance);
  }
  void SetUp() override { ASSERT_NE(instance_, nullptr); }

  Levers* levers_ = nullptr;
  std::unique_ptr<runtime::Instance> instance_;
};

TEST_F(KitOnALeveredMachine, StampsItsRecordsByTheMovedClock) {
  levers_->moveClock(86'400 * 365);
  instance_->addActivity("g", "later", std::nullopt);
  const kit::Date stamped = instance_->properties().fendoActivityInfos().array()[0]["activityCreatedAt"].date();
  EXPECT_NEAR(stamped.secondsSince1970() - machineNow().secondsSince1970(), 86'400.0 * 365, 60);
}

TEST_F(KitOnALeveredMachine, RunsABlockLaterOnItsMainQueueAndDoesNotCountIt) {
  std::promise<bool> ran;
  levers_->after(0.01, [this, &ran] { ran.set_value(instance_->pending().session_end_blocks == 0); });
  EXPECT_EQ(instance_->pending().session_end_blocks, 0U);
  EXPECT_TRUE(got(ran.get_future()));
}

TEST_F(KitOnALeveredMachine, CountsWhatIsRemovedByHandAsGivenUp) {
  instance_->addActivity("g", "removed", std::nullopt);
  levers_->edit("fendoActivityInfos", {});
  EXPECT_EQ(instance_->ledger().of("activities").stored, 0U);
  EXPECT_EQ(instance_->ledger().of("activities").givenUp(), 1U);
  EXPECT_TRUE(instance_->ledger().balances());
}

}  // namespace
}  // namespace morvik::simulation
