#include "apps/service/inspect/broken_rules.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::trackingPayload;

constexpr const char* kGoodId = "018f3c1e-7b2a-7cde-8f01-23456789abcd";

Json stored(const Json& payload, const char* path = "/v1/tracking") {
  return {{"path", path},
          {"headers", Json::array({Json::array({"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"})})},
          {"body_bytes", 7},
          {"payload", payload},
          {"refusal", nullptr}};
}

std::vector<std::string> broken(const Json& request) {
  std::vector<std::string> texts;
  for (const Json& rule : brokenRules(request))
    texts.push_back(rule["where"].get<std::string>() + ": " + rule["what"].get<std::string>());
  return texts;
}

using Texts = std::vector<std::string>;

TEST(BrokenRules, AGoodRequestBreaksNone) {
  EXPECT_EQ(Texts{}, broken(stored(trackingPayload({kGoodId}))));
  Json configuration = stored(nullptr, "/app-1/config.json");
  configuration["body_bytes"] = 0;
  EXPECT_EQ(Texts{}, broken(configuration));
}

TEST(BrokenRules, ARefusalIsTheRuleThatWasBroken) {
  Json request = stored(nullptr);
  request["refusal"] = {{"error", "the body is empty"}, {"where", "the request body"}, {"fix", "send one"}};
  EXPECT_EQ(R"([{"what":"the body is empty","where":"the request body","fix":"send one"}])",
            jsonText(brokenRules(request)));
}

TEST(BrokenRules, EventIdsAreTimeOrderedUuidsAndStandOnce) {
  for (const char* id : {"a", "018F3C1E-7B2A-7CDE-8F01-23456789ABCD", "018f3c1e-7b2a-4cde-8f01-23456789abcd",
                         "018f3c1e-7b2a-7cde-7f01-23456789abcd", "018f3c1e-7b2a-7cde-8f01-23456789abcde"}) {
    EXPECT_EQ((Texts{"activity_info[0].event_id: \"" + std::string(id) + "\" is not a lower-case UUID of version 7"}),
              broken(stored(trackingPayload({id}))));
  }
  EXPECT_EQ((Texts{"activity_info[1].event_id: the same event stands twice in one batch"}),
            broken(stored(trackingPayload({kGoodId, kGoodId}))));
  EXPECT_EQ((Texts{"activity_info[0].event_id: the event has no id, so nobody can count it once"}),
            broken(stored(trackingPayload({""}))));
}

TEST(BrokenRules, TimesAreRealAndAscend) {
  Json payload = trackingPayload({kGoodId, "018f3c1e-7b2a-7cde-8f01-23456789abce"});
  payload["activity_info"][1]["created_at"] = "20250304050607";
  EXPECT_EQ((Texts{"activity_info[1].created_at: the entry is earlier than the one before it"}),
            broken(stored(payload)));
  payload["activity_info"][1]["created_at"] = "20261304050607";
  EXPECT_EQ((Texts{"activity_info[1].created_at: the time \"20261304050607\" is not of the form yyyyMMddHHmmss"}),
            broken(stored(payload)));
}

TEST(BrokenRules, EntriesHaveTheirMembersAndNoOthers) {
  Json payload = trackingPayload({kGoodId});
  payload["activity_info"][0]["more"] = 1;
  payload["impression_info"].push_back(test::impression());
  EXPECT_EQ((Texts{"activity_info[0]: the entry has more than its 7 members"}), broken(stored(payload)));
}

TEST(BrokenRules, AFormSaysThatItIsUtf8) {
  Json request = stored(trackingPayload({kGoodId}));
  request["headers"][0][1] = "application/x-www-form-urlencoded";
  EXPECT_EQ((Texts{"header Content-Type: the form does not say that it is UTF-8"}), broken(request));
}

TEST(BrokenRules, AConversionWithoutParametersIsSaid) {
  Json request = stored(nullptr, "/v1/conversion");
  request["body_bytes"] = 0;
  EXPECT_EQ((Texts{"the request body: the request has no parameters: the device could not build its payload"}),
            broken(request));
}

TEST(BrokenRules, OfManyTheFirstAreListed) {
  EXPECT_EQ(kMaxRulesListed, brokenRules(stored(trackingPayload(std::vector<std::string>(100, "")))).size());
}

TEST(BrokenRules, PayloadsOfAnyShapeAreSurvived) {
  for (const char* payload : {"null", "7", "[]", "{}", R"({"activity_info":7,"impression_info":[7,[],{}]})"})
    EXPECT_LE(brokenRules(stored(Json::parse(payload))).size(), kMaxRulesListed) << payload;
}

}  // namespace
}  // namespace morvik_service
