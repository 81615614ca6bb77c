// Where the host's log lines go.
#pragma once

#include <functional>
#include <mutex>
#include <string_view>

#include "kit/log.h"

namespace morvik::host {

/// Standard error, one line feed after each line; lines of several threads do not mix.
class StderrLogSink final : public kit::LogSink {
 public:
  void line(std::string_view text) override;

 private:
  std::mutex mutex_;
};

/// The app. One call at a time; what it throws is dropped, for there is no log to write it to.
class AppLogSink final : public kit::LogSink {
 public:
  using Take = std::function<void(std::string_view line)>;
  explicit AppLogSink(Take take) : take_(std::move(take)) {}
  void line(std::string_view text) override;

 private:
  std::mutex mutex_;
  const Take take_;
};

}  // namespace morvik::host
