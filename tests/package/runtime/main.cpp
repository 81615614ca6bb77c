// A platform that links the runtime without host/: the runtime checks options by what the platform says.

#include <morvik/morvik.h>

#include <iostream>
#include <optional>
#include <string>
#include <variant>

#include "runtime/checked_options.h"
#include "runtime/start.h"

namespace {

/// No files, no environment, and a network that accepts every URL.
class Inputs final : public morvik::runtime::MachineInputs {
 public:
  std::optional<std::string> readFile(const std::string&, size_t) const override { return std::nullopt; }
  std::optional<std::string> variable(const std::string&) const override { return std::nullopt; }
  std::variant<morvik::runtime::UrlFacts, morvik::kit::Error> checkUrl(const std::string&) const override {
    return morvik::runtime::UrlFacts{};
  }
  std::optional<morvik::kit::Error> checkPlaces(const morvik::StartOptions&) const override { return std::nullopt; }
  std::string absolutePath(const std::string& path) const override { return path; }
};

}  // namespace

int main() {
  // Linked, so that everything a running kit needs must be there; never called.
  auto* const volatile start = &morvik::runtime::start;
  morvik::StartOptions options;
  options.store_folder = "store";
  options.app_key = "consumer";
  options.hash_key = "0123456789abcdef";
  options.tracking_key = "fedcba9876543210";
  options.service_url = "https://service.example";
  const auto checked = morvik::runtime::checkOptions(options, Inputs());
  const auto* const fine = std::get_if<morvik::runtime::CheckedOptions>(&checked);
  if (start == nullptr || fine == nullptr || fine->endpoints.kCommerceBaseLiveUrl != "https://service.example/")
    return 1;
  std::cout << "the runtime works\n";
  return 0;
}
