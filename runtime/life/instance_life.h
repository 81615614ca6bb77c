// What a host may still do: everything while it runs, less while it ends, and nothing of the app's once stop()
// returned.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "kit/queues.h"
#include "runtime/life/own_process.h"
#include "runtime/life/thread_mark.h"

namespace morvik {
struct StartOptions;
}

namespace morvik::runtime {

/// Any thread.
class InstanceLife {
 public:
  /// Of a call that would wait for the main queue.
  enum class Admission : uint8_t { kAdmitted, kTooMany, kNotRunning };

  /// In this process.
  explicit InstanceLife(const OwnProcess& process) : process_(process) {}
  InstanceLife(const InstanceLife&) = delete;
  InstanceLife& operator=(const InstanceLife&) = delete;

  const OwnProcess& process() const { return process_; }
  /// The process that started the host is this one.
  bool isOwnProcess() const { return process_.isHere(); }
  /// Nobody has begun to stop the host.
  bool isRunning() const { return stage_ == Stage::kRunning && isOwnProcess(); }
  /// The end has begun: what was posted before may still run, and what it calls takes place.
  void beginToEnd();
  /// Whether an operation of the app's takes place. `within_turn`: it was called from within a block of the kit's
  /// queues; these run on for a while when the end has begun.
  bool admits(bool within_turn) const { return isRunning() || (within_turn && stage_ == Stage::kEnding); }

  /// Counts a call that waits; at most `limit` may.
  Admission post(size_t limit);
  /// A call that waited begins now. False: it came too late, and must not.
  bool beginPosted();
  /// From here on no posted call begins. Tells how many never will.
  size_t closePosted();

  /// Whether functions of the app's may be called.
  bool mayCallApp() const { return stage_ != Stage::kOver; }
  /// stop() returns: no function of the app's begins any more.
  void end() { stage_ = Stage::kOver; }
  /// This thread is within the app's log sink.
  bool isInLogSink() const { return log_sink_of_thread_ == this; }

  /// As long as it lives, this thread is within a function of the app's. One of another host may be called from there.
  using Within = ThreadMark<InstanceLife>;
  /// Of a function that was handed to flush(), which may run on any thread.
  [[nodiscard]] Within goIntoDone() const { return {done_of_thread_, *this}; }
  bool isInDone() const { return done_of_thread_ == this; }

  /// Makes every function in `options` that the app wants called obey mayCallApp(), and go through callApp(). Empty
  /// ones stay empty.
  static void guard(const std::shared_ptr<const InstanceLife>& life, StartOptions& options);

 private:
  enum class Stage : uint8_t { kRunning, kEnding, kOver };

  static thread_local const InstanceLife* log_sink_of_thread_;
  static thread_local const InstanceLife* done_of_thread_;

  const OwnProcess process_;
  std::atomic<Stage> stage_{Stage::kRunning};
  std::mutex mutex_;  // guards what follows
  size_t posted_ = 0;
  bool posted_closed_ = false;
};

}  // namespace morvik::runtime
