// A stack of its own on which a thread handles signals: also the one that its stack has overflown.
#pragma once

#include <cstddef>

namespace morvik::host {

/// Enough for the handler and for a handler of the app's behind it.
inline constexpr size_t kSignalStackBytes = size_t{64} << 10;

/// Given to the thread that makes it, unless that has one or there is no memory for it. Below it is a page that nobody
/// may touch, so that a handler that needs more faults and damages nothing. Goes with the object; destroyed on another
/// thread it leaves the thread its stack, and the memory with it.
class SignalStack {
 public:
  SignalStack();
  ~SignalStack();
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;

 private:
  char* memory_ = nullptr;  ///< the guard page, and the stack above it; null: the thread has another, or none
  size_t guard_bytes_ = 0;
};

}  // namespace morvik::host
