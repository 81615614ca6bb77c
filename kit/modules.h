// Optional modules of the kit, which are not linked but found by class name at run time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kit/value.h"

namespace morvik::kit {

// Delegates of the services object. Every slot is optional: an empty one does not respond. Called on the main queue.

/// Caches the conversion key that the app was last opened with.
struct ResetRetainedConversionCacheDelegate {
  /// A re-engagement URL opened the app; its query dictionary, which may be absent.
  std::function<void(const Value& query)> resetRetainedConversionCache;
};

/// Keeps the key of the conversion after a re-engagement.
struct SaveRetainedConversionKeyDelegate {
  std::function<void(int64_t conversion_key)> saveRetainedConversionKey;
};

/// Takes the campaign schedule.
struct GetScheduleDelegate {
  std::function<void(const Value& schedule)> didGetSchedule;
};

/// A module's singleton: it may act as any of the delegates.
struct ModuleObject : ResetRetainedConversionCacheDelegate, SaveRetainedConversionKeyDelegate, GetScheduleDelegate {};

/// A module's class. Every slot is optional; an empty one must not be called.
struct Module {
  /// The class's singleton; may be null.
  std::function<std::shared_ptr<const ModuleObject>()> shared;
  /// Commerce events are pending in the store. Main queue at a session's start, background queue at its end.
  std::function<void()> saveCommerceEventAndSend;
  std::function<void(bool enable)> setRemotePushEnable;
  /// Nothing if the class returns null. Called on any thread, also one that is about to die.
  std::function<std::optional<std::string>()> getSDKVersion;
};

/// Filled before the core object is made, read-only afterwards. Any thread, also one that is about to die: nothing
/// blocks or takes a lock.
class ModuleRegistry {
 public:
  virtual ~ModuleRegistry() = default;
  /// The class of that name; null if there is none. Valid as long as the registry.
  virtual const Module* find(std::string_view class_name) const = 0;
};

}  // namespace morvik::kit
