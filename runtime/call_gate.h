// Admits calls until the kit stops, and knows when the last of them has left.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace morvik::runtime {

/// An admitted call finds everything open until it leaves; any other is refused. No call falls between a check and the
/// end.
class CallGate {
 public:
  /// While it lives and isIn() is true, the gate's owner exists.
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

  /// Takes no lock, so it also answers in a forked child, where the thread that holds the lock is missing.
  bool isClosed() const { return (state_ & kClosed) != 0; }
  /// Admits no further call and waits for those inside.
  void close() {
    state_.fetch_or(kClosed);
    std::unique_lock hold(mutex_);
    left_.wait(hold, [this] { return state_ == kClosed; });
  }
  /// The same, but waits until `deadline` at most; false when it passed.
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
  std::mutex mutex_;  // close() waits with it
  std::condition_variable left_;
};

}  // namespace morvik::runtime
