#include "runtime/log/app_log_sink.h"

#include <mutex>

namespace morvik::runtime {

void AppLogSink::line(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  take(text);
}

/// In a forked child the app's function may want a lock whose holder does not exist.
bool AppLogSink::tryLine(std::string_view text) {
  if (!process_.isHere())
    return in_fork_->tryLine(text);
  const std::unique_lock hold(mutex_, std::try_to_lock);
  if (!hold.owns_lock())
    return false;
  take(text);
  return true;
}

void AppLogSink::take(std::string_view text) const {
  try {
    take_(text);
  } catch (...) {
    return;
  }
}

void ClosableLogSink::line(std::string_view text) {
  const CallGate::Call call(gate_);
  if (call.isIn())
    sink_->line(text);
}

/// In a forked child nobody closes it, and a thread that was closing it cannot release the gate's lock.
bool ClosableLogSink::tryLine(std::string_view text) {
  if (!process_.isHere())
    return !gate_.isClosed() && sink_->tryLine(text);
  const CallGate::Call call(gate_);
  return call.isIn() && sink_->tryLine(text);
}

}  // namespace morvik::runtime
