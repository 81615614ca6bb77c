#include "apps/service/checks/request_rules.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::kKeys;
using test::refusalOf;

HttpRequest declared(const std::string& type) {
  HttpRequest request;
  request.headers = {{"content-type", type}};
  return request;
}

TEST(RequestRules, ABodyThatWasTooLargeToKeepIsRefused) {
  HttpRequest request;
  EXPECT_NO_THROW(requireKeptBody(request));
  request.body_too_large = true;
  const Refusal refusal = refusalOf([&] { requireKeptBody(request); });
  EXPECT_EQ(413, refusal.status());
  EXPECT_STREQ("the body is larger than 16777216 bytes", refusal.what());
}

TEST(RequestRules, ABodyIsDeclaredAsWhatItIs) {
  EXPECT_NO_THROW(requireForm(declared("application/x-www-form-urlencoded; charset=utf-8")));
  EXPECT_NO_THROW(requireJson(declared("application/json; charset=utf-8")));
  EXPECT_NO_THROW(requireJson(declared("application/json")));
  for (const HttpRequest& request : {HttpRequest(), declared("text/plain"), declared("")}) {
    const Refusal form = refusalOf([&] { requireForm(request); });
    EXPECT_EQ(415, form.status());
    EXPECT_STREQ("the body is not declared as a form", form.what());
    EXPECT_EQ("header Content-Type", form.where());
    const Refusal json = refusalOf([&] { requireJson(request); });
    EXPECT_EQ(415, json.status());
    EXPECT_STREQ("the body is not declared as JSON", json.what());
  }
  EXPECT_THROW(requireJson(declared("application/x-www-form-urlencoded")), Refusal);
  EXPECT_THROW(requireForm(declared("application/json")), Refusal);
}

TEST(RequestRules, AMissingFieldIsNamedWithItsMeaning) {
  const FormFields fields = {{"k", "v"}};
  EXPECT_EQ("v", requireField(fields, "k", "the app key"));
  const Refusal refusal = refusalOf([&] { requireField(fields, "j", "the sealed payload"); });
  EXPECT_EQ(400, refusal.status());
  EXPECT_STREQ("form parameter j is missing", refusal.what());
  EXPECT_EQ("send j, the sealed payload", refusal.fix());
}

TEST(RequestRules, AnotherAppIsRefused) {
  EXPECT_NO_THROW(requireThisApp(kKeys.app_key, kKeys, "here"));
  const Refusal refusal = refusalOf([] { requireThisApp("app-2", kKeys, "here"); });
  EXPECT_EQ(403, refusal.status());
  EXPECT_STREQ("the app key is not this service's", refusal.what());
  EXPECT_EQ("here", refusal.where());
}

TEST(RequestRules, AServiceWithoutTheKeySaysSo) {
  EXPECT_EQ("tracking-secret", requireKeyText(kKeys, KeyChoice::kTrackingKey));
  const Refusal refusal = refusalOf([] { requireKeyText({"app-1", "hash", ""}, KeyChoice::kTrackingKey); });
  EXPECT_EQ(503, refusal.status());
  EXPECT_STREQ("the service was given no key for this endpoint", refusal.what());
}

}  // namespace
}  // namespace morvik_service
