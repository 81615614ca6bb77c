// A mutex that any thread may try, even the one that holds it.
#pragma once

#include <atomic>
#include <mutex>

namespace morvik::kit {

/// Trying a std::mutex that the thread holds is undefined. A thread that reports a crash may hold any lock; here such a
/// try returns false.
class Mutex {
 public:
  void lock() {
    mutex_.lock();
    holder_.store(thisThread(), std::memory_order_relaxed);
  }
  /// False, at once, while any thread holds it, including this one.
  bool try_lock() {
    // Only a thread itself stores its own mark, so its own reading is never out of date.
    if (holder_.load(std::memory_order_relaxed) == thisThread() || !mutex_.try_lock())
      return false;
    holder_.store(thisThread(), std::memory_order_relaxed);
    return true;
  }
  void unlock() {
    holder_.store(nullptr, std::memory_order_relaxed);
    mutex_.unlock();
  }

 private:
  static const void* thisThread() {
    static thread_local const char mark = 0;
    return &mark;
  }

  std::mutex mutex_;
  std::atomic<const void*> holder_{nullptr};
};

}  // namespace morvik::kit
