// A platform log that keeps its lines.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/log.h"
#include "testing/recording.h"

namespace morvik::testing {

/// The five fields before a message: "LEVEL COMPONENT:FILE:LINE:OPERATION MESSAGE".
struct LogPrefix {
  std::string level;      ///< "ERROR"
  std::string component;  ///< "Kesmo"
  std::string file;       ///< "tracking.cpp"
  int line = 0;
  std::string operation;  ///< "-[MorvikCoreLib tracking:]_block_invoke"
};

struct LogLine {
  std::string text;                 ///< the whole line, without its line feed
  std::optional<LogPrefix> prefix;  ///< nothing for a line that bypassed the logger
  std::string message;              ///< the text without the prefix
};

/// Splits a line into its parts. A line without the whole prefix is all message.
LogLine splitLogLine(std::string_view text);

/// Keeps the latest kMaxRecordedEntries lines. Single calls are safe from any thread; nothing blocks.
class RecordingLog : public kit::LogSink {
 public:
  void line(std::string_view text) override { lines_.add(splitLogLine(text)); }
  bool tryLine(std::string_view text) override {
    lines_.add(splitLogLine(text));
    return true;
  }

  std::vector<LogLine> lines() const { return lines_.all(); }
  /// The messages, without prefixes, in order.
  std::vector<std::string> messages() const;
  /// The messages logged by that operation ("-[MorvikCoreLib tracking:]"), in order.
  std::vector<std::string> messagesOf(std::string_view operation) const;
  /// The first line with exactly this message; nothing if there is none.
  std::optional<LogLine> find(std::string_view message) const;
  /// Whether any line has exactly this message.
  bool has(std::string_view message) const { return find(message).has_value(); }
  /// How many lines have exactly this message.
  size_t count(std::string_view message) const;
  /// How many lines contain this text.
  size_t countContaining(std::string_view part) const;
  void clear() { lines_.clear(); }

 private:
  Recording<LogLine> lines_;
};

}  // namespace morvik::testing
