#include "runtime/siblings/size_trigger.h"

#include <algorithm>

namespace morvik::runtime {

void SizeTrigger::activityWasStored() {
  {
    const std::scoped_lock hold(mutex_);
    if (to_be_stored_first_ > 0)
      --to_be_stored_first_;
    if (to_be_stored_first_ > 0 || is_posted_)
      return;
    is_posted_ = true;
  }
  try {
    main_queue_.async([this] { callNow(); });
  } catch (...) {
    // Not posted after all; the next activity posts it.
    const std::scoped_lock hold(mutex_);
    is_posted_ = false;
    throw;
  }
}

void SizeTrigger::callNow() {
  {
    const std::scoped_lock hold(mutex_);
    is_posted_ = false;
  }
  if (call_)
    (*call_)();
}

void SizeTrigger::batchWasAccepted() {
  rest(0);
}

void SizeTrigger::batchWasRefused(size_t activities) {
  rest(std::max(kMinActivitiesAfterRefusal, activities / kRefusedBatchFraction));
}

void SizeTrigger::sessionDidStartOrEnd() {
  rest(0);
}

void SizeTrigger::rest(size_t activities) {
  const std::scoped_lock hold(mutex_);
  to_be_stored_first_ = activities;
}

}  // namespace morvik::runtime
