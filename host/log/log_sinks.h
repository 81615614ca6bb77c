// Where the host's log lines go.
#pragma once

#include <functional>
#include <string_view>

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
