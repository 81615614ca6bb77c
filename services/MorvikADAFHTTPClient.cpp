#include "services/MorvikADAFHTTPClient.h"

#include <algorithm>

#include "services/converters.h"
#include "services/describe.h"
#include "services/json_writer.h"
#include "services/property_list.h"
#include "services/text_codes.h"

namespace morvik::services {
namespace {

constexpr const char* kFormContentType = "application/x-www-form-urlencoded; charset=utf-8";
constexpr const char* kJsonContentType = "application/json; charset=utf-8";
constexpr const char* kPropertyListContentType = "application/x-plist; charset=utf-8";

bool sameName(std::string_view a, std::string_view b) {
  return inLowerCase(a) == inLowerCase(b);
}

/// A parameter as text; containers as JSON.
void appendParameter(const kit::Value& value, std::string& out) {
  if (value.isString()) {
    appendPercentEncoded(value.string(), out);
  } else if (value.isArray() || value.isDictionary()) {
    appendPercentEncoded(describe(value), out);
  } else {
    appendPercentEncoded(checkNilToBlankString(value).string(), out);
  }
}

bool areParameters(const kit::Value& value, AFHTTPClientParameterEncoding encoding) {
  if (encoding == AFFormURLParameterEncoding)
    return value.isDictionary() && value.size() > 0;
  return value.isArray() || value.isDictionary();
}

const char* contentTypeOf(AFHTTPClientParameterEncoding encoding) {
  switch (encoding) {
    case AFFormURLParameterEncoding:
      break;
    case AFJSONParameterEncoding:
      return kJsonContentType;
    case AFPropertyListParameterEncoding:
      return kPropertyListContentType;
  }
  return kFormContentType;
}

/// Empty where the parameters have no form in this encoding.
std::string bodyOf(const kit::Value& parameters, AFHTTPClientParameterEncoding encoding) {
  if (encoding == AFFormURLParameterEncoding)
    return formEncoded(parameters.dictionary());
  std::string body;
  const auto error = encoding == AFJSONParameterEncoding ? appendJson(parameters, body)  //
                                                         : appendPropertyList(parameters, body);
  return error ? std::string() : body;
}

}  // namespace

kit::HttpHeader* MutableURLRequest::find(std::string_view name) {
  const auto found = std::find_if(request_.headers.begin(), request_.headers.end(),
                                  [name](const kit::HttpHeader& header) { return sameName(header.name, name); });
  return found == request_.headers.end() ? nullptr : &*found;
}

void MutableURLRequest::setValue(std::string value, std::string_view http_header_field) {
  if (kit::HttpHeader* header = find(http_header_field)) {
    header->value = std::move(value);
  } else {
    request_.headers.push_back({std::string(http_header_field), std::move(value)});
  }
}

void MutableURLRequest::addValue(std::string_view value, std::string_view http_header_field) {
  if (kit::HttpHeader* header = find(http_header_field)) {
    header->value += ',';
    header->value += value;
  } else {
    request_.headers.push_back({std::string(http_header_field), std::string(value)});
  }
}

std::string formEncoded(const kit::Dictionary& parameters) {
  std::string text;
  size_t room = 0;
  for (const kit::Entry& entry : parameters)
    room += entry.key.string().size() + entry.value.string().size() + 2;
  text.reserve(room);
  for (const kit::Entry& entry : parameters) {
    if (!text.empty())
      text += '&';
    appendPercentEncoded(entry.key.string(), text);
    text += '=';
    appendParameter(entry.value, text);
  }
  return text;
}

MutableURLRequest MorvikADAFHTTPClient::requestWithMethod(std::string method, std::string_view path,
                                                          const kit::Value& parameters) const {
  std::string url = base_url_;
  url += path;
  const bool in_query = method == "GET";
  const bool has_parameters = areParameters(parameters, in_query ? AFFormURLParameterEncoding : encoding_);
  if (has_parameters && in_query)
    url += '?' + formEncoded(parameters.dictionary());
  MutableURLRequest request(std::move(url));
  request.setHTTPMethod(std::move(method));
  if (in_query || !has_parameters)
    return request;
  request.setValue(contentTypeOf(encoding_), "Content-Type");
  request.setHTTPBody(bodyOf(parameters, encoding_));
  return request;
}

}  // namespace morvik::services
