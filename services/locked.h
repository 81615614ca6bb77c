// A value that two threads read and write, each time whole.
#pragma once

#include <mutex>
#include <utility>

namespace morvik::services {

template <class Held>
class Locked {
 public:
  Held get() const {
    const std::scoped_lock hold(mutex_);
    return held_;
  }
  void set(Held value) {
    const std::scoped_lock hold(mutex_);
    std::swap(held_, value);  // what was held before is destroyed after the lock
  }

 private:
  mutable std::mutex mutex_;
  Held held_{};
};

}  // namespace morvik::services
