// What an instance may still do: everything while it runs, less while it ends, and no call of the app once stop()
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
  /// For a call that would wait for the main queue.
  enum class Admission : uint8_t { kAdmitted, kTooMany, kNotRunning };

  /// Belongs to this process.
  explicit InstanceLife(const OwnProcess& process) : process_(process) {}
  InstanceLife(const InstanceLife&) = delete;
  InstanceLife& operator=(const InstanceLife&) = delete;

  const OwnProcess& process() const { return process_; }
  /// This is the process that started the instance.
  bool isOwnProcess() const { return process_.isHere(); }
  /// Nobody has begun to stop the instance.
  bool isRunning() const { return stage_ == Stage::kRunning && isOwnProcess(); }
  /// The end has begun: what was posted before may still run, and calls from there take effect.
  void beginToEnd();
  /// Whether an operation of the app takes effect. `within_turn`: it was called from within a block of the kit's
  /// queues; these go on for a while after the end has begun.
  bool admits(bool within_turn) const { return isRunning() || (within_turn && stage_ == Stage::kEnding); }

  /// Counts a call that waits; at most `limit` may.
  Admission post(size_t limit);
  /// A waiting call begins now. False: it came too late and must not.
  bool beginPosted();
  /// No posted call begins any more. Returns how many never will.
  size_t closePosted();

  /// Whether functions of the app may be called.
  bool mayCallApp() const { return stage_ != Stage::kOver; }
  /// stop() returns: no function of the app begins any more.
  void end() { stage_ = Stage::kOver; }
  /// This thread is within the app's log sink.
  bool isInLogSink() const { return log_sink_of_thread_ == this; }

  /// While it lives, this thread is within a function of the app. That may call another instance.
  using Within = ThreadMark<InstanceLife>;
  /// For a function passed to flush(), which may run on any thread.
  [[nodiscard]] Within goIntoDone() const { return {done_of_thread_, *this}; }
  bool isInDone() const { return done_of_thread_ == this; }

  /// Makes every app function in `options` obey mayCallApp() and go through callApp(). Empty ones stay empty.
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
