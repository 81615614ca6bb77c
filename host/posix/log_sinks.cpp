#include "host/posix/log_sinks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <mutex>
#include <string>
#include <system_error>

#include "host/posix/open_file.h"
#include "host/posix/write_all.h"

namespace morvik::host {
namespace {

std::string withLineFeed(std::string_view text) {
  std::string line(text);
  line += '\n';
  return line;
}

constexpr mode_t kForThisUserAlone = 0600;
/// Between two checks whether the instance is ending.
constexpr int kSliceMilliseconds = 50;

}  // namespace

void StderrLogSink::line(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::scoped_lock hold(mutex_);
  static_cast<void>(write(whole, Wait::kUntilDeadline));
}

bool StderrLogSink::tryLine(std::string_view text) {
  const std::string whole = withLineFeed(text);
  const std::unique_lock hold(mutex_, std::try_to_lock);
  return write(whole, Wait::kNot);
}

/// A ready pipe takes this many bytes without waiting.
bool StderrLogSink::write(std::string_view line, Wait wait) const {
  while (!line.empty()) {
    const std::string_view part = line.substr(0, PIPE_BUF);
    if (!isReady(wait) || !writeAll(STDERR_FILENO, part))
      return false;
    line.remove_prefix(part.size());
  }
  return true;
}

/// Also true if it is broken or closed: writing then reports it.
bool StderrLogSink::isReady(Wait wait) const {
  pollfd polled{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  for (;;) {
    const bool may_wait = wait == Wait::kUntilDeadline && std::chrono::steady_clock::now() < deadline_.load();
    if (::poll(&polled, 1, may_wait ? kSliceMilliseconds : 0) > 0)
      return true;
    if (!may_wait)
      return false;
  }
}

std::variant<std::unique_ptr<FileLogSink>, kit::Error> FileLogSink::open(const std::string& path) {
  // Non-blocking: a pipe without a reader would block the start.
  const int descriptor =
      openFile(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_NONBLOCK, kForThisUserAlone);
  if (descriptor < 0)
    return kit::Error{"the file " + path + " cannot be opened (" + std::generic_category().message(errno) +
                      "); fix its path or its permissions."};
  struct stat facts {};
  if (fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode)) {
    ::close(descriptor);
    return kit::Error{path + " is not a regular file; name one."};
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

std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> makeSystemLogSink(const std::string& file) {
  if (file.empty())
    return std::make_unique<StderrLogSink>();
  auto opened = FileLogSink::open(file);
  if (auto* error = std::get_if<kit::Error>(&opened))
    return std::move(*error);
  return std::move(std::get<std::unique_ptr<FileLogSink>>(opened));
}

}  // namespace morvik::host
