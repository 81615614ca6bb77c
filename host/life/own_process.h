// Whether this process is still the one that made an object, or a fork of it.
#pragma once

#include <atomic>
#include <cstdint>

namespace morvik::host {

/// Marks the process in which it is made. A child that is forked later, by whatever call, is another process. One that
/// shares its parent's memory until it execs (vfork) is not told apart.
class OwnProcess {
 public:
  OwnProcess();
  /// False in a forked child. Any thread; reads one word; async-signal-safe.
  bool isHere() const { return current_->load(std::memory_order_relaxed) == number_; }

 private:
  static std::atomic<uint64_t>* current();

  const std::atomic<uint64_t>* current_;
  uint64_t number_;
};

}  // namespace morvik::host
