// Writes whole lines from parts of a machine through the logger.
#pragma once

#include <string_view>

#include "kit/log.h"
#include "services/log.h"

namespace morvik::runtime {

/// A log whose lines the logger writes at level error: none at level 0. Any thread that the logger's sink allows.
class LoggedLines final : public kit::LogSink {
 public:
  /// `operation` appears in the prefix of each line; a literal.
  LoggedLines(const services::Logger& logger, const char* operation) : logger_(logger), operation_(operation) {}
  void line(std::string_view text) override;
  /// Also true if the level filters the line or the sink dropped it.
  bool tryLine(std::string_view text) override;

 private:
  void write(const services::Logger& logger, std::string_view text) const;

  const services::Logger logger_;
  const char* const operation_;
};

/// The log for what runs before an instance has its own; at a fixed level.
class StartLog {
 public:
  /// `sink` outlives it.
  StartLog(int level, kit::LogSink& sink, const char* operation);
  StartLog(const StartLog&) = delete;
  StartLog& operator=(const StartLog&) = delete;
  kit::LogSink& lines() { return lines_; }
  /// From now on its lines go to `sink`, which outlives it. Call before there are other threads.
  void passOnTo(kit::LogSink& sink) { sink_.to = &sink; }

 private:
  struct Sink final : kit::LogSink {
    explicit Sink(kit::LogSink& first) : to(&first) {}
    void line(std::string_view text) override { to->line(text); }
    bool tryLine(std::string_view text) override { return to->tryLine(text); }
    kit::LogSink* to;
  };

  kit::LogLevels levels_;
  Sink sink_;
  LoggedLines lines_;
};

/// The kit's log component, at the nearest existing level.
void setKitLevel(kit::LogLevels& levels, int level);

}  // namespace morvik::runtime
