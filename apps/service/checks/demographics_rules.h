// Rules for demographics.
#pragma once

#include "apps/service/base/json.h"

namespace morvik_service {

/// "puid" and the entries of "user_demo_info", each with exactly its two members; or nothing at all, which a device
/// without a hashed persistent id sends. Throws Refusal 400 that names the first member that is missing, of the wrong
/// type or not known.
void checkDemographicsPayload(const Json& payload);

}  // namespace morvik_service
