// The status of an instance.
#pragma once

#include "morvik/status.h"

namespace morvik::runtime {

struct InstanceParts;

/// The current status of a running instance. Any thread; some microseconds, whatever is stored; waits for no network
/// and no disk.
Status statusOf(InstanceParts& parts);
/// The same without the store: no referral, and no counts of what waits. Does not wait for whoever has the store
/// locked.
Status statusPastTheStore(InstanceParts& parts);

}  // namespace morvik::runtime
