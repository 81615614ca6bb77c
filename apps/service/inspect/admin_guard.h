// Who may inspect and change the service: people and scripts on this machine, unless its owner allows others.
#pragma once

#include <string>
#include <vector>

#include "apps/service/http/http_message.h"

namespace morvik_service {

/// Names under which other machines may inspect too; without any, only this machine may.
struct AdminRules {
  std::vector<std::string> remote_hosts;  ///< host names or addresses, without port
};

/// Throws Refusal 403 when a browser says that the page of another site asks. Any site may link to "/".
void requireOwnSite(const HttpRequest& request);

/// Throws Refusal 403 when the peer is elsewhere and no remote host is allowed, when the Host header names another host
/// (DNS rebinding), or when the Origin header is not exactly that host and port (a web page of another site), and
/// what requireOwnSite throws. Host names compare without case.
void requireAdmin(const HttpRequest& request, const AdminRules& rules);

/// The headers that keep a browser from guessing types, framing, and telling other sites.
NamedValues adminHeaders();

}  // namespace morvik_service
