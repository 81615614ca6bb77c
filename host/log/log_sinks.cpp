#include "host/log/log_sinks.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

namespace morvik::host {
namespace {

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

std::string withLineFeed(std::string_view text) {
  std::string line(text);
  line += '\n';
  return line;
}

}  // namespace

void StderrLogSink::line(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::scoped_lock hold(mutex_);
  writeAll(STDERR_FILENO, whole);
}

bool StderrLogSink::tryLine(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::unique_lock hold(mutex_, std::try_to_lock);
  writeAll(STDERR_FILENO, whole);
  return true;
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
