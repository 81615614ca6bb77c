// What an inspection may read and change.
#pragma once

#include <mutex>

#include "apps/service/answers/attribution.h"
#include "apps/service/answers/behaviours.h"
#include "apps/service/inspect/admin_guard.h"
#include "apps/service/inspect/feed.h"
#include "apps/service/inspect/ledgers.h"
#include "apps/service/store/store.h"

namespace morvik_service {

class Watchers;

/// The referred objects outlive it.
struct Inspected {
  Store& store;
  Behaviours& behaviours;
  Attribution& attribution;
  Ledgers& ledgers;
  Feed& feed;               ///< published when any of the above changes
  std::mutex& mutex;        ///< guards behaviours, attribution and ledgers; held briefly, never during disk access
  Watchers& watchers;       ///< those who wait for changes
  const AdminRules& rules;  ///< who may ask
};

}  // namespace morvik_service
