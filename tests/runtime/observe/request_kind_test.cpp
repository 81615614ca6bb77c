#include "runtime/observe/request_kind.h"

#include <gtest/gtest.h>

#include <utility>

namespace morvik::runtime {
namespace {

using kit::Dictionary;
using kit::Value;

kit::ExchangeResult answered(const Value& json) {
  return {.succeeded = true, .json = json, .status_code = 200, .error = {}};
}

TEST(RequestKind, FollowsFromWhereTheRequestGoes) {
  const RequestKinds kinds{kit::Endpoints()};
  const std::pair<const char*, RequestKind> urls[] = {
      {"https://conversion.morvik.example/v1/conversion", RequestKind::kConversion},
      {"https://conversion.morvik.example/v1/thirdparty-conversion", RequestKind::kThirdPartyConversion},
      {"https://conversion.morvik.example/v1/iad-attribution", RequestKind::kIAdAttribution},
      {"https://tracking.morvik.example/v1/tracking", RequestKind::kBatch},
      {"https://conversion.morvik.example/v1/reengagement-conversion", RequestKind::kReEngagementClick},
      {"https://commerce.morvik.example/v1/commerce-conversion", RequestKind::kCommerceClicks},
      {"https://crash.morvik.example/v1/crash", RequestKind::kCrashReports},
      {"https://tracking.morvik.example/v1/demographics", RequestKind::kDemographics},
      {"https://erasure.morvik.example/v1/erasure", RequestKind::kErasure},
      {"https://campaign.morvik.example/v2/schedule", RequestKind::kQuestion},
      {"https://config.morvik.example/app/config.json", RequestKind::kQuestion},
      {"", RequestKind::kQuestion},
  };
  for (const auto& [url, kind] : urls)
    EXPECT_EQ(kinds.of(url), kind) << url;
}

TEST(RequestKind, HasANameForPeople) {
  EXPECT_EQ(nameOf(RequestKind::kConversion), "conversion");
  EXPECT_EQ(nameOf(RequestKind::kBatch), "batch of activities");
  EXPECT_EQ(nameOf(RequestKind::kQuestion), "question");
}

TEST(RequestKind, SaysWhichAnswersAcceptIt) {
  const Value yes = Dictionary{{"Result", true}};
  const Value no = Dictionary{{"Result", false}};
  for (const RequestKind kind :
       {RequestKind::kConversion, RequestKind::kThirdPartyConversion, RequestKind::kIAdAttribution, RequestKind::kBatch,
        RequestKind::kReEngagementClick, RequestKind::kDemographics}) {
    EXPECT_TRUE(isAccepted(kind, answered(yes))) << nameOf(kind);
    EXPECT_FALSE(isAccepted(kind, answered(no))) << nameOf(kind);
    EXPECT_FALSE(isAccepted(kind, {.succeeded = false, .json = yes})) << nameOf(kind);
  }
  EXPECT_TRUE(isAccepted(RequestKind::kCommerceClicks, answered(no)));
  EXPECT_FALSE(isAccepted(RequestKind::kCommerceClicks, answered(Dictionary{{"errMsg", "no room"}})));
  EXPECT_TRUE(isAccepted(RequestKind::kCrashReports, answered(Dictionary{{"code", 0}})));
  EXPECT_FALSE(isAccepted(RequestKind::kCrashReports, answered(Dictionary{{"code", 7}})));
  EXPECT_TRUE(isAccepted(RequestKind::kErasure, answered(no)));
  EXPECT_FALSE(isAccepted(RequestKind::kErasure, {.succeeded = false, .json = {}}));
}

}  // namespace
}  // namespace morvik::runtime
