// How a request carries its payload, and how it is extracted.
#pragma once

#include <optional>

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"
#include "apps/service/http/http_message.h"
#include "testing/service_endpoint.h"

namespace morvik_service {

using morvik::testing::PayloadForm;

/// The payload of `request`; nothing when it has none. `key` opens sealed forms. Throws Refusal, with the status that
/// fits, for everything that is not of that form or for another app.
std::optional<Json> readPayload(const HttpRequest& request, PayloadForm form, const Keys& keys, KeyChoice key);

/// What to send, for a request that lacks its payload.
const char* howToSend(PayloadForm form);

}  // namespace morvik_service
