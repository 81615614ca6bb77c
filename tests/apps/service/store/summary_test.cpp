#include "apps/service/store/summary.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::trackingPayload;

TEST(Summary, NamesTheFirstActivitiesOfABatchAndCountsTheRest) {
  EXPECT_EQ("shop/view", aboutPayload("tracking", trackingPayload({"a"})));
  EXPECT_EQ("shop/view, shop/view, shop/view, shop/view and 2 more",
            aboutPayload("tracking", trackingPayload({"a", "b", "c", "d", "e", "f"})));
  Json payload = trackingPayload({});
  payload["impression_info"].push_back(test::impression());
  EXPECT_EQ("1 impressions", aboutPayload("tracking", payload));
}

TEST(Summary, SaysWhatEveryEndpointsPayloadIsAbout) {
  EXPECT_EQ("out of range", aboutPayload("crash", Json::array({test::crashReport("out of range")})));
  EXPECT_EQ("one, two", aboutPayload("commerce-conversion", test::commerceClicks({"one", "two"})));
  EXPECT_EQ("checksum init", aboutPayload("schedule", {{"checksum", "init"}}));
  EXPECT_EQ(test::erasureRequest()["subject_request_id"], aboutPayload("erasure", test::erasureRequest()));
  EXPECT_EQ("age 27, gender 2",
            aboutPayload("demographics", Json::parse(R"({"user_demo_info":[{"demo_key":"age","demo_value":27},
                                                             {"demo_key":"gender","demo_value":2}]})")));
  EXPECT_EQ("a://b", aboutPayload("reengagement-conversion", {{"deeplink_info", {{"deeplink_uri", "a://b"}}}}));
  EXPECT_EQ("with search ads details", aboutPayload("conversion", {{"searchads_response", Json::object()}}));
}

TEST(Summary, PayloadsOfAnyShapeAreSurvived) {
  for (const char* endpoint : {"tracking", "crash", "commerce-conversion", "schedule", "erasure", "demographics", ""}) {
    for (const char* payload : {"null", "7", "[]", "[7]", "{}", R"({"activity_info":7,"user_demo_info":{}})", "[[]]"}) {
      EXPECT_LE(aboutPayload(endpoint, Json::parse(payload)).size(), kMaxSummaryBytes) << endpoint << payload;
      EXPECT_EQ("", installOf(Json::parse(payload)));
      EXPECT_TRUE(identitiesOf(Json::parse(payload)).empty());
    }
  }
}

TEST(Summary, ALongLineIsCutBetweenCharacters) {
  std::string reason;
  for (std::size_t i = 0; i < kMaxSummaryBytes; ++i)
    reason += "\xc3\xa9";
  const std::string line = aboutPayload("crash", Json::array({{{"exception_reason", "x" + reason}}}));
  EXPECT_LE(line.size(), kMaxSummaryBytes);
  EXPECT_EQ("\xc3\xa9...", line.substr(line.size() - 5));
  EXPECT_EQ("a  b", aboutPayload("crash", Json::array({{{"exception_reason", "a\n\tb"}}})));
}

TEST(Summary, TellsWhosePayloadItIs) {
  EXPECT_EQ("i-1", installOf({{"install_id", "i-1"}}));
  EXPECT_EQ((std::vector<std::string>{"idfa:ab-1", "puid:cd"}), identitiesOf({{"idfa", "ab-1"}, {"puid", "cd"}}));
  EXPECT_EQ((std::vector<std::string>{"idfa:ab"}), identitiesOf(Json::parse(R"([{"idfa":"ab"},{"idfa":"cd"}])")));
  EXPECT_EQ((std::vector<std::string>{"idfa:ab"}),
            identitiesOf(Json::parse(R"({"subject_identities":[{"identity_value":"ab"}]})")));
  EXPECT_TRUE(identitiesOf({{"idfa", "00000000-0000-0000-0000-000000000000"}, {"puid", ""}}).empty());
}

}  // namespace
}  // namespace morvik_service
