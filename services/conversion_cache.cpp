#include "services/conversion_cache.h"

#include <algorithm>
#include <utility>

#include "services/converters.h"

namespace morvik::services {
namespace {

int64_t keyOfTime(const kit::Value& record) {
  return checkIntegerNilToZero(record["conversion_key"]);
}

/// Lists of earlier versions hold elements that are not keys; the index would take them for the key 0.
bool holdsKeyZero(const kit::Array& keys) {
  return std::any_of(keys.begin(), keys.end(), [](const kit::Value& element) {
    return isConversionKey(element) && checkIntegerNilToZero(element) == 0;
  });
}

}  // namespace

ConversionCache::ConversionCache(MorvikGVUserDefaults store)
    : store_(store), keys_(checkIntegerNilToZero), times_(keyOfTime) {}

void ConversionCache::replace(const kit::Value& conversion_keys) {
  kit::MutableArray keys(conversion_keys);
  keys.retainIf(isConversionKey);
  store_.setFendoConversionInfoForCaches(keys.size() == conversion_keys.size() ? conversion_keys
                                                                               : kit::Value(std::move(keys)));
}

void ConversionCache::add(int64_t conversion_key) {
  store_.inOneStep([&] {
    const kit::Value keys = store_.fendoConversionInfoForCaches();
    const bool is_there = keys_.contains(keys, conversion_key) && (conversion_key != 0 || holdsKeyZero(keys.array()));
    if (!is_there)
      store_.setFendoConversionInfoForCaches(keys_.appended(keys, conversion_key));
  });
}

void ConversionCache::saveTime(const std::string& conversion_key, double time_milliseconds) {
  const kit::Value record = kit::Dictionary{{"conversion_key", conversion_key}, {"time", time_milliseconds}};
  store_.inOneStep([&] {
    kit::Value times = times_.without(store_.arrayForKey(kConversionTimesKey), keyOfTime(record));
    if (times.size() >= kMaxConversionTimes)
      times = times_.without(times, keyOfTime(times.array()[0]));
    store_.setArray(times_.appended(times, record), kConversionTimesKey);
  });
}

}  // namespace morvik::services
