// Shell completion, generated from the options of a program.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace morvik_command_line {

/// How the value of an option or a positional argument is completed.
struct CompletedValue {
  std::string name;                ///< as the help shows it
  std::vector<std::string> words;  ///< the values that can be listed
  bool is_file = false;
  bool is_folder = false;
};

struct CompletedOption {
  std::vector<std::string> names;  ///< with their dashes; the long ones first
  std::string help;
  bool takes_value = false;
  bool is_repeatable = false;
  CompletedValue value;
};

/// The option takes one of these values, and help and completion list them. Returns `option`.
CLI::Option* takeOneOf(CLI::Option* option, const std::vector<std::string>& values);

/// Read from the type name, alternatives separated by '|': one without a capital letter is a value, one that ends in
/// FILE is a file, in FOLDER or DIR a folder. For a positional argument without a type name, its own name counts.
CompletedValue completionOf(const CLI::Option& option);

/// The options of `app` and of the app it belongs to. Each name once.
std::vector<CompletedOption> completedOptions(const CLI::App& app);

/// The script that completes the arguments of `root`, whose first subcommand is the default. `shell` is "bash" or
/// "zsh".
std::string completionScript(const CLI::App& root, const std::string& shell);

}  // namespace morvik_command_line
