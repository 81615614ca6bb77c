// Rules for the clicks that opened the app. Each function throws Refusal 400 that names the first member that is
// missing, of the wrong type or not known.
#pragma once

#include "apps/service/base/json.h"

namespace morvik_service {

/// Common parameters, and "deeplink_info" with exactly its five members.
void checkReEngagementPayload(const Json& payload);

/// "deeplink_info" with exactly its three members, if present.
void checkDeepLink(const Json& payload);

/// An array of records with exactly three members each; it may be empty.
void checkCommerceClicks(const Json& payload);

}  // namespace morvik_service
