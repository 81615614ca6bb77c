// The thread on which the store waits for the disk, so that nobody else has to.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "host/store/store_flusher.h"

namespace morvik::host {

/// Flushes on a thread of its own.
class BackgroundFlusher final : public StoreFlusher {
 public:
  /// `flush` runs on the flusher's thread.
  BackgroundFlusher(Flush flush, std::chrono::milliseconds delay);
  BackgroundFlusher(const BackgroundFlusher&) = delete;
  BackgroundFlusher& operator=(const BackgroundFlusher&) = delete;
  ~BackgroundFlusher() override;

  void flushSoon() override;
  void flushNow(Urgency urgency) override;
  /// Any thread but the flusher's own.
  void flushAndWait(Urgency urgency) override;
  void stop() override;

 private:
  void run();

  const Flush flush_;
  const std::chrono::milliseconds delay_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ended_;
  bool soon_ = false;
  bool now_ = false;
  bool stopped_ = false;
  Urgency urgency_ = Urgency::kRoutine;
  std::chrono::steady_clock::time_point due_;
  uint64_t started_count_ = 0;
  uint64_t ended_count_ = 0;
  std::thread thread_;
};

}  // namespace morvik::host
