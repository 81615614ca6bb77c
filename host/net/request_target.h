// Where a request goes, and whether it may go there.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <variant>

#include "kit/error.h"

namespace morvik::host {

/// A parsed and accepted URL: HTTPS to anywhere, HTTP to this machine only. Curl gets what was checked here; nobody
/// parses the text a second time.
class RequestTarget {
 public:
  /// Errors: no URL, another scheme, HTTP beyond loopback. The text says why and how to fix it; the caller names the
  /// URL.
  static std::variant<RequestTarget, kit::Error> parse(const std::string& url);

  /// Scheme, host and port: requests with equal ones share connections.
  const std::string& host() const { return host_; }
  /// The URL for people: without user, query and fragment, which may be private.
  const std::string& shown() const { return shown_; }
  /// Whether it is this machine.
  bool isLoopback() const { return is_loopback_; }
  CURLU* handle() const { return url_.get(); }

 private:
  struct Release {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
  };
  explicit RequestTarget(CURLU* url) : url_(url) {}
  std::string part(CURLUPart which) const;

  std::unique_ptr<CURLU, Release> url_;
  std::string host_;
  std::string shown_;
  bool is_loopback_ = false;
};

}  // namespace morvik::host
