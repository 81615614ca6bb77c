// What an app's options name outside of the app, on the system of the process.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "runtime/machine/machine.h"

namespace morvik::host {

class SystemInputs : public runtime::MachineInputs {
 public:
  std::optional<std::string> readFile(const std::string& path, size_t max_bytes) const override;
  /// No other thread may change the environment meanwhile.
  std::optional<std::string> variable(const std::string& name) const override;
  std::variant<runtime::UrlFacts, kit::Error> checkUrl(const std::string& url) const override;
  std::optional<kit::Error> checkPlaces(const StartOptions& options) const override;
  std::string absolutePath(const std::string& path) const override;
};

}  // namespace morvik::host
