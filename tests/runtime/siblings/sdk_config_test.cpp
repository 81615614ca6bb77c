#include "runtime/siblings/sdk_config.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/paths.h"

namespace morvik::runtime {
namespace {

TEST(SdkConfig, HoldsTheTrackingKey) {
  EXPECT_EQ(MorvkSDKConfig("key").getTrackingSuperkey(), "key");
  EXPECT_EQ(MorvkSDKConfig("").getTrackingSuperkey(), "");
}

TEST(SdkConfig, NamesTheKitAndTheVersionThatIsBuilt) {
  const MorvikCoreUpdateLog log;
  EXPECT_EQ(log.frameworkName(), "MorvikCore");
  std::ifstream file(test::buildDir() + "/MorvikConfigVersion.cmake");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(text.find("set(PACKAGE_VERSION \"" + log.getSDKVersion() + "\")"), std::string::npos);
}

TEST(SdkConfig, DescribesTheDevice) {
  DeviceDescription description;
  EXPECT_EQ(Device(description).systemVersion(), "15.0");
  EXPECT_EQ(Device(description).isMultitaskingSupported(), true);
  EXPECT_EQ(Device(description).statusBarOrientation(), kit::kOrientationPortrait);
  description.system_version = "9.3";
  description.multitasking = std::nullopt;
  description.orientation = 4;
  EXPECT_EQ(Device(description).systemVersion(), "9.3");
  EXPECT_EQ(Device(description).isMultitaskingSupported(), std::nullopt);
  EXPECT_EQ(Device(description).statusBarOrientation(), 4);
}

TEST(SdkConfig, OpensUrlsOfTheSchemesThatTheAppNamed) {
  DeviceDescription description;
  EXPECT_FALSE(Device(description).canOpenURL(kit::Url("https://x.example/")));
  description.url_schemes = {"https", "Mail"};
  const Device device(description);
  EXPECT_TRUE(device.canOpenURL(kit::Url("https://x.example/")));
  EXPECT_TRUE(device.canOpenURL(kit::Url("HTTPS:")));
  EXPECT_TRUE(device.canOpenURL(kit::Url("mail:somebody")));
  EXPECT_FALSE(device.canOpenURL(kit::Url("http://x.example/")));
  EXPECT_FALSE(device.canOpenURL(kit::Url("https")));
  EXPECT_FALSE(device.canOpenURL(kit::Url("")));
}

}  // namespace
}  // namespace morvik::runtime
