// From a form body to the payload that was sealed in it.
#pragma once

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"
#include "apps/service/http/http_message.h"

namespace morvik_service {

/// Opens the envelope of `request` (form parameters k and j) and returns its payload, a JSON object. Throws Refusal,
/// with the status that fits, for everything that is not a payload sealed for this app with the chosen key.
Json openEnvelope(const HttpRequest& request, const Keys& keys, KeyChoice choice);

/// The same for a form whose only parameter is j, in lower-case hexadecimal and never deflated: only the key
/// identifies its app.
Json openHexadecimalEnvelope(const HttpRequest& request, const Keys& keys, KeyChoice choice);

}  // namespace morvik_service
