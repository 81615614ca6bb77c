#include "runtime/log/logged_lines.h"

#include <algorithm>

namespace morvik::runtime {

void LoggedLines::line(std::string_view text) {
  write(logger_, text);
}

bool LoggedLines::tryLine(std::string_view text) {
  write(logger_.withoutWaiting(), text);
  return true;
}

void LoggedLines::write(const services::Logger& logger, std::string_view text) const {
  if (logger.enabled(kit::lcl_vError))
    logger.write(kit::lcl_vError, MORVIK_HERE(operation_), "%@", {text});
}

StartLog::StartLog(int level, kit::LogSink& sink, const char* operation)
    : sink_(sink), lines_(services::Logger(levels_, sink_), operation) {
  setKitLevel(levels_, level);
}

void setKitLevel(kit::LogLevels& levels, int level) {
  const int known = std::clamp(level, int{kit::lcl_vOff}, int{kit::lcl_vTrace});
  levels._lcl_component_level[kit::lcl_cKesmo] = static_cast<uint8_t>(known);
}

}  // namespace morvik::runtime
