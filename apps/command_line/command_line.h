// The command line of a program with subcommands: which one is meant, its options, help, and shell completion.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace morvik_command_line {

/// Wrong arguments, or something else that the caller must fix first.
inline constexpr int kExitUsage = 2;

/// Runs a subcommand whose arguments were read. Returns the exit status.
using Job = std::function<int()>;

/// Thrown by a callback of a subcommand's CLI::App: the arguments do not fit together. One line: what and how to fix
/// it.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Group of an option that chose its subcommand before this had a name. It still does, anywhere among the arguments,
/// but neither help nor completion shows it.
inline constexpr const char* kFormerGroup = "Former";

struct Subcommand {
  std::string name;
  std::string help;  ///< one line
  /// Adds the options to `app` and returns the job that runs with them. Called for help and completion too. The type
  /// name of an option says how its value is completed: see completionOf().
  std::function<Job(CLI::App& app)> prepare;
};

/// To be printed instead of running: help and version (status 0), or one line about a mistake (kExitUsage).
struct Printed {
  std::string text;
  int exit_status = 0;
};

/// Parses the arguments, which are without the program's name. `--name=` gives an empty value. Throws what
/// CLI::App::parse() throws, and UsageError.
void parseArguments(CLI::App& app, const std::vector<std::string>& arguments);

/// The same without help and version. Returns the mistake as one line, or nothing.
std::optional<std::string> tryParse(CLI::App& app, const std::vector<std::string>& arguments);

/// The option takes a number from `least` to `most`. Returns `option`.
template <typename Number>
CLI::Option* takeInRange(CLI::Option* option, Number least, Number most) {
  const CLI::Range range(least, most);
  const std::string shown = range.get_description();
  return option->check(range.description(shown.substr(shown.find('['))));
}

class CommandLine {
 public:
  /// The first subcommand is the default. `completion bash|zsh` is added to them.
  CommandLine(std::string program, std::string version, std::string help, std::vector<Subcommand> subcommands);

  /// Reads the arguments, which are without the program's name.
  std::variant<Job, Printed> read(std::vector<std::string> arguments) const;

 private:
  std::unique_ptr<CLI::App> makeApp(std::vector<Job>& jobs) const;
  std::variant<std::string, Printed> choose(const CLI::App& app, const std::vector<std::string>& arguments) const;
  std::variant<Job, Printed> run(CLI::App& app, const std::string& subcommand, const std::vector<Job>& jobs) const;

  std::string program_;
  std::string version_;
  std::string help_;
  std::vector<Subcommand> subcommands_;
};

}  // namespace morvik_command_line
