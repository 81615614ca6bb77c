// Tells somebody who waits how far long work is.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace morvik_device {

/// Work that is done sooner shows none.
inline constexpr std::chrono::milliseconds kProgressAfter{1000};
/// It is drawn anew so often, at most.
inline constexpr std::chrono::milliseconds kProgressEvery{100};

/// One line, drawn over itself, and wiped at the end. Of one thread at a time.
class ProgressBar {
 public:
  using Clock = std::chrono::steady_clock;

  /// Draws on `terminal`, which outlives it; draws nothing when `is_shown` is false (nobody watches).
  ProgressBar(std::ostream& terminal, bool is_shown, std::string what);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// So much of `total` is done at `now`.
  void show(uint64_t done, uint64_t total, Clock::time_point now = Clock::now());

 private:
  std::ostream& terminal_;
  const bool is_shown_;
  const std::string what_;
  const Clock::time_point began_ = Clock::now();
  Clock::time_point last_{};
  bool is_drawn_ = false;
};

}  // namespace morvik_device
