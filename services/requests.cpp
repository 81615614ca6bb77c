#include "services/requests.h"

namespace morvik::services {

namespace {

MorvikADAFHTTPClient clientOf(const kit::Endpoints& base_urls, Endpoint endpoint) {
  return MorvikADAFHTTPClient(base_urls.*rowOf(endpoint).base_url);
}

MutableURLRequest posted(const MorvikADAFHTTPClient& client, Endpoint endpoint, const kit::Value& parameters) {
  MutableURLRequest request = client.requestWithMethod("POST", rowOf(endpoint).path, parameters);
  request.setTimeoutInterval(static_cast<double>(kFendoHttpConnectionTimeoutSeconds));
  return request;
}

}  // namespace

MutableURLRequest postRequest(const kit::Endpoints& base_urls, Endpoint endpoint, const kit::Value& parameters,
                              AcceptEncoding accept_encoding) {
  MutableURLRequest request = posted(clientOf(base_urls, endpoint), endpoint, parameters);
  if (accept_encoding == AcceptEncoding::kGzip)
    request.setValue("gzip", "Accept-Encoding");
  return request;
}

MutableURLRequest jsonPostRequest(const kit::Endpoints& base_urls, Endpoint endpoint, const kit::Value& parameters) {
  MorvikADAFHTTPClient client = clientOf(base_urls, endpoint);
  client.setParameterEncoding(AFJSONParameterEncoding);
  return posted(client, endpoint, parameters);
}

bool run(const RequestTools& tools, MutableURLRequest request, JsonHandler success, FailureHandler failure,
         Waiting waiting) {
  return MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(
             tools, std::move(request),
             [success = std::move(success)](const kit::Request&, const kit::Response&, const kit::Value& json) {
               success(json);
             },
             std::move(failure), std::move(waiting))
      .start();
}

bool run(const RequestTools& tools, MutableURLRequest request, JsonHandler success, ErrorHandler failure,
         Waiting waiting) {
  return run(tools, std::move(request), std::move(success),
             FailureHandler([failure = std::move(failure)](
                                const kit::Request&, const std::optional<kit::Response>& response,
                                const kit::Error& error, const kit::Value&) { failure(response, error); }),
             std::move(waiting));
}

}  // namespace morvik::services
