// How an instance ends: within two seconds, on any thread, however long the disk or the app takes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "morvik/status.h"

namespace morvik::runtime {

struct InstanceParts;
class MachineThread;
class OwnProcess;

/// stop() takes at most this long, except for app functions that run on the stopping thread itself.
inline constexpr std::chrono::milliseconds kStopTime{2000};
/// Of that, the time for what was posted before,
inline constexpr std::chrono::milliseconds kDrainTime{1500};
/// and the time by which everything is to be closed; anything later ends by itself.
inline constexpr std::chrono::milliseconds kClosingTime{1700};
/// After that, the last log lines have at least this long.
inline constexpr std::chrono::milliseconds kLastLinesTime{200};
static_assert(kClosingTime + kLastLinesTime < kStopTime, "there is to be time to spare");
/// Of kDrainTime, the time for what waits on the background queue.
inline constexpr std::chrono::milliseconds kBackgroundDrainTime{500};

/// Ends one instance, once. Any thread.
class InstanceEnding : public std::enable_shared_from_this<InstanceEnding> {
 public:
  explicit InstanceEnding(std::shared_ptr<InstanceParts> parts);
  InstanceEnding(const InstanceEnding&) = delete;
  InstanceEnding& operator=(const InstanceEnding&) = delete;

  /// As morvik::MorvikCore::stop(). False: this thread is within a callback of the instance, and nothing was done; or
  /// memory ran out, and another call continues.
  bool stop();
  /// stop() without the handlers of what is in flight. Before any stop() returns it calls `last`, whose lines are the
  /// last ones of the log. If another thread stops or stopped the instance, `last` is called after that, and the log is
  /// closed. Not from within a callback.
  void stopAndThen(const std::function<void()>& last);
  /// This thread is within an app's function called by the instance, or within a block of its queues.
  bool isWithinCallback() const;
  /// For KeptForGood.
  InstanceEnding* kept_before = nullptr;

  /// stop(). Within a callback that is not possible: then it commits, lets nothing more leave, calls no app function
  /// any more, and keeps the parts for good, since the callback returns into them. In a forked child it keeps them and
  /// touches nothing: they are the parent's.
  void stopOrLeave();

 private:
  class Closing;
  enum class Stage { kRunning, kStopping, kStopped };

  /// False if another call is doing or did it; waits until that one is done.
  bool begin();
  bool closeGuarded(std::chrono::steady_clock::time_point begun, const std::function<void()>& last);
  void close(std::chrono::steady_clock::time_point begun, const std::function<void()>& last);
  void finish(bool is_closed, std::chrono::steady_clock::time_point deadline, Status status,
              const std::function<void()>& last = {});
  void writeLastLines(bool is_closed, std::chrono::steady_clock::time_point deadline);
  void leave();
  void leaveWithoutMemory();
  /// Keeps the parts with it, for good; allocates nothing and takes no lock.
  void keepItself();
  void leaveQueues(std::chrono::steady_clock::time_point deadline, bool is_first);
  std::unique_ptr<MachineThread> startThread(const char* name, std::function<void()> body);
  void setStage(Stage stage);

  const std::shared_ptr<InstanceParts> parts_;
  std::shared_ptr<InstanceEnding> itself_;  ///< set when it is kept for good
  std::mutex mutex_;
  std::condition_variable stopped_;
  Stage stage_ = Stage::kRunning;
};

/// Call before an instance of this process makes anything: instances that run at the end of the process are then
/// stopped before exit handlers registered earlier. Libraries that clean up what the kit's threads may still use are
/// the machine's responsibility and are handled before.
void prepareForExit();
/// Stops `ending` at the end of the process, if that is still `process`.
void stopAtExit(const std::shared_ptr<InstanceEnding>& ending, const OwnProcess& process);

}  // namespace morvik::runtime
