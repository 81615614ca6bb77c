// The device: the options of `run`, read and checked as on the command line.
#include <algorithm>
#include <array>
#include <utility>
#include <variant>

#include "apps/device/option_names.h"
#include "apps/device/scenario/fields.h"
#include "apps/device/scenario/scenario_parts.h"
#include "host/system_inputs.h"
#include "runtime/checked_options.h"

namespace morvik_device::scenario {
namespace {

struct Default {
  std::string_view option;
  std::string_view value;
};

// Options that are required. The whole log is kept, so that any line of it can be expected.
constexpr std::array kDefaults = {
    Default{"store", "simulated"},
    Default{"service", "https://service.example/"},
    Default{"app-key", "simulated-app"},
    Default{"hash-key", "simulated-hash-key"},
    Default{"tracking-key", "simulated-tracking-key"},
    Default{"log-level", "6"},
};

std::vector<std::string_view> deviceKeys() {
  return {"app-key", "hash-key",    "tracking-key", "system-version",  "idfa",
          "puid",    "orientation", "search-ads",   "no-multitasking", "no-sending",
          "iad",     "module",      "log-level"};
}

std::string argument(std::string_view option, const std::string& value) {
  return "--" + std::string(option) + "=" + value;
}

void appendArguments(const YamlMember& member, std::vector<std::string>& arguments) {
  if (member.key == "no-multitasking" || member.key == "no-sending") {
    if (booleanOf(member.value, member.key))
      arguments.push_back("--" + member.key);
    return;
  }
  if (member.key == "search-ads" && member.value.isMap()) {
    arguments.push_back(argument(member.key, jsonTextOf(member.value)));
    return;
  }
  if (member.key != "module") {
    arguments.push_back(argument(member.key, textOf(member.value, member.key)));
    return;
  }
  for (const YamlNode* module : oneOrMore(member.value, member.key))
    arguments.push_back(argument(member.key, textOf(*module, member.key)));
}

std::vector<std::string> withDefaults(std::vector<std::string> arguments) {
  for (const Default& each : kDefaults) {
    const std::string start = argument(each.option, "");
    const bool is_given = std::any_of(arguments.begin(), arguments.end(), [&](const std::string& given) {
      return given.compare(0, start.size(), start) == 0;
    });
    if (!is_given)
      arguments.push_back(start + std::string(each.value));
  }
  return arguments;
}

Options checkedOptions(const std::vector<std::string>& arguments, Place place) {
  auto read = readOptions(withDefaults(arguments));
  if (const auto* problem = std::get_if<std::string>(&read))
    throw Mistake(place, *problem);
  auto& options = std::get<Options>(read);
  const auto checked = morvik::runtime::checkOptions(options.start, morvik::host::SystemInputs());
  if (const auto* error = std::get_if<morvik::kit::Error>(&checked))
    throw Mistake(place, withOptionName(error->message));
  return std::move(options);
}

}  // namespace

Options readDevice(const YamlNode* node) {
  std::vector<std::string> all;
  if (node != nullptr) {
    const Fields fields(*node, "\"device\"", deviceKeys());
    for (const YamlMember& member : node->members) {
      std::vector<std::string> of_member;
      appendArguments(member, of_member);
      checkedOptions(of_member, member.value.place);
      all.insert(all.end(), of_member.begin(), of_member.end());
    }
  }
  return checkedOptions(all, node == nullptr ? Place() : node->place);
}

}  // namespace morvik_device::scenario
