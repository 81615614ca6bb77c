// What the services object remembers of conversions: the keys that were converted, and when the server said so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "services/MorvikGVUserDefaults.h"
#include "services/list_index.h"

namespace morvik::services {

/// Key of the stored times: records of "conversion_key" (text) and "time" (milliseconds since 1970), the latest last.
inline constexpr const char* kConversionTimesKey = "host.conversionTimes";
/// Beyond so many times the oldest goes.
inline constexpr size_t kMaxConversionTimes = 10'000;

/// Any thread. Does not flush: what it stores is committed with the turn.
class ConversionCache {
 public:
  explicit ConversionCache(MorvikGVUserDefaults store);

  /// Replaces the cached keys by these (plain numbers). What is no key stays away: null, containers.
  void replace(const kit::Value& conversion_keys);
  /// Adds the key, unless it is among them.
  void add(int64_t conversion_key);
  /// Notes the time of this key, in place of an earlier one.
  void saveTime(const std::string& conversion_key, double time_milliseconds);

 private:
  const MorvikGVUserDefaults store_;
  // Under the house lock, as the lists are.
  ListIndex keys_;
  ListIndex times_;
};

}  // namespace morvik::services
