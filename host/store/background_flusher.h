// The thread on which the store waits for the disk, so that nobody else has to.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <variant>

#include "host/posix/thread.h"
#include "host/store/store_flusher.h"

namespace morvik::host {

/// Flushes on its own thread. If the system has none, each request tries again to start it.
class BackgroundFlusher final : public StoreFlusher {
 public:
  using Started = std::variant<std::thread, kit::Error>;
  using StartThread = std::function<Started(const char* name, std::function<void()> body)>;

  /// `flush` runs on the flusher's thread, or in flushAndWait() if there is none. If it throws (no memory, say), the
  /// flush did not happen, and another one follows.
  BackgroundFlusher(Flush flush, std::chrono::milliseconds delay, StartThread start_thread = startThread);
  BackgroundFlusher(const BackgroundFlusher&) = delete;
  BackgroundFlusher& operator=(const BackgroundFlusher&) = delete;
  ~BackgroundFlusher() override;

  std::optional<kit::Error> problem() const override;
  void flushSoon() override;
  void flushNow(Urgency urgency) override;
  /// Any thread except the flusher's own.
  void flushAndWait(Urgency urgency) override;
  void stop() override;

 private:
  void run();
  void flushOnce(std::unique_lock<std::mutex>& lock);
  void needThread();
  bool hasThread() const { return thread_.joinable(); }

  const Flush flush_;
  const std::chrono::milliseconds delay_;
  const StartThread start_thread_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ended_;
  bool soon_ = false;
  bool now_ = false;
  bool stopped_ = false;
  bool is_flushing_ = false;
  Urgency urgency_ = Urgency::kRoutine;
  std::chrono::steady_clock::time_point due_;
  uint64_t started_count_ = 0;
  uint64_t ended_count_ = 0;
  std::optional<kit::Error> problem_;
  std::thread thread_;
};

}  // namespace morvik::host
