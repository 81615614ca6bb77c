// Where the host's log lines go.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "host/call_gate.h"
#include "host/life/own_process.h"
#include "kit/error.h"
#include "kit/log.h"
#include "kit/mutex.h"

namespace morvik::host {

/// One of those below.
class HostLogSink : public kit::LogSink {
 public:
  /// The host ends: line() waits for the system until then at most, and drops what it does not take. Any thread.
  virtual void waitUntil(std::chrono::steady_clock::time_point /*deadline*/) {}
};

/// Standard error, one line feed after each line; lines of several threads do not mix. A pipe that nobody reads holds
/// line() up until it is read, or the host ends.
class StderrLogSink final : public HostLogSink {
 public:
  void line(std::string_view text) override;
  /// It may stand in the middle of another line; dropped when standard error takes nothing now.
  bool tryLine(std::string_view text) override;
  void waitUntil(std::chrono::steady_clock::time_point deadline) override { deadline_ = deadline; }

 private:
  enum class Wait { kUntilDeadline, kNot };
  bool write(std::string_view line, Wait wait) const;
  bool isReady(Wait wait) const;

  kit::Mutex mutex_;
  std::atomic<std::chrono::steady_clock::time_point> deadline_{std::chrono::steady_clock::time_point::max()};
};

/// A file, to which lines are appended; each is in the kernel's hands when line() returns. One that cannot be written
/// is dropped.
class FileLogSink final : public HostLogSink {
 public:
  /// Opens the file, or makes one that this user alone may read and write; one that is there keeps its permissions. The
  /// error says why it cannot be used: it must be a regular file.
  static std::variant<std::unique_ptr<FileLogSink>, kit::Error> open(const std::string& path);
  ~FileLogSink() override;
  FileLogSink(const FileLogSink&) = delete;
  FileLogSink& operator=(const FileLogSink&) = delete;

  void line(std::string_view text) override;
  /// Written in any case; it may then stand in the middle of another line.
  bool tryLine(std::string_view text) override;

 private:
  explicit FileLogSink(int descriptor) : descriptor_(descriptor) {}
  const int descriptor_;
  kit::Mutex mutex_;
};

/// The app. One call at a time; what it throws is dropped, for there is no log to write it to. Not called in a forked
/// child: what is to be told there is written to standard error.
class AppLogSink final : public HostLogSink {
 public:
  using Take = std::function<void(std::string_view line)>;
  explicit AppLogSink(Take take) : take_(std::move(take)) {}
  void line(std::string_view text) override;
  /// Dropped while the app is taking another one.
  bool tryLine(std::string_view text) override;

 private:
  void take(std::string_view text) const;
  const OwnProcess process_;
  kit::Mutex mutex_;
  const Take take_;
};

/// The log of a host, which ends with it: once closed it passes nothing on, whoever writes.
class ClosableLogSink final : public kit::LogSink {
 public:
  explicit ClosableLogSink(std::unique_ptr<HostLogSink> sink) : sink_(std::move(sink)) {}
  void line(std::string_view text) override;
  bool tryLine(std::string_view text) override;
  /// As HostLogSink says.
  void waitUntil(std::chrono::steady_clock::time_point deadline) { sink_->waitUntil(deadline); }
  /// No further line. Waits until `deadline` at most for those that are being written; false: one is still. Not from
  /// within the sink, but with a deadline that has passed.
  bool close(std::chrono::steady_clock::time_point deadline) { return gate_.close(deadline); }

 private:
  const std::unique_ptr<HostLogSink> sink_;
  const OwnProcess process_;
  CallGate gate_;
};

}  // namespace morvik::host
