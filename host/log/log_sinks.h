// Where the host's log lines go.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "kit/error.h"
#include "kit/log.h"
#include "kit/mutex.h"

namespace morvik::host {

/// Standard error, one line feed after each line; lines of several threads do not mix.
class StderrLogSink final : public kit::LogSink {
 public:
  void line(std::string_view text) override;
  /// Written in any case; it may then stand in the middle of another line.
  bool tryLine(std::string_view text) override;

 private:
  kit::Mutex mutex_;
};

/// A file, to which lines are appended; each is in the kernel's hands when line() returns. One that cannot be written
/// is dropped.
class FileLogSink final : public kit::LogSink {
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

/// The app. One call at a time; what it throws is dropped, for there is no log to write it to.
class AppLogSink final : public kit::LogSink {
 public:
  using Take = std::function<void(std::string_view line)>;
  explicit AppLogSink(Take take) : take_(std::move(take)) {}
  void line(std::string_view text) override;
  /// Dropped while the app is taking another one.
  bool tryLine(std::string_view text) override;

 private:
  void take(std::string_view text) const;
  kit::Mutex mutex_;
  const Take take_;
};

}  // namespace morvik::host
