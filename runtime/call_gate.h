// Lets calls in until the kit stops, and tells when the last of them has left.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace morvik::runtime {

/// What is let in finds everything open until it leaves, or is refused: nothing falls between a check and the end.
class CallGate {
 public:
  /// As long as it lives, the gate's owner is there for it, if isIn() says so.
  class Call {
   public:
    explicit Call(CallGate& gate) : gate_(gate), is_in_(gate.enter()) {}
    ~Call() {
      if (is_in_)
        gate_.leave();
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    bool isIn() const { return is_in_; }

   private:
    CallGate& gate_;
    const bool is_in_;
  };

  /// Waits for nothing, also where a thread that is not there holds what the others wait for.
  bool isClosed() const { return (state_ & kClosed) != 0; }
  /// From here on nobody gets in; waits for those that are in.
  void close() {
    state_.fetch_or(kClosed);
    std::unique_lock hold(mutex_);
    left_.wait(hold, [this] { return state_ == kClosed; });
  }
  /// The same, but waits no longer than that: then with false.
  bool close(std::chrono::steady_clock::time_point deadline) {
    state_.fetch_or(kClosed);
    std::unique_lock hold(mutex_);
    return left_.wait_until(hold, deadline, [this] { return state_ == kClosed; });
  }

 private:
  static constexpr uint32_t kClosed = 1;
  static constexpr uint32_t kCall = 2;

  bool enter() {
    if ((state_.fetch_add(kCall) & kClosed) == 0)
      return true;
    leave();
    return false;
  }
  void leave() {
    const uint32_t left = state_.fetch_sub(kCall) - kCall;
    if ((left & kClosed) == 0)
      return;
    const std::scoped_lock hold(mutex_);
    left_.notify_all();
  }

  std::atomic<uint32_t> state_{0};
  std::mutex mutex_;  // with it whoever closes waits
  std::condition_variable left_;
};

}  // namespace morvik::runtime
