#include "apps/service/checks/click_rules.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::commerceClicks;
using test::commonParameters;
using test::facebookClick;
using test::reEngagementPayload;
using test::refusalOf;

std::string problemOf(void (*check)(const Json&), const Json& payload) {
  const Refusal refusal = refusalOf([&] { check(payload); });
  EXPECT_EQ(400, refusal.status());
  return refusal.what();
}

TEST(ClickRules, AcceptsWhatTheProtocolLists) {
  EXPECT_NO_THROW(checkReEngagementPayload(reEngagementPayload(77)));
  EXPECT_NO_THROW(checkDeepLink({{"deeplink_info", facebookClick()}}));
  EXPECT_NO_THROW(checkDeepLink(Json::object()));
  EXPECT_NO_THROW(checkCommerceClicks(commerceClicks({"one", "two"})));
  EXPECT_NO_THROW(checkCommerceClicks(Json::array()));
}

TEST(ClickRules, AReEngagementCarriesTheCommonParameters) {
  Json payload = reEngagementPayload(77);
  payload.erase("puid");
  EXPECT_EQ("puid is missing", problemOf(checkReEngagementPayload, payload));
}

TEST(ClickRules, AReEngagementIsAboutOneClick) {
  EXPECT_EQ("deeplink_info is missing", problemOf(checkReEngagementPayload, commonParameters()));
  Json payload = commonParameters();
  payload["deeplink_info"] = Json::array();
  EXPECT_EQ("deeplink_info is not an object", problemOf(checkReEngagementPayload, payload));
}

TEST(ClickRules, AReEngagementsClickHasExactlyFiveMembersOfTheirTypes) {
  const Json good = reEngagementPayload(77);
  const std::map<std::string, std::string> types = {{"session_no", "64-bit integer"},
                                                    {"conversion_key", "64-bit integer"},
                                                    {"deeplink_uri", "string"},
                                                    {"sub_conversion_key", "string"},
                                                    {"is_first_launch", "boolean"}};
  ASSERT_EQ(types.size(), good["deeplink_info"].size());
  for (const auto& [name, type] : types) {
    Json payload = good;
    payload["deeplink_info"].erase(name);
    EXPECT_EQ("deeplink_info." + name + " is missing", problemOf(checkReEngagementPayload, payload));
    payload["deeplink_info"][name] = 1.5;
    EXPECT_EQ("deeplink_info." + name + " is not a " + type, problemOf(checkReEngagementPayload, payload));
  }
  Json payload = good;
  payload["deeplink_info"]["failure_cnt"] = 1;
  EXPECT_EQ("deeplink_info.failure_cnt does not belong there", problemOf(checkReEngagementPayload, payload));
}

TEST(ClickRules, ADeepLinkHasExactlyThreeMembersOfTheirTypes) {
  const std::map<std::string, std::string> types = {
      {"conversion_key", "64-bit integer"}, {"deeplink_uri", "string"}, {"sub_conversion_key", "string"}};
  ASSERT_EQ(types.size(), facebookClick().size());
  for (const auto& [name, type] : types) {
    Json click = facebookClick();
    click.erase(name);
    EXPECT_EQ("deeplink_info." + name + " is missing", problemOf(checkDeepLink, {{"deeplink_info", click}}));
    click[name] = nullptr;
    EXPECT_EQ("deeplink_info." + name + " is not a " + type, problemOf(checkDeepLink, {{"deeplink_info", click}}));
  }
  Json click = facebookClick();
  click["session_no"] = 1;
  EXPECT_EQ("deeplink_info.session_no does not belong there", problemOf(checkDeepLink, {{"deeplink_info", click}}));
  EXPECT_EQ("deeplink_info is not an object", problemOf(checkDeepLink, {{"deeplink_info", nullptr}}));
}

TEST(ClickRules, ACommerceClickHasExactlyThreeMembersOfTheirTypes) {
  const std::map<std::string, std::string> types = {{"clickId", "string"}, {"idfa", "string"}, {"mtime", "number"}};
  for (const auto& [name, type] : types) {
    Json clicks = commerceClicks({"one", "two"});
    ASSERT_EQ(types.size(), clicks[1].size());
    clicks[1].erase(name);
    EXPECT_EQ("[1]." + name + " is missing", problemOf(checkCommerceClicks, clicks));
    clicks[1][name] = false;
    EXPECT_EQ("[1]." + name + " is not a " + type, problemOf(checkCommerceClicks, clicks));
  }
  Json clicks = commerceClicks({"one"});
  clicks[0]["more"] = 1;
  EXPECT_EQ("[0].more does not belong there", problemOf(checkCommerceClicks, clicks));
  EXPECT_EQ("[0] is not an object", problemOf(checkCommerceClicks, Json::array({1})));
}

}  // namespace
}  // namespace morvik_service
