#include "host/log/log_sinks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <system_error>

#include "host/files/write_all.h"

namespace morvik::host {
namespace {

std::string withLineFeed(std::string_view text) {
  std::string line(text);
  line += '\n';
  return line;
}

constexpr mode_t kForThisUserAlone = 0600;

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

std::variant<std::unique_ptr<FileLogSink>, kit::Error> FileLogSink::open(const std::string& path) {
  // Not blocking: a pipe without a reader would hold the start up.
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kForThisUserAlone);
  if (descriptor < 0)
    return kit::Error{"the file " + path + " cannot be opened (" + std::generic_category().message(errno) +
                      "); mend its path or its permissions."};
  struct stat facts {};
  if (fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode)) {
    ::close(descriptor);
    return kit::Error{path + " is no regular file; name one."};
  }
  return std::unique_ptr<FileLogSink>(new FileLogSink(descriptor));
}

FileLogSink::~FileLogSink() {
  ::close(descriptor_);
}

void FileLogSink::line(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::scoped_lock hold(mutex_);
  static_cast<void>(writeAll(descriptor_, whole));
}

bool FileLogSink::tryLine(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::unique_lock hold(mutex_, std::try_to_lock);
  return writeAll(descriptor_, whole);
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
