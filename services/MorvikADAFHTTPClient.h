// Builds the requests of one base URL.
#pragma once

#include <string>
#include <string_view>

#include "kit/json_codec.h"
#include "kit/transport.h"

namespace morvik::services {

enum AFHTTPClientParameterEncoding {
  AFFormURLParameterEncoding = 0,
  AFJSONParameterEncoding = 1,
  AFPropertyListParameterEncoding = 2,
};

/// The platform's mutable URL request. Header names are case-insensitive; their spelling is kept as given.
class MutableURLRequest {
 public:
  MutableURLRequest() = default;
  explicit MutableURLRequest(std::string url) { request_.url = std::move(url); }

  /// Replaces the header of that name.
  void setValue(std::string value, std::string_view http_header_field);
  /// Appends to the header of that name, after a comma; sets it when there is none.
  void addValue(std::string_view value, std::string_view http_header_field);
  void setHTTPMethod(std::string method) { request_.method = std::move(method); }
  void setHTTPBody(std::string body) { request_.body = std::move(body); }
  void setTimeoutInterval(double timeout_seconds) { request_.timeout_seconds = timeout_seconds; }
  const std::string& absoluteString() const { return request_.url; }
  const kit::Request& request() const& { return request_; }
  kit::Request request() && { return std::move(request_); }

 private:
  kit::HttpHeader* find(std::string_view name);
  kit::Request request_;
};

/// One client for one base URL; made for a request and not kept. Any thread; nothing blocks.
class MorvikADAFHTTPClient {
 public:
  /// `base_url` ends with a slash.
  explicit MorvikADAFHTTPClient(std::string base_url) : base_url_(std::move(base_url)) {}

  /// How parameters become a body; form-encoded unless set.
  void setParameterEncoding(AFHTTPClientParameterEncoding encoding) { encoding_ = encoding; }

  /// A request for base URL and path. `parameters` is a dictionary (or, where it is not form-encoded, an array);
  /// anything else, and an empty dictionary with form encoding, counts as no parameters: an empty body without content
  /// type. "GET" carries them in the query string, form-encoded whatever the encoding, every other method in the body,
  /// with the content type of the encoding. Values that have no JSON or property list form make the body empty.
  MutableURLRequest requestWithMethod(std::string method, std::string_view path, const kit::Value& parameters) const;

 private:
  std::string base_url_;
  AFHTTPClientParameterEncoding encoding_ = AFFormURLParameterEncoding;
};

/// "key=value" pairs joined by "&", both percent-encoded, in the dictionary's order.
std::string formEncoded(const kit::Dictionary& parameters);

}  // namespace morvik::services
