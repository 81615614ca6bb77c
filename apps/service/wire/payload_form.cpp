#include "apps/service/wire/payload_form.h"

#include "apps/service/base/refusal.h"
#include "apps/service/checks/request_rules.h"
#include "apps/service/wire/envelope.h"

namespace morvik_service {
namespace {

Json readForm(const HttpRequest& request, const Keys& keys) {
  requireForm(request);
  const FormFields fields = parseForm(request.body);
  requireThisApp(requireField(fields, "k", "the app key"), keys, "form parameter k");
  Json payload = Json::object();
  for (const auto& [name, value] : fields)
    payload[name] = value;
  return payload;
}

Json readJson(const HttpRequest& request) {
  requireJson(request);
  return parseJson(request.body, kWhereBody);
}

Json readJsonArray(const HttpRequest& request) {
  Json payload = readJson(request);
  if (!payload.is_array())
    throw Refusal(400, "the body is JSON but no array", kWhereBody, howToSend(PayloadForm::kJsonArray));
  return payload;
}

Json readJsonObject(const HttpRequest& request) {
  Json payload = readJson(request);
  if (!payload.is_object())
    throw Refusal(400, "the body is JSON but no object", kWhereBody, howToSend(PayloadForm::kJsonObject));
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
  switch (form) {
    case PayloadForm::kHexadecimal:
      return openHexadecimalEnvelope(request, keys, key);
    case PayloadForm::kForm:
      return readForm(request, keys);
    case PayloadForm::kJsonArray:
      return readJsonArray(request);
    case PayloadForm::kJsonObject:
      return readJsonObject(request);
    default:
      return openEnvelope(request, keys, key);
  }
}

const char* howToSend(PayloadForm form) {
  switch (form) {
    case PayloadForm::kEnvelope:
      return "send the form parameters k and j";
    case PayloadForm::kHexadecimal:
      return "send the form parameter j";
    case PayloadForm::kForm:
      return "send the form parameters that the protocol lists";
    case PayloadForm::kJsonArray:
      return "send a JSON array";
    case PayloadForm::kJsonObject:
      return "send a JSON object";
    case PayloadForm::kAppKeyInPath:
      break;
  }
  return "name the app in the path";
}

}  // namespace morvik_service
