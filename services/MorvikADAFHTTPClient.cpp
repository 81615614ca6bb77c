#include "services/MorvikADAFHTTPClient.h"

#include <algorithm>

#include "services/converters.h"
#include "services/describe.h"
#include "services/json_writer.h"
#include "services/text_codes.h"

namespace morvik::services {
namespace {

constexpr const char* kFormContentType = "application/x-www-form-urlencoded; charset=utf-8";
constexpr const char* kJsonContentType = "application/json; charset=utf-8";

bool sameName(std::string_view a, std::string_view b) {
  return inLowerCase(a) == inLowerCase(b);
}

/// A parameter as the text that stands for it; containers as JSON.
void appendParameter(const kit::Value& value, std::string& out) {
  if (value.isString()) {
    appendPercentEncoded(value.string(), out);
  } else if (value.isArray() || value.isDictionary()) {
    appendPercentEncoded(describe(value), out);
  } else {
    appendPercentEncoded(checkNilToBlankString(value).string(), out);
  }
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
  const bool as_json = encoding_ == AFJSONParameterEncoding && !in_query;
  const bool has_parameters =
      as_json ? parameters.isArray() || parameters.isDictionary() : parameters.isDictionary() && parameters.size() > 0;
  if (has_parameters && in_query)
    url += '?' + formEncoded(parameters.dictionary());
  MutableURLRequest request(std::move(url));
  request.setHTTPMethod(std::move(method));
  if (in_query || !has_parameters)
    return request;
  request.setValue(as_json ? kJsonContentType : kFormContentType, "Content-Type");
  if (!as_json) {
    request.setHTTPBody(formEncoded(parameters.dictionary()));
    return request;
  }
  std::string json;
  if (!appendJson(parameters, json))
    request.setHTTPBody(std::move(json));
  return request;
}

}  // namespace morvik::services
