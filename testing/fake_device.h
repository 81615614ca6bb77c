// A device whose facts a test sets.
#pragma once

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kit/device.h"

namespace morvik::testing {

/// What the test may change, also while a process runs.
struct DeviceFacts {
  std::string system_version = "15.0";
  std::optional<bool> is_multitasking_supported = true;
  int status_bar_orientation = kit::kOrientationPortrait;
  /// The URLs that some app on the device opens.
  std::vector<std::string> openable_urls;
};

/// Any thread; nothing blocks.
class FakeDevice : public kit::Device {
 public:
  explicit FakeDevice(DeviceFacts facts = {}) : facts_(std::move(facts)) {}

  void set(DeviceFacts facts) {
    const std::lock_guard lock(mutex_);
    facts_ = std::move(facts);
  }
  DeviceFacts facts() const {
    const std::lock_guard lock(mutex_);
    return facts_;
  }
  std::string systemVersion() const override { return facts().system_version; }
  std::optional<bool> isMultitaskingSupported() const override { return facts().is_multitasking_supported; }
  int statusBarOrientation() const override { return facts().status_bar_orientation; }
  bool canOpenURL(const kit::Url& url) const override {
    const std::vector<std::string> urls = facts().openable_urls;
    return std::find(urls.begin(), urls.end(), url.absoluteString()) != urls.end();
  }

 private:
  mutable std::mutex mutex_;
  DeviceFacts facts_;
};

}  // namespace morvik::testing
