// Whether this is still the process that made an object, or a fork of it.
#pragma once

#include <atomic>
#include <cstdint>

namespace morvik::runtime {

/// Marks the process in which it is made. A child forked later, by any call, counts as another process if the machine
/// notices. A child that shares its parent's memory until exec (vfork) is not told apart.
class OwnProcess {
 public:
  /// `word`: Machine::processWord().
  explicit OwnProcess(std::atomic<uint64_t>& word);
  /// False in a forked child. Any thread; reads one word; async-signal-safe.
  bool isHere() const { return word_->load(std::memory_order_relaxed) == number_; }

 private:
  const std::atomic<uint64_t>* word_;
  uint64_t number_;
};

}  // namespace morvik::runtime
