// Optional modules of the kit, which are not linked but found by their class names at run time.
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

/// Keeps a cache of the conversion key that the app was last opened with.
struct ResetRetainedConversionCacheDelegate {
  /// A re-engagement URL opened the app; its query dictionary, which may be absent.
  std::function<void(const Value& query)> resetRetainedConversionCache;
};

/// Keeps the key of the conversion that a re-engagement led to.
struct SaveRetainedConversionKeyDelegate {
  std::function<void(int64_t conversion_key)> saveRetainedConversionKey;
};

/// Takes the campaign schedule.
struct GetScheduleDelegate {
  std::function<void(const Value& schedule)> didGetSchedule;
};

/// The singleton of a module: it may stand in for any of the delegates.
struct ModuleObject : ResetRetainedConversionCacheDelegate, SaveRetainedConversionKeyDelegate, GetScheduleDelegate {};

/// A module's class. Every slot is optional: an empty one does not respond, and is not to be called.
struct Module {
  /// The class's singleton; may be null.
  std::function<std::shared_ptr<const ModuleObject>()> shared;
  /// Commerce events wait in the store. Main queue at a session's start, background queue at its end.
  std::function<void()> saveCommerceEventAndSend;
  std::function<void(bool enable)> setRemotePushEnable;
  /// Nothing where the class answers null. Called on any thread, also one that is about to die.
  std::function<std::optional<std::string>()> getSDKVersion;
};

/// Filled before the core object is made, read-only afterwards. Any thread, also one that is about to die: nothing
/// blocks, nothing waits for a lock.
class ModuleRegistry {
 public:
  virtual ~ModuleRegistry() = default;
  /// The class of that name; null when there is none. Stays where it is as long as the registry lives.
  virtual const Module* find(std::string_view class_name) const = 0;
};

}  // namespace morvik::kit
