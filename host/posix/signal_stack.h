// A separate stack on which a thread handles signals, even after overflowing its own.
#pragma once

#include <cstddef>

namespace morvik::host {

/// Enough for our handler and an app's handler after it.
inline constexpr size_t kSignalStackBytes = size_t{64} << 10;

/// Set for the thread that makes it, unless that has one or memory is missing. A guard page lies below it, so that a
/// handler that needs more faults and damages nothing. Removed with the object; if destroyed on another thread, the
/// stack and its memory stay.
class SignalStack {
 public:
  SignalStack();
  ~SignalStack();
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;

 private:
  char* memory_ = nullptr;  ///< guard page and stack; null: the thread has another one, or none
  size_t guard_bytes_ = 0;
};

}  // namespace morvik::host
