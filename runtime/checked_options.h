// The app's options, read and found fit.
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

/// A larger file of keys is refused.
inline constexpr size_t kMaxKeyFileBytes = 65'536;

struct CheckedOptions {
  /// As given, but for an advertising identifier that counts as none, the log level where the environment has another,
  /// and paths that were relative.
  StartOptions options;
  DebugEnvironment environment;  ///< changes nothing unless the app allows it
  std::string app_key;
  std::string hash_key;
  std::string tracking_key;  ///< may be empty
  kit::Endpoints endpoints;
  bool has_loopback_endpoint = false;
  /// What is no error and hardly meant: one line each, which names the option, what it counts as and how to mend it.
  std::vector<std::string> warnings;
};

/// Reads the keys, from file or environment where they say so, and completes the URLs; takes in what the environment
/// changes where the app allows it; all three by way of `inputs`. Reads small files; otherwise does not block. The
/// error names the option or the variable, what is wrong with it, and how to mend it; no key stands in it.
std::variant<CheckedOptions, kit::Error> checkOptions(const StartOptions& options, const MachineInputs& inputs);

}  // namespace morvik::runtime
