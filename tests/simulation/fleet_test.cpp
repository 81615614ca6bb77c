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
  const UsageTotals& totals = result.totals;
  const UsageCounts& counts = result.counts;
  return std::vector<uint64_t>{totals.recorded, totals.delivered,     totals.stored, totals.given_up_by_rule,
                               totals.lost,     totals.arrived_again, counts.days,   counts.sessions,
                               counts.requests, counts.deaths,        counts.faults, counts.offline_phases,
                               result.installs};
}

TEST(Fleet, BalancesTheAccountOverAllItsDevices) {
  const FleetResult result = runFleet(smallFleet(1));
  EXPECT_TRUE(result.balances());
  EXPECT_THAT(result.losses, IsEmpty());
  EXPECT_EQ(result.installs, 12U);
  EXPECT_EQ(result.counts.days, 72U);
  EXPECT_GT(result.totals.delivered, 0U);
  EXPECT_GT(result.counts.deaths, 0U);
  EXPECT_GT(result.counts.faults, 0U);
}

TEST(Fleet, DeliversEverythingWhereNothingGoesWrong) {
  FleetOptions options = smallFleet(2);
  options.troubles = UsageTroubles::none();
  const FleetResult result = runFleet(options);
  EXPECT_GT(result.totals.recorded, 0U);
  EXPECT_EQ(result.totals.delivered, result.totals.recorded);
  EXPECT_EQ(result.totals.arrived_again, 0U);
  EXPECT_EQ(result.totals.ledger_faults, 0U);
  EXPECT_EQ(result.counts.faults, 0U);
  EXPECT_EQ(result.counts.deaths, 0U);
}

TEST(Fleet, LivesTheSameWithTheSameSeedOnAnyNumberOfThreads) {
  FleetOptions alone = smallFleet(3);
  alone.workers = 1;
  EXPECT_EQ(figures(runFleet(smallFleet(3))), figures(runFleet(alone)));
  EXPECT_NE(figures(runFleet(smallFleet(3))), figures(runFleet(smallFleet(4))));
}

TEST(Fleet, NamesTheDeviceWhoseLifeThrew) {
  FleetOptions options = smallFleet(6);
  options.workers = 1;
  const auto throwAtTheSeventhDay = [](uint64_t days) {
    if (days == 7)
      throw std::runtime_error("no more days");
  };
  const std::string whose = "device 1 (seed " + std::to_string(seedOfDevice(6, 1)) + ")";
  EXPECT_THAT([&] { runFleet(options, throwAtTheSeventhDay); },
              ::testing::ThrowsMessage<std::runtime_error>(whose + " threw: no more days"));
}

TEST(Fleet, TellsOfEachDayLived) {
  std::vector<uint64_t> told;
  FleetOptions options = smallFleet(5);
  options.devices = 3;
  options.days = 2;
  runFleet(options, [&told](uint64_t device_days) { told.push_back(device_days); });
  EXPECT_EQ(told, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
}

TEST(Fleet, OfNoDevicesHasNothingToAccountFor) {
  const FleetResult result = runFleet({.devices = 0});
  EXPECT_EQ(result.totals.recorded, 0U);
  EXPECT_TRUE(result.balances());
}

TEST(UsageTotals, DoesNotBalanceWhenAnEventIsNowhere) {
  UsageTotals totals{.recorded = 3, .delivered = 2, .lost = 1};
  EXPECT_FALSE(totals.balances());
  totals = {.recorded = 3, .delivered = 2};
  EXPECT_FALSE(totals.balances());
  totals = {.recorded = 3, .delivered = 3, .ledger_faults = 1};
  EXPECT_FALSE(totals.balances());
  totals = {.recorded = 3, .delivered = 1, .stored = 1, .given_up_by_rule = 1};
  EXPECT_TRUE(totals.balances());
}

}  // namespace
}  // namespace morvik::simulation
