// A mutex that any thread may try, also the one that holds it.
#pragma once

#include <atomic>
#include <mutex>

namespace morvik::kit {

/// std::mutex leaves open what happens when a thread tries a mutex that it holds itself. A crash may be reported by a
/// thread that holds anything; here such a try just answers false.
class Mutex {
 public:
  void lock() {
    mutex_.lock();
    holder_.store(thisThread(), std::memory_order_relaxed);
  }
  /// False, at once, while any thread holds it, this one included.
  bool try_lock() {
    // Only a thread itself ever stores its own mark, so what it reads of itself is never out of date.
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
