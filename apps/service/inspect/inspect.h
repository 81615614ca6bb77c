// The inspection interface under /inspect/: shows what arrived, orders misbehaviour, changes the attribution data,
// receives the ledgers of devices.
#pragma once

#include "apps/service/http/http_message.h"
#include "apps/service/inspect/inspected.h"

namespace morvik_service {

/// True for paths that `inspect` answers.
bool isInspection(const HttpRequest& request);

/// Answers an inspection request that requireAdmin() accepted. Any thread; takes `inspected.mutex` by itself,
/// as does a stream in the reply. Never shows the secret keys: they are not in the store. Throws Refusal for everything
/// it cannot do, SQLite::Exception when the store fails.
HttpReply inspect(const HttpRequest& request, const Inspected& inspected);

}  // namespace morvik_service
