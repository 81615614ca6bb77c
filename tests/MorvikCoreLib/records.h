// Stored records as tests of the core write them down.
#pragma once

#include <string>
#include <vector>

#include "testing/world.h"

namespace morvik::testing {

/// 2024-03-01T00:00:00Z plus this many seconds.
inline kit::Date at(double seconds) {
  return VirtualLoopOptions().wall_clock.shiftedBySeconds(seconds);
}

inline kit::Value activity(const std::string& group, const std::string& name, kit::Date created_at,
                           const std::string& id, const kit::Value& param = "") {
  kit::MutableDictionary record;
  record.set("activityGroupName", group);
  record.set("activityName", name);
  record.set("activityParam", param);
  record.set("activityCreatedAt", created_at);
  record.set("activityEventID", id);
  return kit::Value(std::move(record));
}

/// This many plain events, one per second, with the ids "id-0", "id-1", …
inline kit::Value activities(size_t count) {
  kit::MutableArray records;
  for (size_t i = 0; i < count; ++i)
    records.append(activity("shop", "purchase", at(static_cast<double>(i)), "id-" + std::to_string(i)));
  return kit::Value(std::move(records));
}

/// The texts under `key` in an array of dictionaries.
inline std::vector<std::string> texts(const kit::Value& array, const std::string& key) {
  std::vector<std::string> found;
  for (const kit::Value& element : array.array())
    found.emplace_back(element[key].string());
  return found;
}

/// The texts of an array of texts.
inline std::vector<std::string> texts(const kit::Value& array) {
  std::vector<std::string> found;
  for (const kit::Value& element : array.array())
    found.emplace_back(element.string());
  return found;
}

/// Keys of a dictionary, in order.
inline std::vector<std::string> keys(const kit::Value& dictionary) {
  std::vector<std::string> found;
  for (const kit::Entry& entry : dictionary.dictionary())
    found.emplace_back(entry.key.string());
  return found;
}

}  // namespace morvik::testing
