// The options of `morvik-device run`.
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "apps/command_line/command_line.h"
#include "apps/device/modules.h"
#include "morvik/start_options.h"

namespace morvik_device {

/// Wrong options, wrong input, a store that cannot be opened: the program ends with this.
using morvik_command_line::kExitUsage;

struct Options {
  morvik::StartOptions start;
  ModuleNames modules;
  std::string script;  ///< file of verbs; "": standard input
  bool report_ledger = false;
};

/// Adds the options to `app`. The result is complete once `app` was run; its callback throws UsageError for options
/// that do not fit together. Opens no file; only checks that those named exist.
std::shared_ptr<const Options> describeRunOptions(CLI::App& app);

/// The options in `arguments`, or one line: what is wrong and how to fix it.
std::variant<Options, std::string> readOptions(const std::vector<std::string>& arguments);

}  // namespace morvik_device
