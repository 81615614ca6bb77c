#include "host/net/header_list.h"

#include <algorithm>
#include <array>
#include <new>
#include <string>
#include <string_view>

#include "services/url_query.h"

namespace morvik::host {

using kit::Error;
using kit::HttpHeader;

namespace {

constexpr std::array kTransportsOwn = {"Content-Length", "Transfer-Encoding", "Expect",
                                       "Connection",     "Upgrade",           "HTTP2-Settings"};
/// Curl adds these if the request does not name them.
constexpr std::array kCurlsDefaults = {"Accept", "Content-Type", "Expect"};

bool sameName(const std::string& a, const char* b) {
  return curl_strequal(a.c_str(), b) != 0;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

std::optional<std::string> unfitHeader(const HttpHeader& header) {
  if (!isToken(header.name))
    return "a header's name is not made of letters, digits and hyphens";
  if (header.value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
    return "the value of its header \"" + header.name + "\" holds a line break or a zero byte";
  if (std::any_of(kTransportsOwn.begin(), kTransportsOwn.end(),
                  [&header](const char* own) { return sameName(header.name, own); }))
    return "its header \"" + header.name + "\" is the transport's own to set; leave it out";
  return std::nullopt;
}

void append(HeaderList& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr)
    throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

}  // namespace

std::optional<Error> unfitHead(const kit::Request& request) {
  const auto refused = [&request](const std::string& why) {
    return Error{"no request was sent to " + std::string(services::withoutQuery(request.url)) + ": " + why};
  };
  if (!isToken(request.method))
    return refused("its method is not made of letters");
  for (const HttpHeader& header : request.headers) {
    if (const auto why = unfitHeader(header))
      return refused(*why);
  }
  return std::nullopt;
}

HeaderList headerList(const kit::Request& request) {
  HeaderList list;
  for (const HttpHeader& header : request.headers) {
    // For curl, a name with a colon and no value removes a header; a semicolon sends it empty.
    append(list, header.value.empty() ? header.name + ";" : header.name + ": " + header.value);
  }
  for (const char* name : kCurlsDefaults) {
    const bool is_given = std::any_of(request.headers.begin(), request.headers.end(),
                                      [name](const HttpHeader& header) { return sameName(header.name, name); });
    if (!is_given)
      append(list, std::string(name) + ":");
  }
  return list;
}

}  // namespace morvik::host
