// Tells long work that the kit is being stopped.
#pragma once

#include <atomic>
#include <cstddef>

namespace morvik::kit {

/// Made once, by whoever stops the kit; checked by every loop that may take longer than 50 milliseconds. Such a loop
/// then abandons its work: nothing of it is sent, and the store is left as it is. Any thread; no waiting.
class StopRequest {
 public:
  bool isMade() const { return made_.load(std::memory_order_relaxed); }
  void make() { made_.store(true, std::memory_order_relaxed); }

 private:
  std::atomic<bool> made_{false};
};

/// Checks a stop request at every 1024th step of a loop: a short loop never checks, and runs to its end.
class StopCheck {
 public:
  static constexpr size_t kSteps = 1024;

  /// Null: no stop is ever requested.
  explicit StopCheck(const StopRequest* request) : request_(request) {}
  /// Counts one step of the loop. True: abandon the loop, at this step and at all later ones.
  [[nodiscard]] bool countStep() {
    if (--left_ == 0) {
      left_ = kSteps;
      is_stopping_ = request_ != nullptr && request_->isMade();
    }
    return is_stopping_;
  }

 private:
  const StopRequest* request_;
  size_t left_ = kSteps;
  bool is_stopping_ = false;
};

}  // namespace morvik::kit
