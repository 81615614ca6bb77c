// Completion scripts as text.
#pragma once

#include <string>
#include <vector>

#include "apps/command_line/completion.h"

namespace morvik_command_line {

struct CompletedSubcommand {
  std::string name;
  std::string help;
  std::vector<CompletedOption> options;
  std::vector<CompletedValue> arguments;  ///< positional
};

struct CompletedProgram {
  std::string name;
  std::vector<CompletedSubcommand> subcommands;  ///< the first is the default
};

/// For bash 4 and later. Needs no other script.
std::string bashScript(const CompletedProgram& program);
/// Placed on fpath as _NAME, or sourced.
std::string zshScript(const CompletedProgram& program);

}  // namespace morvik_command_line
