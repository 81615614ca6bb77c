// The two locks around stored lists. No call out (log, delegate, disk, request) is made under either, except for the
// commit that takes over a store that could not be read before. A thread that is about to die may only try them.
#pragma once

#include "kit/mutex.h"

namespace morvik::kit {

struct ListLock {
  /// Held while a stored list is read, changed and written back, so that endSession on the background queue and a
  /// handler on the main queue cannot lose each other's change. A pass over a list may happen under it.
  Mutex mutex;
  /// Held while a record is admitted, on any thread: the gate is asked and the record appended in one step. Held for
  /// nothing else, in particular no pass over a list and no commit. Taken after `mutex`, never before it.
  Mutex door;
};

}  // namespace morvik::kit
