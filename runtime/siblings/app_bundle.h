// The app's information dictionary, from the app's options.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kit/bundle.h"
#include "morvik/start_options.h"

namespace morvik::runtime {

/// Has the app's version, build and identifier.
class AppBundle final : public kit::Bundle {
 public:
  explicit AppBundle(const DeviceDescription& description)
      : version_(description.app_version_name),
        build_(description.app_version_code),
        identifier_(description.package_name) {}
  std::optional<std::string> objectForInfoDictionaryKey(std::string_view key) const override;

 private:
  const std::string version_;
  const std::string build_;
  const std::string identifier_;
};

}  // namespace morvik::runtime
