// Tells long work that the kit is being stopped.
#pragma once

#include <atomic>
#include <cstddef>

namespace morvik::kit {

/// Made once, by whoever stops the kit; asked by every loop that may take longer than 50 milliseconds. What such a loop
/// was about is then abandoned: nothing of it is sent, and what is stored stays as it is. Any thread; no waiting.
class StopRequest {
 public:
  bool isMade() const { return made_.load(std::memory_order_relaxed); }
  void make() { made_.store(true, std::memory_order_relaxed); }

 private:
  std::atomic<bool> made_{false};
};

/// Asks a stop request at every 1024th step of a loop: a short loop never asks, and runs to its end.
class StopCheck {
 public:
  static constexpr size_t kSteps = 1024;

  /// Null: there is nobody to ask.
  explicit StopCheck(const StopRequest* request) : request_(request) {}
  /// To be called at each step. True: the loop is to be abandoned, at this step and at all later ones.
  bool isStopping() {
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
