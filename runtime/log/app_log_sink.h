// The log of a host: the app's, if it takes the lines itself, and closed when the host ends.
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

/// The app. One call at a time; what it throws is dropped, for there is no log to write it to. Not called in a forked
/// child, where lines go to the sink for forks.
class AppLogSink final : public MachineLogSink {
 public:
  using Take = std::function<void(std::string_view line)>;
  /// `in_fork` takes the lines of children that `process` forks.
  AppLogSink(Take take, std::unique_ptr<MachineLogSink> in_fork, const OwnProcess& process)
      : process_(process), take_(std::move(take)), in_fork_(std::move(in_fork)) {}
  void line(std::string_view text) override;
  /// Dropped while the app is taking another one.
  bool tryLine(std::string_view text) override;

 private:
  void take(std::string_view text) const;
  const OwnProcess process_;
  kit::Mutex mutex_;
  const Take take_;
  const std::unique_ptr<MachineLogSink> in_fork_;
};

/// The log of a host, which ends with it: once closed it passes nothing on, whoever writes.
class ClosableLogSink final : public kit::LogSink {
 public:
  ClosableLogSink(std::unique_ptr<MachineLogSink> sink, const OwnProcess& process)
      : sink_(std::move(sink)), process_(process) {}
  void line(std::string_view text) override;
  bool tryLine(std::string_view text) override;
  /// As MachineLogSink says.
  void waitUntil(std::chrono::steady_clock::time_point deadline) { sink_->waitUntil(deadline); }
  /// No further line. Waits until `deadline` at most for those that are being written; false: one is still. Not from
  /// within the sink, but with a deadline that has passed.
  bool close(std::chrono::steady_clock::time_point deadline) { return gate_.close(deadline); }

 private:
  const std::unique_ptr<MachineLogSink> sink_;
  const OwnProcess process_;
  CallGate gate_;
};

}  // namespace morvik::runtime
