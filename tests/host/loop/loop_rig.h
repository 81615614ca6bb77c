// The queues of a real machine together, as the tests run them: on their own thread, or pumped by the test.
#pragma once

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "host/loop/main_loop.h"
#include "host/posix/background_thread.h"
#include "runtime/loop/background_tasks.h"
#include "testing/recording_log.h"

namespace morvik::host {

/// A wait for something that does not happen ends after this time, and the test fails.
inline constexpr std::chrono::seconds kGiveUp{20};
inline constexpr double kGrantSeconds = 0.05;

/// Wakes whoever waits after every turn of either queue.
class TurnBell {
 public:
  void ring() {
    const std::scoped_lock hold(mutex_);
    ++rings_;
    rung_.notify_all();
  }
  bool waitUntil(const std::function<bool()>& done) {
    const auto give_up = std::chrono::steady_clock::now() + kGiveUp;
    std::unique_lock hold(mutex_);
    for (;;) {
      const size_t seen = rings_;
      hold.unlock();
      if (done())
        return true;
      hold.lock();
      if (!rung_.wait_until(hold, give_up, [&] { return rings_ != seen; }))
        return false;
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable rung_;
  size_t rings_ = 0;
};

template <LoopMode mode>
class LoopRig {
 public:
  LoopRig() {
    log_levels._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vTrace;
    loop.setFrame([this](const kit::Block& turn) {
      turn();
      bell.ring();
    });
    background.setFrame([this](const kit::Block& turn) {
      turn();
      bell.ring();
    });
    background.setWhenIdle([this] { loop.async([] {}); });
    open_error = loop.open();
  }
  ~LoopRig() {
    background.stop(std::chrono::steady_clock::now() + kGiveUp);
    loop.stop();
  }

  kit::MainQueue& mainQueue() { return loop; }
  kit::BackgroundQueue& backgroundQueue() { return background; }
  kit::BackgroundTasks& backgroundTasks() { return tasks; }
  double grantSeconds() const { return kGrantSeconds; }
  double monotonicSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
  bool runUntil(const std::function<bool()>& done) {
    if constexpr (mode == LoopMode::kOwnThread)
      return bell.waitUntil(done);
    const auto give_up = std::chrono::steady_clock::now() + kGiveUp;
    while (!done()) {
      if (std::chrono::steady_clock::now() > give_up)
        return false;
      pump();
    }
    return true;
  }
  /// One round of an app's loop: waits as long as allowed, then dispatches.
  void pump() {
    pollfd descriptor{loop.pollDescriptor(), POLLIN, 0};
    constexpr int kGiveUpMilliseconds = std::chrono::milliseconds(kGiveUp).count();
    const int timeout = loop.pollTimeoutMilliseconds();
    poll(&descriptor, 1, timeout < 0 ? kGiveUpMilliseconds : timeout);
    loop.dispatch();
  }

  kit::LogLevels log_levels;
  testing::RecordingLog log;
  TurnBell bell;
  MainLoop loop{mode, services::Logger(log_levels, log)};
  BackgroundThread background{services::Logger(log_levels, log)};
  runtime::BackgroundTasks tasks{loop, kGrantSeconds};
  std::optional<kit::Error> open_error;
};

using OwnThreadRig = LoopRig<LoopMode::kOwnThread>;
using PumpedRig = LoopRig<LoopMode::kPumped>;

}  // namespace morvik::host
