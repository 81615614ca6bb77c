#include "apps/service/wire/envelope.h"

#include "apps/service/base/base64url.h"
#include "apps/service/base/hexadecimal.h"
#include "apps/service/base/refusal.h"
#include "apps/service/checks/request_rules.h"
#include "apps/service/http/form.h"
#include "apps/service/wire/sealed.h"

namespace morvik_service {
namespace {

Json parsePayload(const std::string& plain) {
  Json payload = parseJson(plain, "the sealed payload");
  if (!payload.is_object()) {
    throw Refusal(400, "the payload is JSON but no object", "the sealed payload", "seal a JSON object");
  }
  return payload;
}

}  // namespace

Json openEnvelope(const HttpRequest& request, const Keys& keys, KeyChoice choice) {
  requireForm(request);
  const FormFields fields = parseForm(request.body);
  requireThisApp(requireField(fields, "k", "the app key"), keys, "form parameter k");
  const std::string key_text = requireKeyText(keys, choice);
  return parsePayload(openSealed(decodeBase64Url(requireField(fields, "j", "the sealed payload")), key_text));
}

Json openHexadecimalEnvelope(const HttpRequest& request, const Keys& keys, KeyChoice choice) {
  requireForm(request);
  const FormFields fields = parseForm(request.body);
  const std::string key_text = requireKeyText(keys, choice);
  constexpr std::uint8_t kNoFlags = 0;
  return parsePayload(
      openSealed(decodeHexadecimal(requireField(fields, "j", "the sealed payload")), key_text, kNoFlags));
}

}  // namespace morvik_service
