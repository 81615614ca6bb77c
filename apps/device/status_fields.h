// The state of the kit, as the verb prints it.
#pragma once

#include "kit/value.h"
#include "morvik/status.h"

namespace morvik_device {

/// {"running":true,"session_open":true,"attributed":true,"referral":{"conversion_key":7,"sub_conversion_key":12,
/// "campaign_data":"","install_datetime":"20240501120000"},"waiting":{"activities":2,…},
/// "last_success":"2024-05-01T12:00:00Z","last_failure":{"when":…,"http_status":500,"reason":…,"tried_again":true},
/// "sending":true,"forgotten":false}. Missing values are null.
morvik::kit::MutableDictionary fieldsOf(const morvik::Status& status);

}  // namespace morvik_device
