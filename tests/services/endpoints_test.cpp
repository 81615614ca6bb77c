#include "services/endpoints.h"

#include <gtest/gtest.h>

#include <string>

#include "kit/endpoints.h"

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Value;

TEST(Endpoints, HaveTheirAgreedUrls) {
  const std::pair<const char*, Endpoint> urls[] = {
      {"https://conversion.morvik.example/v1/conversion", Endpoint::kConversion},
      {"https://conversion.morvik.example/v1/thirdparty-conversion", Endpoint::kThirdPartyConversion},
      {"https://conversion.morvik.example/v1/iad-attribution", Endpoint::kIADAttribution},
      {"https://tracking.morvik.example/v1/tracking", Endpoint::kTracking},
      {"https://conversion.morvik.example/v1/reengagement-conversion", Endpoint::kReEngagementConversion},
      {"https://commerce.morvik.example/v1/commerce-conversion", Endpoint::kCommerceConversion},
      {"https://crash.morvik.example/v1/crash", Endpoint::kCrashReport},
      {"https://tracking.morvik.example/v1/demographics", Endpoint::kSetDemographic},
      {"https://erasure.morvik.example/v1/erasure", Endpoint::kGdprReq},
      {"https://campaign.morvik.example/v2/schedule", Endpoint::kGetSchedule},
  };
  for (const auto& [url, endpoint] : urls) {
    EXPECT_EQ(urlOf({}, endpoint), url);
    EXPECT_EQ(endpointOf({}, url), endpoint) << url;
  }
}

TEST(Endpoints, AreKnownByTheirWholeUrl) {
  for (const EndpointRow& row : kEndpoints)
    EXPECT_EQ(endpointOf({}, urlOf({}, row.endpoint)), row.endpoint);
  for (const char* url :
       {"", "v1/tracking", "https://tracking.morvik.example/v1/crash", "https://tracking.morvik.example/v1/tracking/",
        "https://config.morvik.example/app/config.json"})
    EXPECT_EQ(endpointOf({}, url), std::nullopt) << url;
  EXPECT_EQ(endpointOf({.kFendoTrackingBaseLiveUrl = "https://own.example/eu/"}, "https://own.example/eu/v1/tracking"),
            Endpoint::kTracking);
}

TEST(Endpoints, SayWhatTheyCarry) {
  EXPECT_EQ(rowOf(Endpoint::kConversion).description, "conversion");
  EXPECT_EQ(rowOf(Endpoint::kTracking).description, "batch of activities");
}

TEST(Endpoints, SayWhichAnswersAcceptWhatWasSent) {
  const Value yes = Dictionary{{"Result", true}};
  const Value no = Dictionary{{"Result", false}};
  for (const Endpoint endpoint : {Endpoint::kConversion, Endpoint::kThirdPartyConversion, Endpoint::kIADAttribution,
                                  Endpoint::kTracking, Endpoint::kReEngagementConversion, Endpoint::kSetDemographic}) {
    EXPECT_TRUE(isAcceptance(endpoint, yes)) << rowOf(endpoint).path;
    EXPECT_FALSE(isAcceptance(endpoint, no)) << rowOf(endpoint).path;
  }
  EXPECT_TRUE(isAcceptance(Endpoint::kCommerceConversion, no));
  EXPECT_TRUE(isAcceptance(Endpoint::kCommerceConversion, Dictionary{{"errMsg", Value::null()}}));
  EXPECT_FALSE(isAcceptance(Endpoint::kCommerceConversion, Dictionary{{"errMsg", "no room"}}));
  EXPECT_TRUE(isAcceptance(Endpoint::kCrashReport, Dictionary{{"code", 0}}));
  EXPECT_FALSE(isAcceptance(Endpoint::kCrashReport, Dictionary{{"code", 7}}));
  EXPECT_TRUE(isAcceptance(Endpoint::kGdprReq, no));
  EXPECT_TRUE(isAcceptance(Endpoint::kGetSchedule, no));
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
