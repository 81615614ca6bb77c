// Decides when recording an activity requests a batch.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "kit/queues.h"

namespace morvik::runtime {

/// After a refused batch at least this many more activities are stored before the next one is requested.
inline constexpr size_t kMinActivitiesAfterRefusal = 10;
/// And at least this fraction of the refused batch: one in this many.
inline constexpr size_t kRefusedBatchFraction = 10;

/// Each stored activity posts the call to the main queue, unless one is on its way there. After a batch that failed or
/// was not accepted, the call pauses until max(10, a tenth of the batch) more are stored, or a session starts or ends:
/// recording cost stays flat, and a dead server is not hammered. Any thread.
class SizeTrigger {
 public:
  explicit SizeTrigger(kit::MainQueue& main_queue) : main_queue_(main_queue) {}

  /// Called on the main queue. Set it before the first activity is stored.
  void setCall(kit::Block call) { call_ = std::make_shared<const kit::Block>(std::move(call)); }

  void activityWasStored();
  void batchWasAccepted();
  void batchWasRefused(size_t activities);
  void sessionDidStartOrEnd();

 private:
  void rest(size_t activities);
  void callNow();

  kit::MainQueue& main_queue_;
  std::shared_ptr<const kit::Block> call_;
  std::mutex mutex_;
  size_t to_be_stored_first_ = 0;
  bool is_posted_ = false;
};

}  // namespace morvik::runtime
