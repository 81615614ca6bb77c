// Marks a thread as being within something.
#pragma once

#include <utility>

namespace morvik::runtime {

/// While it lives, `of_thread` (a thread-local) points at `it`; then again at what it pointed at before.
template <class T>
class ThreadMark {
 public:
  ThreadMark(const T*& of_thread, const T& it) : of_thread_(of_thread), before_(std::exchange(of_thread, &it)) {}
  ThreadMark(const ThreadMark&) = delete;
  ThreadMark& operator=(const ThreadMark&) = delete;
  ~ThreadMark() { of_thread_ = before_; }

 private:
  const T*& of_thread_;
  const T* const before_;
};

}  // namespace morvik::runtime
