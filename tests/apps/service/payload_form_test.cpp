#include "apps/service/payload_form.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::envelopeBody;
using test::get;
using test::kKeys;
using test::post;
using test::postJson;
using test::refusalOf;

constexpr std::initializer_list<PayloadForm> kFormsWithBody = {PayloadForm::kEnvelope, PayloadForm::kJsonArray};

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
