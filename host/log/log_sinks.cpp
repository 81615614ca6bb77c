#include "host/log/log_sinks.h"

#include <unistd.h>

#include <cerrno>
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

}  // namespace

void StderrLogSink::line(std::string_view text) {
  std::string whole(text);
  whole += '\n';
  const std::scoped_lock hold(mutex_);
  writeAll(STDERR_FILENO, whole);
}

void AppLogSink::line(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  try {
    take_(text);
  } catch (...) {
    return;
  }
}

}  // namespace morvik::host
