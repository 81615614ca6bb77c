// Where log lines go on the system.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "kit/error.h"
#include "kit/mutex.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

/// Standard error, with a line feed after each line; lines of several threads do not mix. A pipe that nobody reads
/// blocks line() until it is read, or the instance ends.
class StderrLogSink final : public runtime::MachineLogSink {
 public:
  void line(std::string_view text) override;
  /// May be written in the middle of another line; dropped if standard error takes nothing now.
  bool tryLine(std::string_view text) override;
  void waitUntil(std::chrono::steady_clock::time_point deadline) override { deadline_ = deadline; }

 private:
  enum class Wait { kUntilDeadline, kNot };
  bool write(std::string_view line, Wait wait) const;
  bool isReady(Wait wait) const;

  kit::Mutex mutex_;
  std::atomic<std::chrono::steady_clock::time_point> deadline_{std::chrono::steady_clock::time_point::max()};
};

/// Appends lines to a file; each is in the kernel's hands when line() returns. A line that cannot be written is
/// dropped.
class FileLogSink final : public runtime::MachineLogSink {
 public:
  /// Opens the file, or creates one that only this user may read and write; an existing file keeps its permissions. It
  /// must be a regular file. The error says why it cannot be used.
  static std::variant<std::unique_ptr<FileLogSink>, kit::Error> open(const std::string& path);
  ~FileLogSink() override;
  FileLogSink(const FileLogSink&) = delete;
  FileLogSink& operator=(const FileLogSink&) = delete;

  void line(std::string_view text) override;
  /// Always written; may be in the middle of another line.
  bool tryLine(std::string_view text) override;

 private:
  explicit FileLogSink(int descriptor) : descriptor_(descriptor) {}
  const int descriptor_;
  kit::Mutex mutex_;
};

/// Where lines go on the system: the file at this path or, with "", standard error.
std::variant<std::unique_ptr<runtime::MachineLogSink>, kit::Error> makeSystemLogSink(const std::string& file);

}  // namespace morvik::host
