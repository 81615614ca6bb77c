// What the services object remembers about conversions: the converted keys, and when the server reported them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "services/MorvikGVUserDefaults.h"
#include "services/list_index.h"

namespace morvik::services {

/// Key of the stored times: records of "conversion_key" (text) and "time" (milliseconds since 1970), the latest last.
inline constexpr const char* kConversionTimesKey = "host.conversionTimes";
/// Past this many times the oldest is dropped.
inline constexpr size_t kMaxConversionTimes = 10'000;

/// Any thread. Does not flush: what it stores is committed with the turn.
class ConversionCache {
 public:
  explicit ConversionCache(MorvikGVUserDefaults store);

  /// Replaces the cached keys by these (plain numbers). What is not a key is left out: null, containers.
  void replace(const kit::Value& conversion_keys);
  /// Adds the key unless it is already there.
  void add(int64_t conversion_key);
  /// Stores the time of this key and replaces an earlier one.
  void saveTime(const std::string& conversion_key, double time_milliseconds);

 private:
  const MorvikGVUserDefaults store_;
  // Under the list lock, as the lists are.
  ListIndex keys_;
  ListIndex times_;
};

}  // namespace morvik::services
