// Rules for a user's request to be forgotten.
#pragma once

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"

namespace morvik_service {

/// The members of an erasure request, no others, with the texts that are fixed. What a device may not know ends the
/// list that it would stand in: time of submission, advertising identifier, app key. Throws Refusal 400 that names the
/// first member that does not fit.
void checkErasureRequest(const Json& payload);

/// The request is about this service's app, where it says so. Throws Refusal 403 otherwise. The payload was checked.
void checkAppOfErasureRequest(const Json& payload, const Keys& keys);

}  // namespace morvik_service
