// What the environment overrides for debugging, if the app allows it (StartOptions::allow_environment).
#pragma once

#include <string>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

inline constexpr const char* kLogLevelVariable = "MORVIK_LOG_LEVEL";
inline constexpr const char* kLogFileVariable = "MORVIK_LOG_FILE";
inline constexpr const char* kServiceUrlVariable = "MORVIK_SERVICE_URL";

/// The variables' values, unchecked. "": unset or empty, which changes nothing.
struct DebugEnvironment {
  std::string log_level;
  std::string log_file;
  std::string service_url;

  /// For example "log level (MORVIK_LOG_LEVEL), service (MORVIK_SERVICE_URL)"; "" if it changes nothing.
  std::string changes() const;
};

/// Reads the machine's environment. No other thread may change it meanwhile.
DebugEnvironment readDebugEnvironment(const MachineInputs& inputs);

}  // namespace morvik::runtime
