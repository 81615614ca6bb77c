// The fields that every payload begins with.
#pragma once

#include <string>
#include <vector>

#include "kit/value.h"
#include "morvik/start_options.h"
#include "runtime/siblings/MorvikADGetPUID.h"
#include "runtime/siblings/MorvikADUtil.h"
#include "services/locked.h"

namespace morvik::runtime {

/// What the device and the app say of themselves. References outlive the object made of this.
struct Identity {
  const DeviceDescription& device;
  std::string app_key;
  std::string install_id;
  std::string zone_name;
  const MorvikADUtil& util;
  const MorvikADGetPUID& puid;
};

/// All are strings, "" where unknown. What does not change from one payload to the next is made once. Any thread.
class CommonParameters {
 public:
  explicit CommonParameters(const Identity& identity);
  /// A fresh dictionary, in a fixed order.
  kit::MutableDictionary make(const std::string& sdk_version) const;
  /// The install's identifier, or the advertising one, turned out to be another.
  void replace(const Identity& identity);

 private:
  const MorvikADUtil& util_;
  const MorvikADGetPUID& puid_;
  services::Locked<std::vector<kit::Entry>> constant_;
};

}  // namespace morvik::runtime
