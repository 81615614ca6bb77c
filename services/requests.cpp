#include "services/requests.h"

#include "services/endpoints.h"

namespace morvik::services {

namespace {

MutableURLRequest posted(const MorvikADAFHTTPClient& client, std::string_view path, const kit::Value& parameters) {
  MutableURLRequest request = client.requestWithMethod("POST", path, parameters);
  request.setTimeoutInterval(static_cast<double>(kFendoHttpConnectionTimeoutSeconds));
  return request;
}

}  // namespace

MutableURLRequest postRequest(const std::string& base_url, std::string_view path, const kit::Value& parameters,
                              AcceptEncoding accept_encoding) {
  MutableURLRequest request = posted(MorvikADAFHTTPClient(base_url), path, parameters);
  if (accept_encoding == AcceptEncoding::kGzip)
    request.setValue("gzip", "Accept-Encoding");
  return request;
}

MutableURLRequest jsonPostRequest(const std::string& base_url, std::string_view path, const kit::Value& parameters) {
  MorvikADAFHTTPClient client(base_url);
  client.setParameterEncoding(AFJSONParameterEncoding);
  return posted(client, path, parameters);
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
