#include "apps/service/envelope.h"

#include "apps/service/base64url.h"
#include "apps/service/form.h"
#include "apps/service/refusal.h"
#include "apps/service/sealed.h"

namespace morvik_service {
namespace {

constexpr std::string_view kFormType = "application/x-www-form-urlencoded";
constexpr const char* kWhereBody = "the request body";

void requireFormType(const HttpRequest& request) {
  const std::string* type = findHeader(request, "Content-Type");
  if (type == nullptr || type->rfind(kFormType, 0) != 0) {
    throw Refusal(415, "the body is not declared as a form", "header Content-Type",
                  "send \"application/x-www-form-urlencoded; charset=utf-8\"");
  }
}

const std::string& requireField(const FormFields& fields, std::string_view name, const char* meaning) {
  const std::string* value = findField(fields, name);
  if (value == nullptr) {
    throw Refusal(400, "form parameter " + std::string(name) + " is missing", kWhereBody,
                  "send k (the app key) and j (the sealed payload); " + std::string(name) + " is " + meaning);
  }
  return *value;
}

void requireThisApp(const std::string& app_key, const Keys& keys) {
  if (app_key != keys.app_key) {
    throw Refusal(403, "the app key is not this service's", "form parameter k",
                  "give the device and the service the same app key");
  }
}

}  // namespace

std::optional<Json> openEnvelope(const HttpRequest& request, const Keys& keys, KeyChoice choice) {
  if (request.body_too_large) {
    throw Refusal(413, "the body is larger than " + std::to_string(kMaxBodyBytes) + " bytes", kWhereBody,
                  "send smaller batches");
  }
  if (request.body.empty())
    return std::nullopt;
  requireFormType(request);
  const FormFields fields = parseForm(request.body);
  requireThisApp(requireField(fields, "k", "the app key"), keys);
  const std::string key_text = keyText(keys, choice);
  if (key_text.empty()) {
    throw Refusal(503, "the service was given no key for this endpoint", "the service's options",
                  "start the service with --tracking-key or a keys file");
  }
  const std::string plain = openSealed(decodeBase64Url(requireField(fields, "j", "the sealed payload")), key_text);
  Json payload = parseJson(plain, "the sealed payload");
  if (!payload.is_object()) {
    throw Refusal(400, "the payload is JSON but no object", "the sealed payload", "seal a JSON object");
  }
  return payload;
}

}  // namespace morvik_service
