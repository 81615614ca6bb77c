#include "simulation/device_life.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "testing/fake_crypto.h"

namespace morvik::simulation {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class DeviceLifeTest : public ::testing::Test {
 protected:
  const host::OpensslCipher cipher_;
  const host::ZlibCompressor compressor_;
  ::morvik::testing::SeededRandom random_;
  ::morvik::testing::SimulatedService service_{{cipher_, compressor_, random_}, {"app", "hash", "tracking"}, [] {
                                                 return kit::Date::fromSeconds(1'709'251'200);
                                               }};
};

TEST_F(DeviceLifeTest, DeliversWhatItsAppRecorded) {
  DeviceLife life({.seed = 4, .troubles = LifeTroubles::none()}, service_);
  for (int day = 0; day < 5; ++day)
    life.liveOneDay();
  life.liveAHealthyEnd();
  const LifeAccount account = life.account();
  EXPECT_GT(account.recorded, 10U);
  EXPECT_EQ(account.delivered, account.recorded);
  EXPECT_EQ(life.counts().days, 5U);
}

TEST_F(DeviceLifeTest, KeepsWhatNoNetworkTakes) {
  LifeTroubles offline = LifeTroubles::none();
  offline.offline_phase_a_day = 1;
  DeviceLife life({.seed = 4, .troubles = offline}, service_);
  life.liveOneDay();
  life.machine().transport.goOffline();
  life.liveOneDay();
  EXPECT_GT(life.account().stored, 0U);
  EXPECT_TRUE(life.account().balances());
}

TEST_F(DeviceLifeTest, KnowsWhatAStoreThatKeepsNothingLost) {
  LifeTroubles deadly = LifeTroubles::none();
  deadly.death_in_background = 1;
  DeviceLife life({.seed = 4, .number = 77, .events_a_day = 40, .troubles = deadly}, service_);
  life.machine().transport.goOffline();
  life.machine().store.setKeepsNothing(true);
  life.liveOneDay();
  life.liveOneDay();
  EXPECT_FALSE(life.account().balances());
  EXPECT_GT(life.account().lost, 0U);
  EXPECT_THAT(life.lostEvents(3), SizeIs(3));
  EXPECT_THAT(life.lostEvents(1)[0], HasSubstr("device 77 event "));
}

TEST_F(DeviceLifeTest, DiesAndComesBackWithWhatItHad) {
  LifeTroubles deadly = LifeTroubles::none();
  deadly.death_in_session = 1;
  DeviceLife life({.seed = 6, .troubles = deadly}, service_);
  for (int day = 0; day < 10; ++day)
    life.liveOneDay();
  EXPECT_GT(life.counts().deaths, 5U);
  life.liveAHealthyEnd();
  EXPECT_TRUE(life.account().balances());
  EXPECT_THAT(life.lostEvents(10), IsEmpty());
}

}  // namespace
}  // namespace morvik::simulation
