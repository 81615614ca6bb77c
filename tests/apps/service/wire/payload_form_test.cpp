#include "apps/service/wire/payload_form.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::envelopeBody;
using test::get;
using test::hexadecimalBody;
using test::kKeys;
using test::post;
using test::postJson;
using test::refusalOf;

constexpr std::initializer_list<PayloadForm> kFormsWithBody = {PayloadForm::kEnvelope, PayloadForm::kHexadecimal,
                                                               PayloadForm::kForm, PayloadForm::kJsonArray,
                                                               PayloadForm::kJsonObject};

std::optional<Json> read(const HttpRequest& request, PayloadForm form) {
  return readPayload(request, form, kKeys, KeyChoice::kTrackingKey);
}

Refusal refused(const HttpRequest& request, PayloadForm form) {
  return refusalOf([&] { read(request, form); });
}

TEST(PayloadForm, AnEmptyBodyCarriesNothing) {
  HttpRequest request = post("/", "");
  request.headers.clear();
  for (const PayloadForm form : kFormsWithBody)
    EXPECT_EQ(std::nullopt, read(request, form));
}

TEST(PayloadForm, ABodyThatWasTooLargeToKeepIsRefused) {
  HttpRequest request = post("/", "");
  request.body_too_large = true;
  for (const PayloadForm form : kFormsWithBody)
    EXPECT_EQ(413, refused(request, form).status());
}

TEST(PayloadForm, AnEnvelopeIsOpened) {
  EXPECT_EQ(Json({{"a", 1}}), read(post("/", envelopeBody({{"a", 1}}, "tracking-secret")), PayloadForm::kEnvelope));
}

TEST(PayloadForm, AJsonArrayIsTheBodyItself) {
  EXPECT_EQ(Json::parse("[1,{}]"), read(postJson("/", "[1,{}]"), PayloadForm::kJsonArray));
  EXPECT_STREQ("the body is JSON but no array", refused(postJson("/", "{}"), PayloadForm::kJsonArray).what());
  const Refusal garbage = refused(postJson("/", "[1"), PayloadForm::kJsonArray);
  EXPECT_EQ(400, garbage.status());
  EXPECT_EQ("the request body", garbage.where());
  EXPECT_EQ(415, refused(post("/", "[1]"), PayloadForm::kJsonArray).status());
}

TEST(PayloadForm, AJsonObjectIsTheBodyItself) {
  EXPECT_EQ(Json({{"a", 1}}), read(postJson("/", "{\n  \"a\" : 1\n}"), PayloadForm::kJsonObject));
  EXPECT_STREQ("the body is JSON but no object", refused(postJson("/", "[]"), PayloadForm::kJsonObject).what());
  EXPECT_EQ(400, refused(postJson("/", "{"), PayloadForm::kJsonObject).status());
  EXPECT_EQ(415, refused(post("/", "{}"), PayloadForm::kJsonObject).status());
}

TEST(PayloadForm, AHexadecimalFormIsOpened) {
  EXPECT_EQ(Json({{"a", 1}}), read(post("/", hexadecimalBody({{"a", 1}})), PayloadForm::kHexadecimal));
}

TEST(PayloadForm, AFormsParametersAreThePayload) {
  EXPECT_EQ(Json({{"k", "app-1"}, {"language", "k o"}}), read(post("/", "k=app-1&language=k+o"), PayloadForm::kForm));
  EXPECT_STREQ("form parameter k is missing", refused(post("/", "language=ko"), PayloadForm::kForm).what());
  EXPECT_EQ(403, refused(post("/", "k=app-2&language=ko"), PayloadForm::kForm).status());
  EXPECT_EQ(400, refused(post("/", "nonsense"), PayloadForm::kForm).status());
  EXPECT_EQ(415, refused(postJson("/", "k=app-1"), PayloadForm::kForm).status());
}

TEST(PayloadForm, WhoeverSendsNothingIsToldWhatToSend) {
  std::set<std::string> told;
  for (const PayloadForm form : kFormsWithBody)
    told.insert(howToSend(form));
  EXPECT_EQ(5U, told.size());
}

TEST(PayloadForm, APathMayNameTheApp) {
  EXPECT_EQ(std::nullopt, read(get("/app-1/config.json"), PayloadForm::kAppKeyInPath));
  for (const char* path : {"/app-2/config.json", "/app-1/app-1/config.json", "//config.json", "/app-1//config.json"}) {
    const Refusal refusal = refused(get(path), PayloadForm::kAppKeyInPath);
    EXPECT_EQ(403, refusal.status()) << path;
    EXPECT_EQ("the path", refusal.where());
  }
}

TEST(PayloadForm, AnAppKeyMayHoldASlash) {
  const Keys keys{"team/app", "hash", ""};
  EXPECT_EQ(std::nullopt, readPayload(get("/team/app/config.json"), PayloadForm::kAppKeyInPath, keys, {}));
}

}  // namespace
}  // namespace morvik_service
