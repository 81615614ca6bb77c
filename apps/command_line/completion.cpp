#include "apps/command_line/completion.h"

#include <algorithm>
#include <set>
#include <string_view>

#include "apps/command_line/shell_scripts.h"

namespace morvik_command_line {
namespace {

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (true) {
    const size_t end = text.find(separator);
    parts.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos)
      return parts;
    text.remove_prefix(end + 1);
  }
}

bool isPlaceholder(const std::string& text) {
  return text.empty() || std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

CompletedOption completed(const CLI::Option& option) {
  CompletedOption result;
  for (const std::string& name : option.get_lnames())
    result.names.push_back("--" + name);
  for (const std::string& name : option.get_snames())
    result.names.push_back("-" + name);
  result.help = option.get_description();
  result.takes_value = option.get_items_expected_max() > 0;
  result.is_repeatable = option.get_items_expected_max() > 1;
  result.value = completionOf(option);
  return result;
}

}  // namespace

CLI::Option* takeOneOf(CLI::Option* option, const std::vector<std::string>& values) {
  std::string type;
  for (const std::string& value : values)
    type += (type.empty() ? "" : "|") + value;
  return option->type_name(type)->check(CLI::IsMember(values).description(""));
}

CompletedValue completionOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  CompletedValue value;
  value.name = type.empty() || option.get_positional() ? option.get_name(true) : type;
  for (const std::string& alternative : split(type.empty() ? value.name : type, '|')) {
    value.is_file |= alternative.ends_with("FILE");
    value.is_folder |= alternative.ends_with("FOLDER") || alternative.ends_with("DIR");
    if (!isPlaceholder(alternative))
      value.words.push_back(alternative);
  }
  return value;
}

std::vector<CompletedOption> completedOptions(const CLI::App& app) {
  std::vector<CompletedOption> options;
  std::set<std::string> seen;
  for (const CLI::App* owner = &app; owner != nullptr; owner = owner->get_parent()) {
    for (const CLI::Option* option : owner->get_options()) {
      CompletedOption found = completed(*option);
      if (!found.names.empty() && seen.insert(found.names.front()).second)
        options.push_back(std::move(found));
    }
  }
  return options;
}

std::string completionScript(const CLI::App& root, const std::string& shell) {
  CompletedProgram program{root.get_name(), {}};
  for (const CLI::App* app : root.get_subcommands([](const CLI::App*) { return true; })) {
    CompletedSubcommand subcommand{app->get_name(), app->get_description(), completedOptions(*app), {}};
    for (const CLI::Option* option : app->get_options()) {
      if (option->get_positional())
        subcommand.arguments.push_back(completionOf(*option));
    }
    program.subcommands.push_back(std::move(subcommand));
  }
  return shell == "zsh" ? zshScript(program) : bashScript(program);
}

}  // namespace morvik_command_line
