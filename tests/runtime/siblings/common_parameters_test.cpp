#include "runtime/siblings/common_parameters.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "host/linux/system_facts.h"

namespace morvik::runtime {
namespace {

const host::SystemFacts kMachine;

using Texts = std::map<std::string, std::string>;

Texts texts(const kit::MutableDictionary& parameters) {
  Texts texts;
  for (const kit::Entry& entry : parameters.entries()) {
    EXPECT_TRUE(entry.value.isString()) << entry.key.string();
    EXPECT_TRUE(texts.emplace(entry.key.string(), entry.value.string()).second) << entry.key.string();
  }
  return texts;
}

TEST(CommonParameters, SayWhatTheDeviceAndTheAppSayOfThemselves) {
  DeviceDescription device;
  device.system_version = "15.4";
  device.model = "phone";
  device.language = "ko";
  device.country = "KR";
  device.app_version_name = "1.0";
  device.app_version_code = "17";
  device.package_name = "example.app";
  device.carrier = "carrier";
  const MorvikADUtil util({.idfa = "AAAA", .has_loopback_endpoint = true}, kMachine);
  const MorvikADGetPUID puid(std::string("hashed"));
  const CommonParameters common({.device = device,
                                 .app_key = "key",
                                 .install_id = "install",
                                 .zone_name = "Asia/Seoul",
                                 .util = util,
                                 .puid = puid});
  EXPECT_EQ(texts(common.make("0.1.0")), (Texts{{"appkey", "key"},
                                                {"sdk_version", "0.1.0"},
                                                {"os_type", "ios"},
                                                {"os_version", "15.4"},
                                                {"device_model", "phone"},
                                                {"language", "ko"},
                                                {"country", "KR"},
                                                {"timezone", "Asia/Seoul"},
                                                {"app_version_name", "1.0"},
                                                {"app_version_code", "17"},
                                                {"package_name", "example.app"},
                                                {"idfa", "AAAA"},
                                                {"puid", "hashed"},
                                                {"install_id", "install"},
                                                {"network", util.getNetworkStatus()},
                                                {"carrier", "carrier"},
                                                {"portrait", "true"}}));
}

TEST(CommonParameters, SayNothingOfWhatIsUnknown) {
  DeviceDescription device;
  device.orientation = 2;
  const MorvikADUtil util({.has_loopback_endpoint = true}, kMachine);
  const MorvikADGetPUID puid;
  const CommonParameters common(
      {.device = device, .app_key = "", .install_id = "", .zone_name = "", .util = util, .puid = puid});
  const Texts made = texts(common.make(""));
  EXPECT_EQ(made.size(), 17U);
  for (const char* name : {"idfa", "puid", "device_model", "language", "country", "carrier", "package_name"})
    EXPECT_EQ(made.at(name), "") << name;
  EXPECT_EQ(made.at("portrait"), "false");
}

TEST(CommonParameters, SayWhatReplacedTheInstall) {
  const DeviceDescription device;
  const MorvikADUtil util({}, kMachine);
  const MorvikADGetPUID puid;
  Identity identity{
      .device = device, .app_key = "key", .install_id = "made for now", .zone_name = "UTC", .util = util, .puid = puid};
  CommonParameters common(identity);
  EXPECT_EQ(texts(common.make("0.1.0"))["install_id"], "made for now");
  identity.install_id = "of the file";
  common.replace(identity);
  EXPECT_EQ(texts(common.make("0.1.0"))["install_id"], "of the file");
}

}  // namespace
}  // namespace morvik::runtime
