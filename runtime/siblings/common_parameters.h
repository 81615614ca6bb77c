// The fields at the start of every payload.
#pragma once

#include <string>
#include <vector>

#include "kit/value.h"
#include "morvik/start_options.h"
#include "runtime/siblings/MorvikADGetPUID.h"
#include "runtime/siblings/MorvikADUtil.h"
#include "services/locked.h"

namespace morvik::runtime {

/// What identifies the device and the app. References outlive the object made from this.
struct Identity {
  const DeviceDescription& device;
  std::string app_key;
  std::string install_id;
  std::string zone_name;
  const MorvikADUtil& util;
  const MorvikADGetPUID& puid;
};

/// All are strings, "" if unknown. Constant ones are made once. Any thread.
class CommonParameters {
 public:
  explicit CommonParameters(const Identity& identity);
  /// A new dictionary, in a fixed order.
  kit::MutableDictionary make(const std::string& sdk_version) const;
  /// The install's identifier, or the advertising one, turned out to be different.
  void replace(const Identity& identity);

 private:
  const MorvikADUtil& util_;
  const MorvikADGetPUID& puid_;
  services::Locked<std::vector<kit::Entry>> constant_;
};

}  // namespace morvik::runtime
