#include "runtime/siblings/app_bundle.h"

#include <gtest/gtest.h>

namespace morvik::runtime {
namespace {

TEST(AppBundle, KnowsWhatTheAppSaidOfItself) {
  DeviceDescription description;
  description.app_version_name = "2.1";
  description.app_version_code = "2100";
  description.package_name = "com.example.app";
  const AppBundle bundle(description);
  EXPECT_EQ(bundle.objectForInfoDictionaryKey(kit::kCFBundleShortVersionStringKey), "2.1");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey(kit::kCFBundleVersionKey), "2100");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey(kit::kCFBundleIdentifierKey), "com.example.app");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleName"), std::nullopt);
}

}  // namespace
}  // namespace morvik::runtime
