#include "apps/service/inspect/admin_guard.h"

#include <algorithm>
#include <string_view>

#include "apps/service/base/ascii.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

// A host name without its port, "[::1]" without its brackets.
std::string_view hostOf(std::string_view authority) {
  if (!authority.empty() && authority.front() == '[') {
    const std::size_t end = authority.find(']');
    return end == std::string_view::npos ? std::string_view() : authority.substr(1, end - 1);
  }
  return authority.substr(0, authority.find(':'));
}

bool isLoopbackName(std::string_view host) {
  return equalWithoutCase(host, "localhost") || host == "127.0.0.1" || host == "::1";
}

bool isWelcomeName(std::string_view host, const AdminRules& rules) {
  return isLoopbackName(host) || std::any_of(rules.remote_hosts.begin(), rules.remote_hosts.end(),
                                             [&](const std::string& each) { return equalWithoutCase(each, host); });
}

}  // namespace

void requireAdmin(const HttpRequest& request, const AdminRules& rules) {
  if (!request.from_loopback && rules.remote_hosts.empty()) {
    throw Refusal(403, "inspection is for this machine alone", "the peer's address",
                  "connect from this machine, or start the service with --inspect-host NAME");
  }
  const std::string* host = findHeader(request, "Host");
  if (host == nullptr || !isWelcomeName(hostOf(*host), rules)) {
    throw Refusal(403, "the request names another host", "header Host",
                  "call localhost, 127.0.0.1 or [::1], or start the service with --inspect-host NAME");
  }
  const std::string* origin = findHeader(request, "Origin");
  if (origin != nullptr && !equalWithoutCase(*origin, "https://" + *host)) {
    throw Refusal(403, "the request comes from a page of another host", "header Origin",
                  "call from the service's own page, or without an Origin header");
  }
  requireOwnSite(request);
}

// A browser that sends no Origin still reports a request from another site.
void requireOwnSite(const HttpRequest& request) {
  const std::string* site = findHeader(request, "Sec-Fetch-Site");
  if (site != nullptr && *site != "same-origin" && *site != "none" && request.path != "/") {
    throw Refusal(403, "the request comes from a page of another site", "header Sec-Fetch-Site",
                  "call from the service's own page");
  }
}

NamedValues adminHeaders() {
  return {{"X-Content-Type-Options", "nosniff"},
          {"X-Frame-Options", "DENY"},
          {"Referrer-Policy", "no-referrer"},
          {"Cross-Origin-Resource-Policy", "same-origin"}};
}

}  // namespace morvik_service
