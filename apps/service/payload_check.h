// What a payload must hold, endpoint by endpoint. Each check throws Refusal 400 that names the first member that is
// missing or of the wrong type, by its path ("activity_info[3].event_id"). Members nobody asked for are welcome.
#pragma once

#include "apps/service/json.h"

namespace morvik_service {

/// The strings that every payload carries about app and device.
void checkCommonParameters(const Json& payload);

/// Common parameters, one entry of "activity_info", and "searchads_response" (an object or "").
void checkConversionPayload(const Json& payload);

/// The parameters of a third party conversion are the caller's own: any object will do.
void checkThirdPartyPayload(const Json& payload);

/// Common parameters, and "iAd" with its two dates when it is there.
void checkIadPayload(const Json& payload);

/// Common parameters, the seven members of each activity, the six of each impression.
void checkTrackingPayload(const Json& payload);

}  // namespace morvik_service
