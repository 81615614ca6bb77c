#include "apps/service/checks/erasure_rules.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::erasureRequest;
using test::kKeys;
using test::refusalOf;

constexpr const char* kDomain = "erasure.morvik.example";

std::string problemOf(const Json& payload) {
  const Refusal refusal = refusalOf([&] { checkErasureRequest(payload); });
  EXPECT_EQ(400, refusal.status());
  return refusal.what();
}

Json without(const std::vector<std::string>& names) {
  Json payload = erasureRequest();
  for (const std::string& name : names)
    payload.erase(name);
  return payload;
}

TEST(ErasureRules, AcceptsWhatTheProtocolLists) {
  EXPECT_EQ(7U, erasureRequest().size());
  EXPECT_NO_THROW(checkErasureRequest(erasureRequest()));
}

TEST(ErasureRules, WhatADeviceMayNotKnowEndsTheListThatItStandsIn) {
  EXPECT_NO_THROW(checkErasureRequest(without({"submitted_time", "api_version", "status_callback_urls"})));
  Json payload = erasureRequest();
  payload["subject_identities"][0] = {{"identity_type", "ios_advertising_id"}};
  payload["extensions"][kDomain] = Json::object();
  EXPECT_NO_THROW(checkErasureRequest(payload));
  EXPECT_NO_THROW(checkAppOfErasureRequest(payload, kKeys));
}

TEST(ErasureRules, EveryOtherMemberIsThereAndNoMore) {
  for (const char* name : {"subject_request_id", "subject_request_type", "api_version", "status_callback_urls",
                           "subject_identities", "extensions"}) {
    EXPECT_EQ(std::string(name) + " is missing", problemOf(without({name})));
  }
  EXPECT_EQ("api_version does not belong there", problemOf(without({"submitted_time"})));
  EXPECT_EQ("status_callback_urls does not belong there", problemOf(without({"submitted_time", "api_version"})));
  Json payload = erasureRequest();
  payload["puid"] = "x";
  EXPECT_EQ("puid does not belong there", problemOf(payload));
}

TEST(ErasureRules, EveryMemberHasItsTypeAndItsForm) {
  struct Row {
    const char* name;
    Json value;
    std::string problem;
  };
  const std::vector<Row> rows = {
      {"subject_request_id", 1, "is not a string"},
      {"subject_request_id", "3f2504e0-4f89-41d3-9a0c-0305e82c3301",
       "is not of the form XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX"},
      {"subject_request_id", "3F2504E0-4F89-41D3-9A0C-0305E82C330",
       "is not of the form XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX"},
      {"subject_request_type", "portability", "is not \"erasure\""},
      {"submitted_time", 1709251199999, "is not a string"},
      {"submitted_time", "20240229235959", "is not of the form 0000-00-00T00:00:00Z"},
      {"submitted_time", "2024-02-29T23:59:59.999Z", "is not of the form 0000-00-00T00:00:00Z"},
      {"api_version", "1", "is not \"1.0\""},
      {"status_callback_urls", Json::array(), "is not a string"},
      {"status_callback_urls", "x", "is not \"\""},
      {"subject_identities", Json::object(), "is not an array"},
      {"subject_identities", Json::array(), "does not hold exactly one entry"},
      {"subject_identities", Json::array({1, 2}), "does not hold exactly one entry"},
      {"extensions", "", "is not an object"},
  };
  for (const Row& row : rows) {
    Json payload = erasureRequest();
    payload[row.name] = row.value;
    EXPECT_EQ(std::string(row.name) + " " + row.problem, problemOf(payload));
  }
}

TEST(ErasureRules, TheIdentityIsAnAdvertisingIdentifier) {
  const auto problemWith = [](const Json& identity) {
    Json payload = erasureRequest();
    payload["subject_identities"][0] = identity;
    return problemOf(payload);
  };
  const Json good = erasureRequest()["subject_identities"][0];
  const std::string place = "subject_identities[0]";
  EXPECT_EQ(place + " is not an object", problemWith(1));
  Json identity = good;
  identity["identity_type"] = "puid";
  EXPECT_EQ(place + ".identity_type is not \"ios_advertising_id\"", problemWith(identity));
  identity = good;
  identity["identity_format"] = "sha256";
  EXPECT_EQ(place + ".identity_format is not \"raw\"", problemWith(identity));
  identity.erase("identity_format");
  EXPECT_EQ(place + ".identity_format is missing", problemWith(identity));
  identity = good;
  identity.erase("identity_value");
  EXPECT_EQ(place + ".identity_format does not belong there", problemWith(identity));
  EXPECT_EQ(place + ".identity_type is missing", problemWith(Json::object()));
}

TEST(ErasureRules, TheExtensionNamesTheAppAndNothingElse) {
  Json payload = erasureRequest();
  payload["extensions"][kDomain]["type"] = "modern";
  EXPECT_EQ("extensions.erasure.morvik.example.type is not \"classic\"", problemOf(payload));
  payload["extensions"][kDomain].erase("type");
  EXPECT_EQ("extensions.erasure.morvik.example.type is missing", problemOf(payload));
  payload["extensions"][kDomain] = 1;
  EXPECT_EQ("extensions.erasure.morvik.example is not an object", problemOf(payload));
  payload["extensions"] = Json::object();
  EXPECT_EQ("extensions.erasure.morvik.example is missing", problemOf(payload));
  payload = erasureRequest();
  payload["extensions"]["other.example"] = Json::object();
  EXPECT_EQ("extensions.other.example does not belong there", problemOf(payload));
}

TEST(ErasureRules, ARequestForAnotherAppIsRefused) {
  Json payload = erasureRequest();
  EXPECT_NO_THROW(checkAppOfErasureRequest(payload, kKeys));
  payload["extensions"][kDomain]["appkey"] = "app-2";
  EXPECT_EQ(403, refusalOf([&] { checkAppOfErasureRequest(payload, kKeys); }).status());
}

}  // namespace
}  // namespace morvik_service
