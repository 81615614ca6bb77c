// The one lock under which a stored list is read, changed and written back, so that endSession on the background queue
// and a handler on the main queue cannot lose each other's change. No call out (log, delegate, disk, request) is made
// under it, but for the commit that takes over a store which could not be read before. A thread that is about to die
// may only try it.
#pragma once

#include "kit/mutex.h"

namespace morvik::kit {

struct HouseLock {
  Mutex mutex;
};

}  // namespace morvik::kit
