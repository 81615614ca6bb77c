// Lines of the parts of a machine that take whole lines to a log, written through the logger.
#pragma once

#include <string_view>

#include "kit/log.h"
#include "services/log.h"

namespace morvik::runtime {

/// A log whose lines are the logger's, at level error: none at level 0. Any thread, as the logger's sink.
class LoggedLines final : public kit::LogSink {
 public:
  /// `operation` stands in the prefix of each line; a literal.
  LoggedLines(const services::Logger& logger, const char* operation) : logger_(logger), operation_(operation) {}
  void line(std::string_view text) override;
  /// True also where the level lets nothing through, or the sink dropped it.
  bool tryLine(std::string_view text) override;

 private:
  void write(const services::Logger& logger, std::string_view text) const;

  const services::Logger logger_;
  const char* const operation_;
};

/// The log of what runs before a host has one of its own: at a fixed level.
class StartLog {
 public:
  /// `sink` outlives it.
  StartLog(int level, kit::LogSink& sink, const char* operation);
  StartLog(const StartLog&) = delete;
  StartLog& operator=(const StartLog&) = delete;
  kit::LogSink& lines() { return lines_; }
  /// From here on its lines go there. `sink` outlives it. Before other threads come.
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

/// The component under which the kit logs, at the nearest level that there is.
void setKitLevel(kit::LogLevels& levels, int level);

}  // namespace morvik::runtime
