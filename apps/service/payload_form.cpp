#include "apps/service/payload_form.h"

#include "apps/service/envelope.h"
#include "apps/service/refusal.h"
#include "apps/service/request_rules.h"

namespace morvik_service {
namespace {

Json readJson(const HttpRequest& request) {
  requireJson(request);
  return parseJson(request.body, kWhereBody);
}

Json readJsonArray(const HttpRequest& request) {
  Json payload = readJson(request);
  if (!payload.is_array())
    throw Refusal(400, "the body is JSON but no array", kWhereBody, "send a JSON array");
  return payload;
}

void requireAppKeyInPath(const HttpRequest& request, const Keys& keys) {
  const std::string_view path = request.path;
  requireThisApp(path.substr(1, path.rfind('/') - 1), keys, "the path");
}

}  // namespace

std::optional<Json> readPayload(const HttpRequest& request, PayloadForm form, const Keys& keys, KeyChoice key) {
  requireKeptBody(request);
  if (form == PayloadForm::kAppKeyInPath) {
    requireAppKeyInPath(request, keys);
    return std::nullopt;
  }
  if (request.body.empty())
    return std::nullopt;
  if (form == PayloadForm::kJsonArray)
    return readJsonArray(request);
  return openEnvelope(request, keys, key);
}

const char* howToSend(PayloadForm form) {
  switch (form) {
    case PayloadForm::kEnvelope:
      return "send the form parameters k and j";
    case PayloadForm::kJsonArray:
      return "send a JSON array";
    case PayloadForm::kAppKeyInPath:
      break;
  }
  return "name the app in the path";
}

}  // namespace morvik_service
