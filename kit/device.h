// The device: what the platform tells about it.
#pragma once

#include <optional>
#include <string>

#include "kit/url.h"

namespace morvik::kit {

/// The one orientation value that counts as portrait (home button at the bottom).
inline constexpr int kOrientationPortrait = 1;

/// Any thread, also one that is about to die: nothing blocks, nothing waits for a lock.
class Device {
 public:
  virtual ~Device() = default;
  /// Version of the system, "15.0".
  virtual std::string systemVersion() const = 0;
  /// Whether background running is offered; nothing when the device does not answer the question.
  virtual std::optional<bool> isMultitaskingSupported() const = 0;
  /// Orientation of the status bar: 1 portrait, 2 upside down, 3 and 4 landscape.
  virtual int statusBarOrientation() const = 0;
  /// Whether something on the device opens URLs of this one's scheme.
  virtual bool canOpenURL(const Url& url) const = 0;
};

}  // namespace morvik::kit
