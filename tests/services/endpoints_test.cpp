#include "services/endpoints.h"

#include <gtest/gtest.h>

#include <string>

#include "kit/endpoints.h"

namespace morvik::services {
namespace {

TEST(Endpoints, HaveTheirAgreedPaths) {
  EXPECT_STREQ(kTrackingPath, "v1/tracking");
  EXPECT_STREQ(kConversionPath, "v1/conversion");
  EXPECT_STREQ(kThirdPartyConversionPath, "v1/thirdparty-conversion");
  EXPECT_STREQ(kIADAttributionPath, "v1/iad-attribution");
}

TEST(Endpoints, LieUnderAReservedDomainUntilTheAppSaysOtherwise) {
  const kit::Endpoints endpoints;
  EXPECT_EQ(endpoints.kFendoTrackingBaseLiveUrl, "https://tracking.morvik.example/");
  EXPECT_EQ(endpoints.kFendoConversionBaseLiveUrl, "https://conversion.morvik.example/");
  EXPECT_EQ(endpoints.kFendoCampaignBaseLiveUrl, "https://campaign.morvik.example/");
  EXPECT_EQ(endpoints.kCommerceBaseLiveUrl, "https://commerce.morvik.example/");
  EXPECT_EQ(endpoints.kCrashReportBaseLiveUrl, "https://crash.morvik.example/");
  EXPECT_EQ(endpoints.kGdprReqUrl, "https://erasure.morvik.example/");
  EXPECT_EQ(endpoints.KAppConfigBaseLiveUrl, "https://config.morvik.example/");
}

TEST(Endpoints, ShareTimeOutGroupNameAndStoredKeys) {
  EXPECT_EQ(kFendoHttpConnectionTimeoutSeconds, 15);
  EXPECT_STREQ(kFendoActivityGroupSession, "session");
  EXPECT_STREQ(kMorvikNSUserDefaultsDomainName, "com.morvik.core");
  EXPECT_STREQ(kAppLaunchCountSaveKey, "appLaunchCount");
  EXPECT_STREQ(kPassOpenUrlKey, "com.morvik.reengagement.passopenurl");
}

}  // namespace
}  // namespace morvik::services
