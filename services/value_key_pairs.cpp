#include "services/value_key_pairs.h"

namespace morvik::services {

kit::MutableDictionary untilAbsent(std::initializer_list<KeyedValue> pairs) {
  kit::MutableDictionary dictionary(pairs.size());
  for (const auto& [key, value] : pairs) {
    if (value.isAbsent())
      break;
    dictionary.set(key, value);
  }
  return dictionary;
}

}  // namespace morvik::services
