#include "apps/service/wire/envelope.h"

#include <gtest/gtest.h>

#include "apps/service/base/base64url.h"
#include "tests/apps/service/samples.h"
#include "tests/apps/service/sealing.h"

namespace morvik_service {
namespace {

using test::deflated;
using test::envelopeBody;
using test::hexadecimalBody;
using test::kKeys;
using test::post;
using test::refusalOf;
using test::seal;
using test::toHex;

Refusal refusalOfBody(const std::string& body) {
  return refusalOf([&] { openEnvelope(post("/v1/tracking", body), kKeys, KeyChoice::kTrackingKey); });
}

std::string bodyWith(const std::string& plain) {
  return "k=app-1&j=" + encodeBase64Url(seal(plain, kKeys.tracking_key));
}

TEST(Envelope, GivesThePayloadOfEitherKey) {
  const Json payload = {{"a", 1}};
  EXPECT_EQ(payload, openEnvelope(post("/", envelopeBody(payload, "tracking-secret")), kKeys, KeyChoice::kTrackingKey));
  EXPECT_EQ(payload,
            openEnvelope(post("/", envelopeBody(payload, "hash-secrethash-secret")), kKeys, KeyChoice::kHashKeyTwice));
}

TEST(Envelope, RefusesTheWrongKey) {
  EXPECT_EQ(403, refusalOfBody(envelopeBody({{"a", 1}}, "hash-secrethash-secret")).status());
}

TEST(Envelope, RefusesAnotherAppsKey) {
  const Refusal refusal = refusalOfBody(envelopeBody({{"a", 1}}, "tracking-secret", "app-2"));
  EXPECT_EQ(403, refusal.status());
  EXPECT_EQ("form parameter k", refusal.where());
}

TEST(Envelope, NamesTheMissingParameter) {
  EXPECT_STREQ("form parameter k is missing", refusalOfBody("j=AQ").what());
  EXPECT_STREQ("form parameter j is missing", refusalOfBody("k=app-1").what());
}

TEST(Envelope, RefusesSealedTextThatIsNoBase64OrTooShort) {
  EXPECT_EQ(400, refusalOfBody("k=app-1&j=%3D%3D").status());
  EXPECT_STREQ("sealed bytes are truncated: 0 of at least 30", refusalOfBody("k=app-1&j=").what());
}

TEST(Envelope, RefusesAPayloadThatIsNoJsonObject) {
  EXPECT_EQ(400, refusalOfBody(bodyWith("no json")).status());
  EXPECT_STREQ("the payload is JSON but no object", refusalOfBody(bodyWith("[1]")).what());
}

TEST(Envelope, RefusesABodyOfAnotherType) {
  HttpRequest request = post("/v1/tracking", "k=app-1&j=AQ");
  request.headers = {{"Content-Type", "application/json"}};
  EXPECT_EQ(415, refusalOf([&] { openEnvelope(request, kKeys, KeyChoice::kTrackingKey); }).status());
}

Refusal refusalOfHexadecimal(const std::string& body) {
  return refusalOf([&] { openHexadecimalEnvelope(post("/v1/demographics", body), kKeys, KeyChoice::kTrackingKey); });
}

TEST(HexadecimalEnvelope, GivesThePayload) {
  const Json payload = {{"a", 1}};
  EXPECT_EQ(payload, openHexadecimalEnvelope(post("/", hexadecimalBody(payload)), kKeys, KeyChoice::kTrackingKey));
}

TEST(HexadecimalEnvelope, RefusesTheWrongKey) {
  EXPECT_EQ(403, refusalOfHexadecimal(hexadecimalBody({{"a", 1}}, "hash-secrethash-secret")).status());
}

TEST(HexadecimalEnvelope, RefusesWhatIsNoSealedJsonObjectInHexadecimal) {
  EXPECT_STREQ("form parameter j is missing", refusalOfHexadecimal("k=app-1").what());
  EXPECT_STREQ("bad hexadecimal: character 0 is not a lower-case digit", refusalOfHexadecimal("j=AQ").what());
  EXPECT_STREQ("sealed bytes are truncated: 1 of at least 30", refusalOfHexadecimal("j=01").what());
  EXPECT_STREQ("the payload is JSON but no object", refusalOfHexadecimal(hexadecimalBody(Json::array())).what());
  HttpRequest request = post("/", hexadecimalBody({{"a", 1}}));
  request.headers.clear();
  EXPECT_EQ(415, refusalOf([&] { openHexadecimalEnvelope(request, kKeys, KeyChoice::kTrackingKey); }).status());
}

TEST(HexadecimalEnvelope, RefusesADeflatedPayload) {
  const std::string sealed = seal(deflated("{}"), kKeys.tracking_key, {.flags = 1});
  EXPECT_STREQ("unknown sealing flags 1", refusalOfHexadecimal("j=" + toHex(sealed)).what());
}

TEST(Envelope, SaysWhenTheServiceHasNoTrackingKey) {
  const Keys keys{"app-1", "hash", ""};
  const Refusal refusal =
      refusalOf([&] { openEnvelope(post("/v1/tracking", "k=app-1&j=AQ"), keys, KeyChoice::kTrackingKey); });
  EXPECT_EQ(503, refusal.status());
  EXPECT_STREQ("the service was given no key for this endpoint", refusal.what());
  EXPECT_EQ(503, refusalOf([&] {
                   openHexadecimalEnvelope(post("/", hexadecimalBody({{"a", 1}})), keys, KeyChoice::kTrackingKey);
                 }).status());
}

}  // namespace
}  // namespace morvik_service
