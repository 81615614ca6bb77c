// How a request carries its payload, and how it is taken out.
#pragma once

#include <optional>

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"
#include "apps/service/http/http_message.h"

namespace morvik_service {

enum class PayloadForm {
  kEnvelope,     ///< form parameters k and j; j is a sealed JSON object in base64url
  kHexadecimal,  ///< form parameter j; a sealed JSON object in hexadecimal, never deflated
  kForm,         ///< form parameters, k among them; the payload is an object of their texts
  kJsonArray,    ///< the body is the JSON
  kJsonObject,
  kAppKeyInPath,  ///< no payload; the path begins with the app key
};

/// The payload of `request`; nothing when it has none. `key` opens sealed forms. Throws Refusal, with the status that
/// fits, for everything that is not of that form or for another app.
std::optional<Json> readPayload(const HttpRequest& request, PayloadForm form, const Keys& keys, KeyChoice key);

/// What a request without the payload that it needs is told to send.
const char* howToSend(PayloadForm form);

}  // namespace morvik_service
