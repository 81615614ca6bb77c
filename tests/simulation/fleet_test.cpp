#include "simulation/fleet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace morvik::simulation {
namespace {

using ::testing::IsEmpty;

FleetOptions smallFleet(uint64_t seed) {
  return {.devices = 12, .days = 6, .seed = seed, .workers = 2};
}

auto figures(const FleetResult& result) {
  const LifeAccount& account = result.account;
  const LifeCounts& counts = result.counts;
  return std::vector<uint64_t>{account.recorded, account.delivered,     account.stored, account.given_up_by_rule,
                               account.lost,     account.arrived_again, counts.days,    counts.sessions,
                               counts.requests,  counts.deaths,         counts.faults,  counts.offline_phases,
                               result.installs};
}

TEST(Fleet, BalancesTheAccountOverAllItsDevices) {
  const FleetResult result = liveFleet(smallFleet(1));
  EXPECT_TRUE(result.balances());
  EXPECT_THAT(result.losses, IsEmpty());
  EXPECT_EQ(result.installs, 12U);
  EXPECT_EQ(result.counts.days, 72U);
  EXPECT_GT(result.account.delivered, 0U);
  EXPECT_GT(result.counts.deaths, 0U);
  EXPECT_GT(result.counts.faults, 0U);
}

TEST(Fleet, DeliversEverythingWhereNothingGoesWrong) {
  FleetOptions options = smallFleet(2);
  options.troubles = LifeTroubles::none();
  const FleetResult result = liveFleet(options);
  EXPECT_GT(result.account.recorded, 0U);
  EXPECT_EQ(result.account.delivered, result.account.recorded);
  EXPECT_EQ(result.account.arrived_again, 0U);
  EXPECT_EQ(result.account.ledger_faults, 0U);
  EXPECT_EQ(result.counts.faults, 0U);
  EXPECT_EQ(result.counts.deaths, 0U);
}

TEST(Fleet, LivesTheSameWithTheSameSeedOnAnyNumberOfThreads) {
  FleetOptions alone = smallFleet(3);
  alone.workers = 1;
  EXPECT_EQ(figures(liveFleet(smallFleet(3))), figures(liveFleet(alone)));
  EXPECT_NE(figures(liveFleet(smallFleet(3))), figures(liveFleet(smallFleet(4))));
}

TEST(Fleet, NamesTheDeviceWhoseLifeThrew) {
  FleetOptions options = smallFleet(6);
  options.workers = 1;
  const auto throwAtTheSeventhDay = [](uint64_t days) {
    if (days == 7)
      throw std::runtime_error("no more days");
  };
  const std::string whose = "device 1 (seed " + std::to_string(seedOfDevice(6, 1)) + ")";
  EXPECT_THAT([&] { liveFleet(options, throwAtTheSeventhDay); },
              ::testing::ThrowsMessage<std::runtime_error>(whose + " threw: no more days"));
}

TEST(Fleet, TellsOfEachDayLived) {
  std::vector<uint64_t> told;
  FleetOptions options = smallFleet(5);
  options.devices = 3;
  options.days = 2;
  liveFleet(options, [&told](uint64_t device_days) { told.push_back(device_days); });
  EXPECT_EQ(told, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
}

TEST(Fleet, OfNoDevicesHasNothingToAccountFor) {
  const FleetResult result = liveFleet({.devices = 0});
  EXPECT_EQ(result.account.recorded, 0U);
  EXPECT_TRUE(result.balances());
}

TEST(LifeAccount, DoesNotBalanceWhenAnEventIsNowhere) {
  LifeAccount account{.recorded = 3, .delivered = 2, .lost = 1};
  EXPECT_FALSE(account.balances());
  account = {.recorded = 3, .delivered = 2};
  EXPECT_FALSE(account.balances());
  account = {.recorded = 3, .delivered = 3, .ledger_faults = 1};
  EXPECT_FALSE(account.balances());
  account = {.recorded = 3, .delivered = 1, .stored = 1, .given_up_by_rule = 1};
  EXPECT_TRUE(account.balances());
}

}  // namespace
}  // namespace morvik::simulation
