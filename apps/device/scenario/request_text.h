// Requests and answers in few words.
#pragma once

#include <string>

#include "kit/value.h"
#include "testing/simulated_service.h"

namespace morvik_device::scenario {

/// "tracking  2 events: session/start, shop/purchase": the content of a request, without what all requests have.
std::string requestText(const morvik::testing::ServedRequest& served);

/// The name of the endpoint; "?" if there is none.
std::string endpointText(const morvik::testing::ServedRequest& served);

}  // namespace morvik_device::scenario
