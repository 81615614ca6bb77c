// What became of one event, as the verb "explain" and the inspection print it.
#pragma once

#include "kit/value.h"
#include "morvik/explanation.h"

namespace morvik_device {

/// As JSON:
/// {"event_id":…,"state":"delivered","recorded":"2024-05-01T12:00:00.25Z","exchanges":[{"begun":…,"left":…,"ended":…,
/// "endpoint":"v1/tracking","outcome":"accepted","http_status":200,"error":""}],"reason":"","sentence":…}. A time
/// that is not known is null. "state": "not an id", "unknown", "pending", "delivered", "given up" or "unclear".
morvik::kit::MutableDictionary fieldsOf(const morvik::Explanation& explanation);

}  // namespace morvik_device
