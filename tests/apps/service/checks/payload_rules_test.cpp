#include "apps/service/checks/payload_rules.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::commonParameters;
using test::conversionPayload;
using test::facebookClick;
using test::iadPayload;
using test::impression;
using test::refusalOf;
using test::trackingPayload;

std::string problemOf(void (*check)(const Json&), const Json& payload) {
  const Refusal refusal = refusalOf([&] { check(payload); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_EQ(0U, refusal.where().find("the payload, "));
  return refusal.what();
}

TEST(PayloadRules, AcceptsWhatTheProtocolLists) {
  EXPECT_NO_THROW(checkConversionPayload(conversionPayload()));
  EXPECT_NO_THROW(checkIadPayload(iadPayload()));
  EXPECT_NO_THROW(checkIadPayload(commonParameters()));
  Json batch = trackingPayload({"one", "two"});
  batch["impression_info"].push_back(impression());
  EXPECT_NO_THROW(checkTrackingPayload(batch));
  EXPECT_NO_THROW(checkThirdPartyPayload(Json::object()));
}

TEST(PayloadRules, EveryCommonParameterIsAString) {
  const Json good = commonParameters();
  EXPECT_EQ(17U, good.size());
  for (const auto& [name, value] : good.items()) {
    Json payload = good;
    payload.erase(name);
    EXPECT_EQ(name + " is missing", problemOf(checkCommonParameters, payload));
    payload[name] = true;
    EXPECT_EQ(name + " is not a string", problemOf(checkCommonParameters, payload));
  }
}

TEST(PayloadRules, AConversionHasExactlyOneActivityOfSixStrings) {
  const Json good = conversionPayload();
  EXPECT_EQ(6U, good["activity_info"][0].size());
  for (const auto& [name, value] : good["activity_info"][0].items()) {
    Json payload = good;
    payload["activity_info"][0].erase(name);
    EXPECT_EQ("activity_info[0]." + name + " is missing", problemOf(checkConversionPayload, payload));
  }
  Json payload = good;
  payload["activity_info"].push_back(good["activity_info"][0]);
  EXPECT_EQ("activity_info does not hold exactly one entry", problemOf(checkConversionPayload, payload));
  payload["activity_info"] = {1};
  EXPECT_EQ("activity_info[0] is not an object", problemOf(checkConversionPayload, payload));
  payload["activity_info"] = "x";
  EXPECT_EQ("activity_info is not an array", problemOf(checkConversionPayload, payload));
}

TEST(PayloadRules, AConversionAlwaysHasASearchAdsResponse) {
  Json payload = conversionPayload();
  payload["searchads_response"] = {{"iad-attribution", "true"}};
  EXPECT_NO_THROW(checkConversionPayload(payload));
  payload["searchads_response"] = "x";
  EXPECT_EQ("searchads_response is neither an object nor \"\"", problemOf(checkConversionPayload, payload));
  payload["searchads_response"] = nullptr;
  EXPECT_EQ("searchads_response is neither an object nor \"\"", problemOf(checkConversionPayload, payload));
  payload.erase("searchads_response");
  EXPECT_EQ("searchads_response is missing", problemOf(checkConversionPayload, payload));
}

TEST(PayloadRules, ADeepLinkOfAConversionIsCheckedWhenItIsThere) {
  for (auto* const check : {checkConversionPayload, checkThirdPartyPayload}) {
    Json payload = conversionPayload();
    payload["deeplink_info"] = facebookClick();
    EXPECT_NO_THROW(check(payload));
    payload["deeplink_info"].erase("deeplink_uri");
    EXPECT_EQ("deeplink_info.deeplink_uri is missing", problemOf(check, payload));
  }
}

TEST(PayloadRules, AnIadAttributionHasBothDatesOrNone) {
  Json payload = iadPayload();
  payload["iAd"].erase("iAdImpressionDate");
  EXPECT_EQ("iAd.iAdImpressionDate is missing", problemOf(checkIadPayload, payload));
  payload["iAd"]["iAdImpressionDate"] = 20260304050608;
  EXPECT_EQ("iAd.iAdImpressionDate is not a string", problemOf(checkIadPayload, payload));
  payload["iAd"] = "20260304050607";
  EXPECT_EQ("iAd is not an object", problemOf(checkIadPayload, payload));
}

TEST(PayloadRules, EveryActivityOfABatchHasSevenStrings) {
  const Json good = trackingPayload({"one", "two"});
  EXPECT_EQ(7U, good["activity_info"][1].size());
  for (const auto& [name, value] : good["activity_info"][1].items()) {
    Json payload = good;
    payload["activity_info"][1].erase(name);
    EXPECT_EQ("activity_info[1]." + name + " is missing", problemOf(checkTrackingPayload, payload));
    payload["activity_info"][1][name] = nullptr;
    EXPECT_EQ("activity_info[1]." + name + " is not a string", problemOf(checkTrackingPayload, payload));
  }
}

TEST(PayloadRules, EveryImpressionOfABatchHasSixMembersOfTheirTypes) {
  Json good = trackingPayload({"one"});
  good["impression_info"] = Json::array({impression(), impression()});
  const Json members = impression();
  for (const auto& [name, value] : members.items()) {
    Json payload = good;
    payload["impression_info"][1].erase(name);
    EXPECT_EQ("impression_info[1]." + name + " is missing", problemOf(checkTrackingPayload, payload));
    payload["impression_info"][1][name] = 1.5;
    EXPECT_EQ(0U, problemOf(checkTrackingPayload, payload).find("impression_info[1]." + name + " is not a "));
  }
}

TEST(PayloadRules, ABatchHasBothLists) {
  Json payload = trackingPayload({"one"});
  payload.erase("impression_info");
  EXPECT_EQ("impression_info is missing", problemOf(checkTrackingPayload, payload));
  payload.erase("activity_info");
  EXPECT_EQ("activity_info is missing", problemOf(checkTrackingPayload, payload));
}

}  // namespace
}  // namespace morvik_service
