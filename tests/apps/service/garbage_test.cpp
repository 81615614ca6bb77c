// Garbage at every endpoint: each is clearly refused, and can be inspected afterwards.
#include <gtest/gtest.h>

#include "apps/service/base/base64url.h"
#include "apps/service/service.h"
#include "apps/service/wire/inflater.h"
#include "tests/apps/service/samples.h"
#include "tests/apps/service/sealing.h"

namespace morvik_service {
namespace {

using test::deflated;
using test::inspection;
using test::kKeys;
using test::post;
using test::postJson;
using test::seal;
using test::TemporaryFolder;
using test::toHex;

class GarbageTest : public testing::Test {
 protected:
  // Sends it and returns the status. The list and the details show the refusal.
  int refused(const HttpRequest& request) {
    const HttpReply reply = service_.handle(request);
    const Json newest = answer("/inspect/summaries", {{"limit", "1"}})["requests"][0];
    EXPECT_EQ(request.path, newest["path"]);
    EXPECT_TRUE(newest["refused"].is_string()) << request.path << " took " << request.body.substr(0, 80);
    const Json shown = answer("/inspect/request", {{"id", newest["id"].dump()}});
    EXPECT_EQ(newest["refused"], shown["rules"][0]["what"]);
    EXPECT_NE("", shown["rules"][0]["where"]);
    EXPECT_NE("", shown["rules"][0]["fix"]);
    EXPECT_EQ(false, shown["counted"]);
    EXPECT_EQ(reply.status, newest["status"]);
    return reply.status;
  }
  Json answer(const std::string& path, const NamedValues& query) {
    HttpRequest request = inspection("GET", path);
    request.query = query;
    return Json::parse(service_.handle(request).body);
  }

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Service service_{kKeys, AnswerData(), store_, [] { return std::int64_t{1709251199999}; }, [](const std::string&) {}};
};

bool isSealed(const Endpoint& endpoint) {
  return endpoint.form == PayloadForm::kEnvelope || endpoint.form == PayloadForm::kHexadecimal;
}

HttpRequest sealedRequest(const Endpoint& endpoint, const std::string& sealed) {
  const std::string body = endpoint.form == PayloadForm::kHexadecimal
                               ? "j=" + toHex(sealed)
                               : "k=" + kKeys.app_key + "&j=" + encodeBase64Url(sealed);
  return post(std::string(endpoint.path), body);
}

TEST_F(GarbageTest, BodiesThatAreNoneOfTheirFormAreRefused) {
  const std::string noise = std::string("\x00\x01\xff\xfe%%%&&&=", 11);
  for (const Endpoint& endpoint : endpoints()) {
    if (endpoint.method != "POST")
      continue;
    const std::string path(endpoint.path);
    for (const std::string& body : {noise, std::string("k"), std::string("k=app-1"), std::string("j=zz"),
                                    "k=" + kKeys.app_key + "&j=AQAA", "k=" + kKeys.app_key + "&j=***"})
      EXPECT_EQ(400, refused(post(path, body)) / 100 * 100) << path << " " << body;
    for (const std::string& body : {noise, std::string("{"), std::string("7"), std::string("[}"), std::string("null")})
      EXPECT_EQ(400, refused(postJson(path, body)) / 100 * 100) << path << " " << body;
  }
}

TEST_F(GarbageTest, APayloadOfAnotherKeyIsRefused) {
  for (const Endpoint& endpoint : endpoints()) {
    if (!isSealed(endpoint))
      continue;
    EXPECT_EQ(403, refused(sealedRequest(endpoint, seal("{}", "another key")))) << endpoint.path;
  }
}

TEST_F(GarbageTest, ATruncatedPayloadIsRefused) {
  for (const Endpoint& endpoint : endpoints()) {
    if (!isSealed(endpoint))
      continue;
    const std::string whole = seal("{\"a\":1}", keyText(kKeys, endpoint.key));
    for (const std::size_t bytes : {std::size_t{1}, std::size_t{29}, whole.size() - 1}) {
      const int status = refused(sealedRequest(endpoint, whole.substr(0, bytes)));
      EXPECT_EQ(400, status / 100 * 100) << endpoint.path << " " << bytes;
    }
  }
}

TEST_F(GarbageTest, WhatIsSealedRightlyMustStillBeAPayload) {
  for (const Endpoint& endpoint : endpoints()) {
    if (!isSealed(endpoint))
      continue;
    for (const char* content : {"", "7", "[]", "{", "\xff", "{\"deeplink_info\":7,\"user_demo_info\":7}"})
      EXPECT_EQ(400, refused(sealedRequest(endpoint, seal(content, keyText(kKeys, endpoint.key)))))
          << endpoint.path << " " << content;
  }
}

TEST_F(GarbageTest, ABombIsPutOutBeforeItFillsTheMemory) {
  const std::string bomb = deflated(std::string(kMaxInflatedBytes + 1, '['));
  ASSERT_LT(bomb.size(), kMaxInflatedBytes / 500);
  for (const Endpoint& endpoint : endpoints()) {
    if (endpoint.form != PayloadForm::kEnvelope)
      continue;
    EXPECT_EQ(413, refused(sealedRequest(endpoint, seal(bomb, keyText(kKeys, endpoint.key), {.flags = 1}))))
        << endpoint.path;
  }
}

TEST_F(GarbageTest, StreamsThatAreBrokenAreRefused) {
  const std::string stream = deflated("{\"a\":1}");
  for (const Endpoint& endpoint : endpoints()) {
    if (endpoint.form != PayloadForm::kEnvelope)
      continue;
    for (const std::string& content : {stream.substr(0, stream.size() - 1), stream + "x", std::string("no stream")})
      EXPECT_EQ(400, refused(sealedRequest(endpoint, seal(content, keyText(kKeys, endpoint.key), {.flags = 1}))))
          << endpoint.path;
  }
}

TEST_F(GarbageTest, ARecordOfTheWrongShapeIsRefusedInTheEndpointsOwnWay) {
  EXPECT_EQ(200, refused(postJson("/v1/commerce-conversion", "[7]")));
  EXPECT_EQ(400, refused(postJson("/v1/crash", "[7]")));
  EXPECT_EQ(400, refused(postJson("/v1/erasure", "{}")));
}

TEST_F(GarbageTest, ConfigurationsOfOtherAppsAndStrangePathsAreRefused) {
  EXPECT_EQ(403, refused(test::get("/other/config.json")));
  EXPECT_EQ(404, refused(test::get("/%00/../odd")));
  EXPECT_EQ(405, refused(test::get("/v1/tracking")));
}

}  // namespace
}  // namespace morvik_service
