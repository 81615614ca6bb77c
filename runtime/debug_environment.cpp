#include "runtime/debug_environment.h"

namespace morvik::runtime {
namespace {

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

DebugEnvironment readDebugEnvironment(const MachineInputs& inputs) {
  return {.log_level = inputs.variable(kLogLevelVariable).value_or(""),
          .log_file = inputs.variable(kLogFileVariable).value_or(""),
          .service_url = inputs.variable(kServiceUrlVariable).value_or("")};
}

}  // namespace morvik::runtime
