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

}  // namespace
}  // namespace morvik::test
