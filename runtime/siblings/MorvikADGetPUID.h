// The hashed identifier of the install.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "kit/MorvikADGetPUID.h"
#include "kit/crypto.h"

namespace morvik::runtime {

class MorvikADGetPUID final : public kit::MorvikADGetPUID {
 public:
  /// No identifier.
  MorvikADGetPUID() = default;
  /// This text.
  explicit MorvikADGetPUID(std::string puid) : puid_(std::move(puid)) {}
  /// The hash of the device id, with the app key. `hash` outlives it.
  MorvikADGetPUID(std::string device_id, std::string app_key, const kit::KeyedHash& hash)
      : app_key_(std::move(app_key)), hash_(&hash), device_id_(std::move(device_id)) {}

  /// Nothing if there is none. The hash is made at the first call, so that a start need not load the library for it.
  /// Any thread.
  std::optional<std::string> getAESHashedPUID() const override;
  /// The device id turned out to be different; no effect if there is none. Any thread.
  void replaceDeviceId(std::string device_id);

 private:
  const std::string app_key_;
  const kit::KeyedHash* const hash_ = nullptr;  ///< set if there is a device id
  mutable std::mutex mutex_;                    // guards what follows
  std::optional<std::string> device_id_;
  mutable std::optional<std::string> puid_;
};

}  // namespace morvik::runtime
