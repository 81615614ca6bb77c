// How a host ends: in two seconds, on whatever thread, however long the disk or the app takes.
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

/// stop() takes at most this long, but for a function of the app's that runs on the stopping thread itself.
inline constexpr std::chrono::milliseconds kStopTime{2000};
/// Of that, what was posted before has so long to run,
inline constexpr std::chrono::milliseconds kDrainTime{1500};
/// and until then all is to be closed; what is not ends by itself.
inline constexpr std::chrono::milliseconds kClosingTime{1700};
/// Behind that, so long the last lines of the log have at least.
inline constexpr std::chrono::milliseconds kLastLinesTime{200};
static_assert(kClosingTime + kLastLinesTime < kStopTime, "there is to be time to spare");
/// Of kDrainTime, so long what waits on the background queue.
inline constexpr std::chrono::milliseconds kBackgroundDrainTime{500};

/// Ends one host, once. Any thread.
class InstanceEnding : public std::enable_shared_from_this<InstanceEnding> {
 public:
  explicit InstanceEnding(std::shared_ptr<InstanceParts> parts);
  InstanceEnding(const InstanceEnding&) = delete;
  InstanceEnding& operator=(const InstanceEnding&) = delete;

  /// As morvik::MorvikCore::stop(). False: this thread is within a callback of the host, and nothing was done; or the
  /// memory ran out, and a further call goes on.
  bool stop();
  /// stop() without the handlers of what is in flight; then, before any stop() returns, it calls `last`, whose lines
  /// are the last ones of the log. When another thread stops the host or did, `last` is called after that, and the log
  /// is closed. Not from within a callback.
  void stopAndThen(const std::function<void()>& last);
  /// This thread is within a function of the app's that the host has called, or within a block of its queues.
  bool isWithinCallback() const;
  /// Of KeptForGood.
  InstanceEnding* kept_before = nullptr;

  /// stop(). Where that is not possible, within a callback: commits, lets nothing more leave, calls nothing of the
  /// app's any more, and keeps the parts for good, since the callback goes back into them. In a forked child it keeps
  /// them for good and touches nothing: they are the parent's.
  void stopOrLeave();

 private:
  class Closing;
  enum class Stage { kRunning, kStopping, kStopped };

  /// False when another call does or did it; then waits until that one is done.
  bool begin();
  bool closeGuarded(std::chrono::steady_clock::time_point begun, const std::function<void()>& last);
  void close(std::chrono::steady_clock::time_point begun, const std::function<void()>& last);
  void finish(bool is_closed, std::chrono::steady_clock::time_point deadline, Status status,
              const std::function<void()>& last = {});
  void writeLastLines(bool is_closed, std::chrono::steady_clock::time_point deadline);
  void leave();
  void leaveWithoutMemory();
  /// And the parts with it, for good; takes neither memory nor locks.
  void keepItself();
  void leaveQueues(std::chrono::steady_clock::time_point deadline, bool is_first);
  std::unique_ptr<MachineThread> startThread(const char* name, std::function<void()> body);
  void setStage(Stage stage);

  const std::shared_ptr<InstanceParts> parts_;
  std::shared_ptr<InstanceEnding> itself_;  ///< of one that is kept for good
  std::mutex mutex_;
  std::condition_variable stopped_;
  Stage stage_ = Stage::kRunning;
};

/// To be called before a host of this process makes anything: hosts that run at the end of the process are then stopped
/// before anybody's exit handler of earlier date. Libraries that clean up what the kit's threads may still use are the
/// machine's affair, and are seen to before.
void prepareForExit();
/// `ending` is stopped at the end of the process, which is `process`, if it is still there.
void stopAtExit(const std::shared_ptr<InstanceEnding>& ending, const OwnProcess& process);

}  // namespace morvik::runtime
