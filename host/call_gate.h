// Lets calls of the app in until the kit stops, and tells when the last of them has left.
#pragma once

#include <atomic>
#include <cstdint>

namespace morvik::host {

/// A record that is let in is written into an open store, or refused: nothing falls between a check and the end.
class CallGate {
 public:
  /// As long as it lives, the store is open, if isIn() says so.
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

  /// From here on nobody gets in; waits for those that are in. They wait for nothing but a commit.
  void close() {
    uint32_t state = state_.fetch_or(kClosed) | kClosed;
    while (state != kClosed) {
      state_.wait(state);
      state = state_.load();
    }
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
    if ((left & kClosed) != 0)
      state_.notify_all();
  }

  std::atomic<uint32_t> state_{0};
};

}  // namespace morvik::host
