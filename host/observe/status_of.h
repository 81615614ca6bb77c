// How a host stands.
#pragma once

#include "morvik/status.h"

namespace morvik::host {

struct HostParts;

/// As of now, and running. Any thread; some microseconds, whatever is stored; waits for no network and no disk.
Status statusOf(HostParts& parts);

}  // namespace morvik::host
