// As much of HTTP/2 as a test server needs.
#pragma once

#include <cstddef>
#include <functional>

#include "tests/host/net/loopback_server.h"

namespace morvik::test {

/// Serves one connection: every request is answered with status 200 and "over HTTP/2" as body, after `note` has seen
/// its body. Heads are not decoded: they are in a compressed form that nothing here needs to read.
void serveHttp2(Peer& peer, size_t connection, const std::function<void(const ServedRequest&)>& note);

}  // namespace morvik::test
