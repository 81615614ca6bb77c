#include "services/log.h"

namespace morvik::services {

void Logger::write(kit::LogLevel level, const LogSite& site, std::string_view text,
                   std::initializer_list<FormatArgument> arguments) const {
  std::string line =
      format("%s %s:%@:%d:%s ", {_kesmo_lcl_level_header_1[level], _kesmo_lcl_component_header[kit::lcl_cKesmo],
                                 site.file, site.line, site.operation});
  line += format(text, arguments);
  hand(line);
}

void Logger::writePlain(std::string_view text, std::initializer_list<FormatArgument> arguments) const {
  hand(format(text, arguments));
}

void Logger::hand(std::string_view line) const {
  if (may_wait_)
    sink_->line(line);
  else
    sink_->tryLine(line);
}

}  // namespace morvik::services
