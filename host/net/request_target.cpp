#include "host/net/request_target.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <new>
#include <utility>

namespace morvik::host {

using kit::Error;

namespace {

/// 127.0.0.0/8, ::1, and the one name that curl resolves without a lookup. `host` as curl writes it: names in any case,
/// addresses in full, IPv6 in brackets.
bool isLoopbackName(const std::string& host) {
  in_addr version4{};
  if (inet_pton(AF_INET, host.c_str(), &version4) == 1)
    return (ntohl(version4.s_addr) >> 24) == 127;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    in6_addr version6{};
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &version6) == 1 &&
           IN6_IS_ADDR_LOOPBACK(&version6);
  }
  return curl_strequal(host.c_str(), "localhost") != 0;
}

}  // namespace

std::variant<RequestTarget, Error> RequestTarget::parse(const std::string& url) {
  RequestTarget target(curl_url());
  if (!target.url_)
    throw std::bad_alloc();
  if (url.find('\0') != std::string::npos)
    return Error{"it holds a zero byte; leave that out"};
  if (const CURLUcode code = curl_url_set(target.handle(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME)) {
    return Error{std::string("it cannot be read as a URL (") + curl_url_strerror(code) +
                 "); write a whole one, such as https://service.example/"};
  }
  const std::string scheme = target.part(CURLUPART_SCHEME);
  const std::string host = target.part(CURLUPART_HOST);
  if (scheme != "https" && scheme != "http")
    return Error{"its scheme is \"" + scheme + "\"; begin it with https://"};
  target.is_loopback_ = isLoopbackName(host);
  if (scheme == "http" && !target.is_loopback_)
    return Error{"plain HTTP stays on this machine; use https"};
  target.host_ = scheme + "://" + host + ":" + target.part(CURLUPART_PORT);
  target.shown_ = target.host_ + target.part(CURLUPART_PATH);
  return target;
}

std::string RequestTarget::part(CURLUPart which) const {
  char* text = nullptr;
  std::string copy;
  if (curl_url_get(url_.get(), which, &text, CURLU_DEFAULT_PORT) == CURLUE_OK)
    copy = text;
  curl_free(text);
  return copy;
}

}  // namespace morvik::host
