// The one lock under which a stored list is read, changed and written back, so that endSession on the background queue
// and a handler on the main queue cannot lose each other's change. No call out (log, delegate, disk, request) is made
// under it.
#pragma once

#include <mutex>

namespace morvik::kit {

struct HouseLock {
  std::mutex mutex;
};

}  // namespace morvik::kit
