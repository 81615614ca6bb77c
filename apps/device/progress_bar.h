// Shows the progress of long work on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace morvik_device {

/// No bar is shown for work that takes less.
inline constexpr std::chrono::milliseconds kProgressAfter{1000};
/// The bar is redrawn at most this often.
inline constexpr std::chrono::milliseconds kProgressEvery{100};

/// One line that is overwritten in place and cleared at the end. Not thread-safe.
class ProgressBar {
 public:
  using Clock = std::chrono::steady_clock;

  /// Draws on `terminal`, which outlives it; draws nothing if `is_shown` is false.
  ProgressBar(std::ostream& terminal, bool is_shown, std::string what);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// `done` of `total` is finished at `now`.
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
