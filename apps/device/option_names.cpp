#include "apps/device/option_names.h"

#include <string_view>

namespace morvik_device {
namespace {

struct OptionName {
  std::string_view of_host;
  std::string_view of_program;
};

constexpr OptionName kOptionNames[] = {
    {"HostOptions::store_folder", "--store"},  {"HostOptions::app_key", "--app-key"},
    {"HostOptions::hash_key", "--hash-key"},   {"HostOptions::tracking_key", "--tracking-key"},
    {"HostOptions::service_url", "--service"}, {"HostOptions::endpoints", "--endpoint"},
    {"HostOptions::ca_file", "--ca"},          {"HostOptions::log_level", "--log-level"},
};

}  // namespace

std::string inTermsOfTheProgram(std::string message) {
  for (const OptionName& name : kOptionNames) {
    if (message.compare(0, name.of_host.size(), name.of_host) == 0)
      return message.replace(0, name.of_host.size(), name.of_program);
  }
  return message;
}

}  // namespace morvik_device
