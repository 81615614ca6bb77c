#include "simulation/device_usage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simulation/virtual_service.h"

namespace morvik::simulation {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class DeviceUsageTest : public ::testing::Test {
 protected:
  VirtualService service_{[] { return kit::Date::fromSeconds(1'709'251'200); }};
};

TEST_F(DeviceUsageTest, DeliversWhatItsAppRecorded) {
  DeviceUsage life({.seed = 4, .troubles = UsageTroubles::none()}, *service_);
  for (int day = 0; day < 5; ++day)
    life.useOneDay();
  life.playHealthyEnd();
  const UsageTotals totals = life.totals();
  EXPECT_GT(totals.recorded, 10U);
  EXPECT_EQ(totals.delivered, totals.recorded);
  EXPECT_EQ(life.counts().days, 5U);
}

TEST_F(DeviceUsageTest, KeepsWhatNoNetworkTakes) {
  UsageTroubles offline = UsageTroubles::none();
  offline.offline_phase_a_day = 1;
  DeviceUsage life({.seed = 4, .troubles = offline}, *service_);
  life.useOneDay();
  life.machine().transport.goOffline();
  life.useOneDay();
  EXPECT_GT(life.totals().stored, 0U);
  EXPECT_TRUE(life.totals().balances());
}

TEST_F(DeviceUsageTest, KnowsWhatAStoreThatKeepsNothingLost) {
  UsageTroubles deadly = UsageTroubles::none();
  deadly.death_in_background = 1;
  DeviceUsage life({.seed = 4, .number = 77, .events_a_day = 40, .troubles = deadly}, *service_);
  life.machine().transport.goOffline();
  life.machine().store.setKeepsNothing(true);
  life.useOneDay();
  life.useOneDay();
  EXPECT_FALSE(life.totals().balances());
  EXPECT_GT(life.totals().lost, 0U);
  EXPECT_THAT(life.lostEvents(3), SizeIs(3));
  EXPECT_THAT(life.lostEvents(1)[0], HasSubstr("device 77 event "));
}

TEST_F(DeviceUsageTest, DiesAndComesBackWithWhatItHad) {
  UsageTroubles deadly = UsageTroubles::none();
  deadly.death_in_session = 1;
  DeviceUsage life({.seed = 6, .troubles = deadly}, *service_);
  for (int day = 0; day < 10; ++day)
    life.useOneDay();
  EXPECT_GT(life.counts().deaths, 5U);
  life.playHealthyEnd();
  EXPECT_TRUE(life.totals().balances());
  EXPECT_THAT(life.lostEvents(10), IsEmpty());
}

}  // namespace
}  // namespace morvik::simulation
