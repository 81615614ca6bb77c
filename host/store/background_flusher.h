// The thread on which the store waits for the disk, so that nobody else has to.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace morvik::host {

/// Runs one function, the flush, on a thread of its own: some time after a request, or at once.
class BackgroundFlusher {
 public:
  enum class Urgency : uint8_t {
    kRoutine,     ///< the time since the first commit is up, or the log has grown long
    kSessionEnd,  ///< the app has come to rest
  };
  /// `flush` runs on the flusher's thread, never twice at a time. It must not call stop() or flushAndWait().
  BackgroundFlusher(std::function<void(Urgency)> flush, std::chrono::milliseconds delay);
  BackgroundFlusher(const BackgroundFlusher&) = delete;
  BackgroundFlusher& operator=(const BackgroundFlusher&) = delete;
  ~BackgroundFlusher();

  /// A flush within the delay. Requests until it starts are one. Any thread; does not block.
  void flushSoon();
  /// A flush as soon as the thread is free. Any thread; does not block.
  void flushNow(Urgency urgency);
  /// The same, and blocks until a flush that started after the call has ended. Any thread but the flusher's own.
  void flushAndWait(Urgency urgency);
  /// Lets a flush that runs end, and the thread with it; requests that wait are dropped. Later calls do nothing.
  void stop();

 private:
  void run();

  const std::function<void(Urgency)> flush_;
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
