// Rules for the payloads of attribution and tracking. Each function throws Refusal 400 that names the first
// member that is missing or of the wrong type. Other members are allowed.
#pragma once

#include "apps/service/base/json.h"

namespace morvik_service {

/// The strings that every payload carries about app and device.
void checkCommonParameters(const Json& payload);

/// Common parameters, one entry of "activity_info", "searchads_response" (an object or ""), and a click's
/// "deeplink_info" if present.
void checkConversionPayload(const Json& payload);

/// The caller chooses the parameters of a third party conversion; only "deeplink_info" must be a click's.
void checkThirdPartyPayload(const Json& payload);

/// Common parameters, and "iAd" with its two dates, if present.
void checkIadPayload(const Json& payload);

/// Common parameters, the seven members of each activity, the six of each impression.
void checkTrackingPayload(const Json& payload);

}  // namespace morvik_service
