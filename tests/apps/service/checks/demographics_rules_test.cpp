#include "apps/service/checks/demographics_rules.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::demographicsPayload;
using test::refusalOf;

std::string problemOf(const Json& payload) {
  const Refusal refusal = refusalOf([&] { checkDemographicsPayload(payload); });
  EXPECT_EQ(400, refusal.status());
  return refusal.what();
}

Json withEntries(const std::vector<Json>& entries) {
  Json payload = demographicsPayload();
  payload["user_demo_info"] = entries;
  return payload;
}

Json entry(const Json& key, const Json& value) {
  return {{"demo_key", key}, {"demo_value", value}};
}

TEST(DemographicsRules, AcceptsWhatTheProtocolLists) {
  EXPECT_EQ(3U, demographicsPayload()["user_demo_info"].size());
  EXPECT_NO_THROW(checkDemographicsPayload(demographicsPayload()));
  EXPECT_NO_THROW(checkDemographicsPayload(withEntries({entry("userId", "u")})));
  EXPECT_NO_THROW(checkDemographicsPayload(withEntries({entry("age", -7), entry("gender", 3)})));
}

TEST(DemographicsRules, ADeviceWithoutAPersistentIdSendsNothing) {
  EXPECT_NO_THROW(checkDemographicsPayload(Json::object()));
}

TEST(DemographicsRules, APayloadHasBothMembersOrNone) {
  for (const auto& [name, problem] :
       {std::pair<std::string, std::string>{"puid", "a string"}, {"user_demo_info", "an array"}}) {
    Json payload = demographicsPayload();
    payload.erase(name);
    EXPECT_EQ(name + " is missing", problemOf(payload));
    payload[name] = 1;
    EXPECT_EQ(name + " is not " + problem, problemOf(payload));
  }
  Json payload = demographicsPayload();
  payload["idfa"] = "x";
  EXPECT_EQ("idfa does not belong there", problemOf(payload));
}

TEST(DemographicsRules, AnEntryHasAKnownKeyAndAValueOfItsType) {
  EXPECT_EQ("user_demo_info[0] is not an object", problemOf(withEntries({1})));
  EXPECT_EQ("user_demo_info[0].demo_key is missing", problemOf(withEntries({Json::object()})));
  EXPECT_EQ("user_demo_info[0].demo_key is not a string", problemOf(withEntries({entry(1, 27)})));
  EXPECT_EQ("user_demo_info[0].demo_key is none of age, gender and userId", problemOf(withEntries({entry("Age", 27)})));
  EXPECT_EQ("user_demo_info[0].demo_value is not a 64-bit integer", problemOf(withEntries({entry("age", "27")})));
  EXPECT_EQ("user_demo_info[0].demo_value is not a 64-bit integer", problemOf(withEntries({entry("gender", true)})));
  EXPECT_EQ("user_demo_info[0].demo_value is not a string", problemOf(withEntries({entry("userId", 7)})));
  Json more = entry("age", 27);
  more["since"] = 1;
  EXPECT_EQ("user_demo_info[0].since does not belong there", problemOf(withEntries({more})));
  more = {{"demo_key", "age"}};
  EXPECT_EQ("user_demo_info[0].demo_value is missing", problemOf(withEntries({more})));
}

TEST(DemographicsRules, EntriesComeOnceAndInTheirOrder) {
  const std::string problem = "user_demo_info[1].demo_key does not follow the order age, gender, userId";
  EXPECT_EQ(problem, problemOf(withEntries({entry("age", 27), entry("age", 28)})));
  EXPECT_EQ(problem, problemOf(withEntries({entry("userId", "u"), entry("gender", 1)})));
}

}  // namespace
}  // namespace morvik_service
