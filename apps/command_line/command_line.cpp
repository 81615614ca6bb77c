#include "apps/command_line/command_line.h"

#include <algorithm>
#include <utility>

#include "apps/command_line/completion.h"
#include "apps/command_line/nearest_name.h"

namespace morvik_command_line {
namespace {

using Words = std::vector<std::string>;

constexpr const char* kCompletion = "completion";
constexpr const char* kHelp = "help";
/// The values of an option are broken into lines of at most this many bytes.
constexpr size_t kMostValuesBytes = 90;

/// Breaks long lists of values behind a '|'.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string values = CLI::Formatter::make_option_opts(option);
    std::string lines;
    size_t begin = 0;
    while (values.size() - begin > kMostValuesBytes) {
      const size_t bar = values.rfind('|', begin + kMostValuesBytes - 1);
      if (bar == std::string::npos || bar < begin)
        break;
      lines += values.substr(begin, bar + 1 - begin) + "\n       ";
      begin = bar + 1;
    }
    return lines + values.substr(begin);
  }
};

// "help" and "help NAME" as --help and NAME --help.
Words withHelpAsOption(Words arguments) {
  if (!arguments.empty() && arguments.front() == kHelp) {
    arguments.erase(arguments.begin());
    arguments.emplace_back("--help");
  }
  return arguments;
}

// "--name=" is the option with an empty value; CLI11 would take the next argument for the value.
Words withEmptyValues(const Words& arguments) {
  Words all;
  for (const std::string& argument : arguments) {
    const bool has_empty_value = argument.substr(0, 2) == "--" && argument.find('=') == argument.size() - 1;
    all.push_back(has_empty_value ? argument.substr(0, argument.size() - 1) : argument);
    if (has_empty_value)
      all.emplace_back();
  }
  return all;
}

bool isRootOption(const std::string& argument) {
  return argument == "-h" || argument == "--help" || argument == "--version";
}

std::string listed(const Words& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string onOneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App& root) {
  return root.get_subcommands([](const CLI::App*) { return true; });
}

Words namesOf(const CLI::App& root) {
  Words names;
  for (const CLI::App* subcommand : subcommandsOf(root))
    names.push_back(subcommand->get_name());
  return names;
}

bool isFormer(const CLI::Option* option) {
  return option->get_group() == kFormerGroup;
}

// The subcommand that an argument chooses by its former option; "" for none.
std::string chosenByFormerOption(const CLI::App& root, const Words& arguments) {
  for (const std::string& argument : arguments) {
    for (const CLI::App* subcommand : subcommandsOf(root)) {
      for (const CLI::Option* option : subcommand->get_options(isFormer)) {
        if (option->check_name(argument.substr(0, argument.find('='))))
          return subcommand->get_name();
      }
    }
  }
  return "";
}

// An argument that a former option could replace is required without it.
void removeFormerOptions(CLI::App& root) {
  for (CLI::App* subcommand : root.get_subcommands([](CLI::App*) { return true; })) {
    for (CLI::Option* option : subcommand->get_options([](CLI::Option* each) { return isFormer(each); })) {
      for (CLI::Option* replaced : option->get_excludes()) {
        if (replaced->get_positional())
          replaced->required();
      }
      subcommand->remove_option(option);
    }
  }
}

std::string suggestOption(const CLI::App& root, const CLI::App& subcommand) {
  Words names;
  for (const CompletedOption& option : completedOptions(subcommand))
    names.insert(names.end(), option.names.begin(), option.names.end());
  for (const std::string& word : root.remaining(true)) {
    if (const auto near = nearestName(word.substr(0, word.find('=')), names))
      return "; did you mean " + *near + "?";
  }
  return "";
}

Printed refuse(const std::string& program, const std::string& problem, const std::string& subcommand) {
  const std::string see = problem.ends_with('?') ? " See " : "; see ";
  const std::string named = subcommand.empty() ? program : program + " " + subcommand;
  return {program + ": " + onOneLine(problem) + see + named + " --help\n", kExitUsage};
}

}  // namespace

void parseArguments(CLI::App& app, const Words& arguments) {
  Words all = withEmptyValues(arguments);
  std::reverse(all.begin(), all.end());  // CLI11 takes them from the back
  app.parse(std::move(all));
}

std::optional<std::string> tryParse(CLI::App& app, const Words& arguments) {
  try {
    parseArguments(app, arguments);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    return onOneLine(error.what());
  } catch (const UsageError& error) {
    return onOneLine(error.what());
  }
}

CommandLine::CommandLine(std::string program, std::string version, std::string help,
                         std::vector<Subcommand> subcommands)
    : program_(std::move(program)),
      version_(std::move(version)),
      help_(std::move(help)),
      subcommands_(std::move(subcommands)) {}

std::variant<Job, Printed> CommandLine::read(Words arguments) const {
  arguments = withHelpAsOption(std::move(arguments));
  std::vector<Job> jobs;
  const std::unique_ptr<CLI::App> app = makeApp(jobs);
  const auto choice = choose(*app, arguments);
  if (const auto* printed = std::get_if<Printed>(&choice))
    return *printed;
  const std::string& chosen = std::get<std::string>(choice);
  if (!chosen.empty() && (arguments.empty() || arguments.front() != chosen))
    arguments.insert(arguments.begin(), chosen);
  try {
    parseArguments(*app, arguments);
    return run(*app, chosen, jobs);
  } catch (const CLI::CallForHelp&) {
    removeFormerOptions(*app);
    return Printed{app->help(), 0};
  } catch (const CLI::CallForVersion& version) {
    return Printed{std::string(version.what()) + "\n", 0};
  } catch (const CLI::ExtrasError& error) {
    const std::string suggestion = chosen.empty() ? "" : suggestOption(*app, *app->get_subcommand(chosen));
    return refuse(program_, error.what() + suggestion, chosen);
  } catch (const CLI::ParseError& error) {
    return refuse(program_, error.what(), chosen);
  } catch (const UsageError& error) {
    return refuse(program_, error.what(), chosen);
  }
}

// The name of the subcommand, "" when an option of the program comes first.
std::variant<std::string, Printed> CommandLine::choose(const CLI::App& app, const Words& arguments) const {
  const std::string first = arguments.empty() ? "" : arguments.front();
  const Words names = namesOf(app);
  if (std::find(names.begin(), names.end(), first) != names.end())
    return first;
  if (isRootOption(first))
    return "";
  if (const std::string former = chosenByFormerOption(app, arguments); !former.empty())
    return former;
  if (arguments.empty() || first.starts_with('-'))
    return names.front();
  const auto near = nearestName(first, names);
  return refuse(program_,
                "there is no subcommand \"" + first + "\"; " +
                    (near ? "did you mean " + *near + "?" : "use one of: " + listed(names)),
                "");
}

std::variant<Job, Printed> CommandLine::run(CLI::App& app, const std::string& subcommand,
                                            const std::vector<Job>& jobs) const {
  for (size_t i = 0; i < subcommands_.size(); ++i) {
    if (subcommands_[i].name == subcommand)
      return jobs[i];
  }
  removeFormerOptions(app);
  return Printed{completionScript(app, app.get_subcommand(kCompletion)->get_option("SHELL")->as<std::string>()), 0};
}

std::unique_ptr<CLI::App> CommandLine::makeApp(std::vector<Job>& jobs) const {
  auto root = std::make_unique<CLI::App>(help_, program_);
  root->formatter(std::make_shared<HelpFormatter>());  // for the subcommands too, which inherit it
  root->set_help_flag("-h,--help", "prints this help");
  root->set_version_flag("--version", program_ + " " + version_, "prints the version");
  root->require_subcommand(1);
  root->fallthrough();  // for the subcommands, which inherit it
  for (const Subcommand& subcommand : subcommands_)
    jobs.push_back(subcommand.prepare(*root->add_subcommand(subcommand.name, subcommand.help)));
  CLI::App* const completion = root->add_subcommand(kCompletion, "Prints the completion script for a shell.");
  takeOneOf(completion->add_option("SHELL", "the shell")->required(), {"bash", "zsh"});
  completion->footer("For the current shell only: source <(" + program_ + " completion bash)");
  root->footer("Without a subcommand, " + subcommands_.front().name + " is meant. " + program_ +
               " SUBCOMMAND --help shows its options.");
  return root;
}

}  // namespace morvik_command_line
