// Notices sessions from the stored properties.
#pragma once

#include <cstdint>
#include <functional>

#include "kit/date.h"
#include "kit/key_value_store.h"
#include "kit/value.h"

namespace morvik_device::scenario {

class SessionWatch {
 public:
  enum class Event { kBegun, kKept, kEnded };

  /// The arguments outlive the watch. look() calls `tell`.
  SessionWatch(const morvik::kit::KeyValueStore& store, std::function<void(Event)> tell);

  /// Call at the end of each turn; `now` is the device's wall clock.
  void look(morvik::kit::Date now);

 private:
  bool hasStartOf(morvik::kit::Date now) const;

  const morvik::kit::KeyValueStore& store_;
  const std::function<void(Event)> tell_;
  int64_t launches_;
  morvik::kit::Value session_end_;
};

}  // namespace morvik_device::scenario
