// How a host stands.
#pragma once

#include "morvik/status.h"

namespace morvik::runtime {

struct InstanceParts;

/// As of now, and running. Any thread; some microseconds, whatever is stored; waits for no network and no disk.
Status statusOf(InstanceParts& parts);
/// The same without what lies in the store: no referral, and nothing that waits. Does not wait for whoever has the
/// store locked.
Status statusPastTheStore(InstanceParts& parts);

}  // namespace morvik::runtime
