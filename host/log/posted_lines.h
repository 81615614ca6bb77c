// Lines of the log that are written on the main queue, so that no thread of the app's waits for whoever takes them.
#pragma once

#include <atomic>
#include <cstddef>

#include "kit/log.h"
#include "kit/queues.h"
#include "services/log.h"

namespace morvik::host {

/// Lines that wait; of further ones only the number is told.
inline constexpr size_t kMaxPostedLines = 256;

/// Any thread.
class PostedLines {
 public:
  /// Both outlive it.
  PostedLines(const services::Logger& logger, kit::MainQueue& main_queue) : logger_(logger), main_queue_(main_queue) {}

  /// Has `write` called on the main queue, in order, if lines of this level are let through. `write` writes one line.
  void post(kit::LogLevel level, kit::Block write);

 private:
  void tellLeftOut();

  const services::Logger logger_;
  kit::MainQueue& main_queue_;
  std::atomic<size_t> waiting_{0};
  std::atomic<size_t> left_out_{0};
};

}  // namespace morvik::host
