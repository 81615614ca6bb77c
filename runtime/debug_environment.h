// What the environment changes for debugging, where the app allows it (StartOptions::allow_environment).
#pragma once

#include <string>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

inline constexpr const char* kLogLevelVariable = "MORVIK_LOG_LEVEL";
inline constexpr const char* kLogFileVariable = "MORVIK_LOG_FILE";
inline constexpr const char* kServiceUrlVariable = "MORVIK_SERVICE_URL";

/// As the variables have it, not checked yet. "": not set, or set to nothing, which changes nothing.
struct DebugEnvironment {
  std::string log_level;
  std::string log_file;
  std::string service_url;

  /// "log level (MORVIK_LOG_LEVEL), service (MORVIK_SERVICE_URL)"; "" when it changes nothing.
  std::string changes() const;
};

/// Asks the environment of the machine. No other thread may change it meanwhile.
DebugEnvironment readDebugEnvironment(const MachineInputs& inputs);

}  // namespace morvik::runtime
