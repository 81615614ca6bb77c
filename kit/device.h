// What the platform tells about the device.
#pragma once

#include <optional>
#include <string>

#include "kit/url.h"

namespace morvik::kit {

/// The one orientation value that counts as portrait (home button at the bottom).
inline constexpr int kOrientationPortrait = 1;

/// Any thread, also one that is about to die: nothing blocks or takes a lock.
class Device {
 public:
  virtual ~Device() = default;
  /// The system's version, "15.0" for example.
  virtual std::string systemVersion() const = 0;
  /// Whether background running is offered; nothing if unknown.
  virtual std::optional<bool> isMultitaskingSupported() const = 0;
  /// Orientation of the status bar: 1 portrait, 2 upside down, 3 and 4 landscape.
  virtual int statusBarOrientation() const = 0;
  /// Whether something on the device opens URLs of this scheme.
  virtual bool canOpenURL(const Url& url) const = 0;
};

}  // namespace morvik::kit
