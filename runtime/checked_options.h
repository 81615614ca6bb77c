// The app's options, read and validated.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "kit/endpoints.h"
#include "kit/error.h"
#include "morvik/start_options.h"
#include "runtime/debug_environment.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// A larger key file is refused.
inline constexpr size_t kMaxKeyFileBytes = 65'536;

struct CheckedOptions {
  /// As given, except for: an advertising identifier that counts as none, the log level if the environment overrides
  /// it, and relative paths, which are made absolute.
  StartOptions options;
  DebugEnvironment environment;  ///< changes nothing unless the app allows it
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;  ///< may be empty
  kit::Endpoints endpoints;
  bool has_loopback_endpoint = false;
  /// Not errors, but hardly intended. One line each: the option, what it counts as, and how to fix it.
  std::vector<std::string> warnings;
};

/// Reads the keys (from a file or the environment if they say so), completes the URLs, and applies the environment's
/// changes if the app allows them; all through `inputs`. Reads small files; otherwise does not block. An error names
/// the option or the variable, says what is wrong and how to fix it, and contains no key.
std::variant<CheckedOptions, kit::Error> checkOptions(const StartOptions& options, const MachineInputs& inputs);

}  // namespace morvik::runtime
