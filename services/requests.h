// The one way to build and run the core's requests.
#pragma once

#include <functional>
#include <optional>

#include "services/MorvikADAFJSONRequestOperation.h"
#include "services/endpoints.h"

namespace morvik::services {

/// Whether the request carries the header "Accept-Encoding" with the value "gzip".
enum class AcceptEncoding { kGzip, kUnset };

/// A form-encoded "POST" to the endpoint, with the time-out kFendoHttpConnectionTimeoutSeconds. Absent parameters give
/// an empty body.
MutableURLRequest postRequest(const kit::Endpoints& base_urls, Endpoint endpoint, const kit::Value& parameters,
                              AcceptEncoding accept_encoding);

/// The same request with the parameters as JSON text: a dictionary or an array, also an empty one.
MutableURLRequest jsonPostRequest(const kit::Endpoints& base_urls, Endpoint endpoint, const kit::Value& parameters);

/// What most handlers need from an answer.
using JsonHandler = std::function<void(const kit::Value& json)>;
/// What most handlers need from a failure.
using ErrorHandler = std::function<void(const std::optional<kit::Response>& response, const kit::Error& error)>;

/// Makes the standard operation of `request` and starts it. True: exactly one handler runs, once, later, on the main
/// queue (that of `waiting`, if the gate closes before the request leaves). False: the gate is closed, and nothing
/// happens.
bool run(const RequestTools& tools, MutableURLRequest request, JsonHandler success, FailureHandler failure,
         Waiting waiting = {});
/// The same, for handlers that need only response and error.
bool run(const RequestTools& tools, MutableURLRequest request, JsonHandler success, ErrorHandler failure,
         Waiting waiting = {});

}  // namespace morvik::services
