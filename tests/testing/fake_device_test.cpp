#include "testing/fake_device.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

TEST(FakeDevice, IsWhatTheTestSays) {
  testing::FakeDevice device;
  EXPECT_EQ(device.systemVersion(), "15.0");
  EXPECT_EQ(device.isMultitaskingSupported(), true);
  EXPECT_EQ(device.statusBarOrientation(), kit::kOrientationPortrait);
  device.set({.system_version = "9.3", .is_multitasking_supported = std::nullopt, .status_bar_orientation = 2});
  EXPECT_EQ(device.systemVersion(), "9.3");
  EXPECT_EQ(device.isMultitaskingSupported(), std::nullopt);
  EXPECT_EQ(device.statusBarOrientation(), 2);
}

TEST(FakeDevice, OpensTheUrlsThatTheTestNames) {
  testing::FakeDevice device;
  EXPECT_FALSE(device.canOpenURL(kit::Url("app://x")));
  device.set({.openable_urls = {"app://x"}});
  EXPECT_TRUE(device.canOpenURL(kit::Url("app://x")));
  EXPECT_FALSE(device.canOpenURL(kit::Url("app://y")));
}

}  // namespace
}  // namespace morvik::test
