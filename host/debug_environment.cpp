#include "host/debug_environment.h"

#include <cstdlib>

namespace morvik::host {
namespace {

std::string valueOf(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr ? value : "";
}

void addChange(const std::string& value, const char* what, const char* variable, std::string& all) {
  if (!value.empty())
    all += (all.empty() ? "" : ", ") + std::string(what) + " (" + variable + ")";
}

}  // namespace

std::string DebugEnvironment::changes() const {
  std::string all;
  addChange(log_level, "log level", kLogLevelVariable, all);
  addChange(log_file, "log file", kLogFileVariable, all);
  addChange(service_url, "service", kServiceUrlVariable, all);
  return all;
}

DebugEnvironment readDebugEnvironment() {
  return {.log_level = valueOf(kLogLevelVariable),
          .log_file = valueOf(kLogFileVariable),
          .service_url = valueOf(kServiceUrlVariable)};
}

}  // namespace morvik::host
