// Who may inspect and change the service: people and scripts on this machine, unless its owner allows others.
#pragma once

#include <string>
#include <vector>

#include "apps/service/http/http_message.h"

namespace morvik_service {

/// Names under which machines elsewhere may inspect too; without any, inspection is for this machine alone.
struct AdminRules {
  std::vector<std::string> remote_hosts;  ///< host names or addresses, without port
};

/// Throws Refusal 403 when a browser says that the page of another site asks. Links to "/" may stand anywhere.
void requireOwnSite(const HttpRequest& request);

/// Throws Refusal 403 when the peer is elsewhere and no remote host is allowed, when the Host header names another host
/// (a name that was bent to this address), or when the Origin header is not that very host and port (a web page
/// elsewhere trying its luck), and what requireOwnSite throws. Host names compare without case.
void requireAdmin(const HttpRequest& request, const AdminRules& rules);

/// The headers that keep a browser from guessing types, framing, and telling other sites.
NamedValues adminHeaders();

}  // namespace morvik_service
