// The two locks of the house. No call out (log, delegate, disk, request) is made under either, but for the commit that
// takes over a store which could not be read before. A thread that is about to die may only try them.
#pragma once

#include "kit/mutex.h"

namespace morvik::kit {

struct ListLock {
  /// Under which a stored list is read, changed and written back, so that endSession on the background queue and a
  /// handler on the main queue cannot lose each other's change. A pass over a list may take place under it.
  Mutex mutex;
  /// Under which a record is let in from any thread: the gate is asked and the record appended, in one step. Held for
  /// that alone, never for a pass over a list or a commit. Taken after `mutex`, never before it.
  Mutex door;
};

}  // namespace morvik::kit
