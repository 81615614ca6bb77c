#include "host/log/log_sinks.h"

#include <unistd.h>

#include <mutex>
#include <string>

#include "host/files/write_all.h"

namespace morvik::host {
namespace {

std::string withLineFeed(std::string_view text) {
  std::string line(text);
  line += '\n';
  return line;
}

}  // namespace

void StderrLogSink::line(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::scoped_lock hold(mutex_);
  static_cast<void>(writeAll(STDERR_FILENO, whole));
}

bool StderrLogSink::tryLine(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::unique_lock hold(mutex_, std::try_to_lock);
  return writeAll(STDERR_FILENO, whole);
}

void AppLogSink::line(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  take(text);
}

bool AppLogSink::tryLine(std::string_view text) {
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

}  // namespace morvik::host
