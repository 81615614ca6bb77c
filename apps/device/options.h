// The command line of the device app.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/device/modules.h"
#include "morvik/start_options.h"

namespace morvik_device {

/// Wrong options, wrong input, a store that cannot be had: the program ends with this.
inline constexpr int kExitUsage = 2;

struct Options {
  morvik::StartOptions start;
  ModuleNames modules;
  std::string script;  ///< file of verbs; "": standard input
  bool report_ledger = false;
};

/// What the command line asks for: to run, or to print something and end.
struct CommandLine {
  std::optional<Options> options;  ///< set: run with these
  std::string text;                ///< else print this: the help, or one line that says what is wrong
  int exit_status = 0;             ///< and end with this
};

/// Reads the arguments (without the program's name). Reads no file but to see that those named are there.
CommandLine readCommandLine(std::vector<std::string> arguments);

}  // namespace morvik_device
