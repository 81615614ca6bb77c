// The component logger of the core object.
#pragma once

#include <array>
#include <initializer_list>
#include <string_view>

#include "kit/log.h"
#include "services/format.h"

namespace morvik::services {

/// Entry L is the header of level L.
inline constexpr const char* _kesmo_lcl_level_header_1[] = {"OFF",  "CRITICAL", "ERROR", "WARNING",
                                                            "INFO", "DEBUG",    "TRACE"};
/// Entry C is the header of component C. The first is the core object's; the others belong to other kits.
inline constexpr std::array<const char*, kit::kLogComponents> _kesmo_lcl_component_header = {
    "Kesmo",        "Component 1",  "Component 2",  "Component 3",  "Component 4",  "Component 5",
    "Component 6",  "Component 7",  "Component 8",  "Component 9",  "Component 10", "Component 11",
    "Component 12", "Component 13", "Component 14", "Component 15", "Component 16", "Component 17"};

/// The place of a log statement: its file name (without folders), its line, and the operation's name on the platform.
struct LogSite {
  const char* file;
  int line;
  const char* operation;
};

/// Any thread. References, free to copy.
class Logger {
 public:
  Logger(const kit::LogLevels& levels, kit::LogSink& sink) : levels_(&levels), sink_(&sink) {}
  /// This logger, for a thread that is about to die and may hold any lock: a line that would have to wait for one is
  /// dropped.
  Logger withoutWaiting() const {
    Logger logger(*this);
    logger.may_wait_ = false;
    return logger;
  }

  /// True when the component's level lets lines of `level` through.
  bool enabled(kit::LogLevel level) const {
    return levels_->_lcl_component_level[kit::lcl_cKesmo].load(std::memory_order_relaxed) >= level;
  }
  /// Writes one line: the five-field prefix and the message. Ask enabled() first; MORVIK_LOG does both.
  void write(kit::LogLevel level, const LogSite& site, std::string_view text,
             std::initializer_list<FormatArgument> arguments) const;
  /// Writes a message straight to the platform log: no prefix, no level.
  void writePlain(std::string_view text, std::initializer_list<FormatArgument> arguments) const;

 private:
  void hand(std::string_view line) const;

  const kit::LogLevels* levels_;
  kit::LogSink* sink_;
  bool may_wait_ = true;
};

}  // namespace morvik::services

/// The place of this statement, for an operation named as on the platform.
#define MORVIK_HERE(operation)         \
  ::morvik::services::LogSite {        \
    __FILE_NAME__, __LINE__, operation \
  }

/// The one log statement. Arguments are evaluated only when the level lets the line through.
#define MORVIK_LOG(logger, level, operation, text, ...)                   \
  do {                                                                    \
    if ((logger).enabled(level))                                          \
      (logger).write(level, MORVIK_HERE(operation), text, {__VA_ARGS__}); \
  } while (false)
