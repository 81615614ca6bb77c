#include "apps/device/option_names.h"

#include <string_view>

namespace morvik_device {
namespace {

struct OptionName {
  std::string_view field;
  std::string_view option;
};

constexpr OptionName kOptionNames[] = {
    {"StartOptions::store_folder", "--store"},  {"StartOptions::app_key", "--app-key"},
    {"StartOptions::hash_key", "--hash-key"},   {"StartOptions::tracking_key", "--tracking-key"},
    {"StartOptions::service_url", "--service"}, {"StartOptions::endpoints", "--endpoint"},
    {"StartOptions::ca_file", "--ca"},          {"StartOptions::log_level", "--log-level"},
};

}  // namespace

std::string withOptionName(std::string message) {
  for (const OptionName& name : kOptionNames) {
    if (message.compare(0, name.field.size(), name.field) == 0)
      return message.replace(0, name.field.size(), name.option);
  }
  return message;
}

}  // namespace morvik_device
