// Requests and answers in few words.
#pragma once

#include <string>

#include "kit/value.h"
#include "testing/simulated_service.h"

namespace morvik_device::scenario {

/// "tracking  2 events: session/start, shop/purchase": what a request says, without what every request says.
std::string requestText(const morvik::testing::ServedRequest& served);

/// The name under which an endpoint is spoken of; "?" for a request to none.
std::string endpointText(const morvik::testing::ServedRequest& served);

}  // namespace morvik_device::scenario
