#include "apps/service/answers/endpoints.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

constexpr KeyChoice kNoMatter = KeyChoice::kHashKeyTwice;

TEST(Endpoints, EachPathHasItsFormItsKeyAndItsRules) {
  struct Row {
    const char* method;
    const char* path;
    const char* name;
    PayloadForm form;
    KeyChoice key;
    bool payload_required;
    Counting counting;
  };
  const std::vector<Row> expected = {
      {"POST", "/v1/conversion", "conversion", PayloadForm::kEnvelope, KeyChoice::kHashKeyTwice, false,
       Counting::kNothing},
      {"POST", "/v1/thirdparty-conversion", "thirdparty-conversion", PayloadForm::kEnvelope, KeyChoice::kHashKeyTwice,
       false, Counting::kNothing},
      {"POST", "/v1/iad-attribution", "iad-attribution", PayloadForm::kEnvelope, KeyChoice::kHashKeyTwice, false,
       Counting::kNothing},
      {"POST", "/v1/tracking", "tracking", PayloadForm::kEnvelope, KeyChoice::kTrackingKey, true, Counting::kEvents},
      {"POST", "/v1/reengagement-conversion", "reengagement-conversion", PayloadForm::kEnvelope,
       KeyChoice::kHashKeyTwice, true, Counting::kPayload},
      {"POST", "/v1/commerce-conversion", "commerce-conversion", PayloadForm::kJsonArray, kNoMatter, true,
       Counting::kPayload},
      {"GET", "/some-app/config.json", "configuration", PayloadForm::kAppKeyInPath, kNoMatter, false,
       Counting::kNothing},
      {"POST", "/v1/crash", "crash", PayloadForm::kJsonArray, kNoMatter, true, Counting::kPayload},
      {"POST", "/v1/demographics", "demographics", PayloadForm::kHexadecimal, KeyChoice::kTrackingKey, true,
       Counting::kPayload},
      {"POST", "/v2/schedule", "schedule", PayloadForm::kForm, kNoMatter, true, Counting::kNothing},
      {"POST", "/v1/erasure", "erasure", PayloadForm::kJsonObject, kNoMatter, true, Counting::kPayload},
  };
  ASSERT_EQ(expected.size(), endpoints().size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Row& row = expected[i];
    const Endpoint* endpoint = findEndpoint(row.path);
    ASSERT_EQ(&endpoints()[i], endpoint) << row.path;
    EXPECT_EQ(row.method, endpoint->method);
    EXPECT_EQ(row.name, endpoint->name);
    EXPECT_EQ(row.form, endpoint->form) << row.path;
    EXPECT_EQ(row.key, endpoint->key) << row.path;
    EXPECT_EQ(row.payload_required, endpoint->payload_required) << row.path;
    EXPECT_EQ(row.counting, endpoint->counting) << row.path;
  }
}

TEST(Endpoints, EveryEndpointCanAnswerAndChecksThePayloadThatItMayHave) {
  for (const Endpoint& endpoint : endpoints()) {
    EXPECT_NE(endpoint.answer != nullptr, endpoint.fixed_answer.isSet()) << endpoint.name;
    const bool checks = endpoint.check != nullptr || !endpoint.required_texts[0].empty();
    EXPECT_EQ(endpoint.form != PayloadForm::kAppKeyInPath, checks) << endpoint.name;
  }
}

TEST(Endpoints, AFormHasTheTextsOfItsRow) {
  const Json good = {{"k", "app-1"}, {"language", "ko"}, {"checksum", "init"}};
  const Endpoint& schedule = *findEndpoint("/v2/schedule");
  EXPECT_NO_THROW(checkPayload(schedule, good, test::kKeys));
  for (const auto& [name, value] : good.items()) {
    Json payload = good;
    payload.erase(name);
    const Refusal refusal = test::refusalOf([&] { checkPayload(schedule, payload, test::kKeys); });
    EXPECT_EQ(name + " is missing", refusal.what());
  }
}

TEST(Endpoints, PathsAreExact) {
  for (const char* path :
       {"", "/", "/v1", "v1/tracking", "/v1/tracking/", "/base/v1/tracking", "/V1/tracking", "/config.json",
        "//config.json", "some-app/config.json", "/some-app/config.json/", "/some-app/config.JSON"}) {
    EXPECT_EQ(nullptr, findEndpoint(path)) << path;
  }
}

TEST(Endpoints, NamesAreThoseOfTheTable) {
  EXPECT_EQ((std::vector<std::string>{"conversion", "thirdparty-conversion", "iad-attribution", "tracking",
                                      "reengagement-conversion", "commerce-conversion", "configuration", "crash",
                                      "demographics", "schedule", "erasure"}),
            endpointNames());
}

}  // namespace
}  // namespace morvik_service
