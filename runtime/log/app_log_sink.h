// The log of an instance: the app's, if it takes the lines itself; closed when the instance ends.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "kit/log.h"
#include "kit/mutex.h"
#include "runtime/call_gate.h"
#include "runtime/life/own_process.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// The app's function. One call at a time; its exceptions are dropped, since there is no log for them. Not called in a
/// forked child, where lines go to the sink for forks.
class AppLogSink final : public MachineLogSink {
 public:
  using Take = std::function<void(std::string_view line)>;
  /// `in_fork` takes the lines of children forked from `process`.
  AppLogSink(Take take, std::unique_ptr<MachineLogSink> in_fork, const OwnProcess& process)
      : process_(process), take_(std::move(take)), in_fork_(std::move(in_fork)) {}
  void line(std::string_view text) override;
  /// Dropped while the app is taking another line.
  bool tryLine(std::string_view text) override;

 private:
  void take(std::string_view text) const;
  const OwnProcess process_;
  kit::Mutex mutex_;
  const Take take_;
  const std::unique_ptr<MachineLogSink> in_fork_;
};

/// The log of an instance, which ends with it: once closed it passes nothing on.
class ClosableLogSink final : public kit::LogSink {
 public:
  ClosableLogSink(std::unique_ptr<MachineLogSink> sink, const OwnProcess& process)
      : sink_(std::move(sink)), process_(process) {}
  void line(std::string_view text) override;
  bool tryLine(std::string_view text) override;
  /// As MachineLogSink says.
  void waitUntil(std::chrono::steady_clock::time_point deadline) { sink_->waitUntil(deadline); }
  /// Admits no further line. Waits until `deadline` at most for those being written; false: one still is. Within the
  /// sink only with a deadline that has passed.
  bool close(std::chrono::steady_clock::time_point deadline) { return gate_.close(deadline); }

 private:
  const std::unique_ptr<MachineLogSink> sink_;
  const OwnProcess process_;
  CallGate gate_;
};

}  // namespace morvik::runtime
