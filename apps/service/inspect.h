// The inspection interface under /inspect/: shows what arrived, orders misbehaviour, changes the attribution data.
#pragma once

#include "apps/service/attribution.h"
#include "apps/service/behaviours.h"
#include "apps/service/http_message.h"
#include "apps/service/store.h"

namespace morvik_service {

/// What an inspection may look at and change. The referred objects outlive it.
struct Inspected {
  Store& store;
  Behaviours& behaviours;
  Attribution& attribution;
};

/// True for paths that `inspect` answers.
bool isInspection(const HttpRequest& request);

/// Answers one inspection request. It is for people and scripts on this machine alone: a peer elsewhere, and a Host or
/// Origin header with another name (a web page trying its luck), are refused with 403. Never shows the secret keys.
/// Throws Refusal for everything it cannot do, DatabaseError when the store fails.
HttpReply inspect(const HttpRequest& request, const Inspected& inspected);

}  // namespace morvik_service
