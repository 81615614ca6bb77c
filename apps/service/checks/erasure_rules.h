// Rules for a user's request to be forgotten.
#pragma once

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"

namespace morvik_service {

/// Exactly the members of an erasure request, with the fixed texts. A value that a device may not know ends its list:
/// time of submission, advertising identifier, app key. Throws Refusal 400 that names the
/// first member that does not fit.
void checkErasureRequest(const Json& payload);

/// Throws Refusal 403 if the request names another app. The payload was checked.
void checkAppOfErasureRequest(const Json& payload, const Keys& keys);

}  // namespace morvik_service
