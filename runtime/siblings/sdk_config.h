// Configuration and version of the kit, and what the app's options say of the device.
#pragma once

#include <string>

#include "kit/config.h"
#include "kit/device.h"
#include "morvik/start_options.h"
#include "morvik/version.h"

namespace morvik::runtime {

class MorvkSDKConfig final : public kit::MorvkSDKConfig {
 public:
  explicit MorvkSDKConfig(std::string tracking_key) : tracking_key_(std::move(tracking_key)) {}
  std::string getTrackingSuperkey() const override { return tracking_key_; }

 private:
  const std::string tracking_key_;
};

class MorvikCoreUpdateLog final : public kit::MorvikCoreUpdateLog {
 public:
  std::string frameworkName() const override { return "MorvikCore"; }
  std::string getSDKVersion() const override { return std::string(kVersion); }
};

class Device final : public kit::Device {
 public:
  explicit Device(const DeviceDescription& description) : description_(description) {}
  std::string systemVersion() const override { return description_.system_version; }
  std::optional<bool> isMultitaskingSupported() const override { return description_.multitasking; }
  int statusBarOrientation() const override { return description_.orientation; }
  /// By the schemes of the description; ignores letter case.
  bool canOpenURL(const kit::Url& url) const override;

 private:
  const DeviceDescription description_;
};

}  // namespace morvik::runtime
