#include "testing/fake_util.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

TEST(FakeUtil, DescribesADeviceThatTheTestMayChange) {
  testing::FakeUtil util;
  EXPECT_EQ(util.getNetworkStatus(), "wifi");
  EXPECT_EQ(util.platformString(), "test-model");
  EXPECT_EQ(util.freeDiskSpace(), kit::Value(123'456'789));
  EXPECT_EQ(util.memoryFormatter(util.getFreeRam()), "812.4 MB");
  EXPECT_EQ(util.getUTCFormateDateISO({}), "1970-01-01T00:00:00Z");
  util.setNetworkStatus("unknown");
  util.setPlatformString(std::nullopt);
  util.setFreeDiskSpace({});
  util.setFreeRam(1024);
  util.setKnowsISODates(false);
  EXPECT_EQ(util.getNetworkStatus(), kit::kNetworkUnknown);
  EXPECT_EQ(util.platformString(), std::nullopt);
  EXPECT_TRUE(util.freeDiskSpace().isAbsent());
  EXPECT_EQ(util.memoryFormatter(util.getFreeRam()), "1.0 MB");
  EXPECT_EQ(util.getUTCFormateDateISO({}), std::nullopt);
}

}  // namespace
}  // namespace morvik::test
