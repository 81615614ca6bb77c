// The hashed identifier of the install.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "kit/MorvikADGetPUID.h"

namespace morvik::host {

class MorvikADGetPUID final : public kit::MorvikADGetPUID {
 public:
  /// No identifier.
  MorvikADGetPUID() = default;
  /// This text.
  explicit MorvikADGetPUID(std::string puid) : puid_(std::move(puid)) {}
  /// Lower-case hexadecimal of HMAC-SHA-256 over the device id, with the app key.
  MorvikADGetPUID(std::string device_id, std::string app_key)
      : app_key_(std::move(app_key)), device_id_(std::move(device_id)) {}

  /// Nothing when there is none. The hash is made at the first call, so that a start need not load what makes it. Any
  /// thread.
  std::optional<std::string> getAESHashedPUID() const override;
  /// The device id turned out to be another one; without effect where there is none. Any thread.
  void replaceDeviceId(std::string device_id);

 private:
  const std::string app_key_;
  mutable std::mutex mutex_;  // guards what follows
  std::optional<std::string> device_id_;
  mutable std::optional<std::string> puid_;
};

}  // namespace morvik::host
