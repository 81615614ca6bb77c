// Clicks that opened the app, and what is kept of them, as tests of the core write them down.
#pragma once

#include <string>
#include <vector>

#include "testing/world.h"

namespace morvik::testing {

inline constexpr const char* kReEngagementUrl = "https://conversion.morvik.example/v1/reengagement-conversion";
inline constexpr const char* kReEngagement = "v1/reengagement-conversion";
inline constexpr const char* kCommerce = "v1/commerce-conversion";
inline constexpr const char* kThirdParty = "v1/thirdparty-conversion";

/// A campaign's link with this conversion key.
inline std::string linkOf(int64_t conversion_key) {
  return "app://open?ck=" + std::to_string(conversion_key);
}

/// The record of the click on linkOf(conversion_key).
inline kit::Value clickOf(int64_t conversion_key) {
  return kit::Dictionary{{"session_no", 0},
                         {"conversion_key", conversion_key},
                         {"deeplink_uri", linkOf(conversion_key)},
                         {"sub_conversion_key", ""},
                         {"is_first_launch", false}};
}

inline kit::Value countOf(int64_t conversion_key, int64_t failures) {
  return kit::Dictionary{{"conversion_key", conversion_key}, {"failure_cnt", failures}};
}

inline kit::Value arrayOf(const std::vector<kit::Value>& elements) {
  kit::MutableArray array;
  for (const kit::Value& element : elements)
    array.append(element);
  return kit::Value(std::move(array));
}

/// The "conversion_key" of each record of a list.
inline std::vector<int64_t> keysOf(const kit::Value& list) {
  std::vector<int64_t> found;
  for (const kit::Value& record : list.array())
    found.push_back(record["conversion_key"].integer());
  return found;
}

/// An answer by which the service takes a click in.
inline kit::Value acceptanceOf(int64_t conversion_key) {
  return kit::Dictionary{
      {"Result", true},
      {"Data", kit::Dictionary{{"conversion_result", kit::Dictionary{{"conversion_key", conversion_key}}}}}};
}

/// The conversion keys of the re-engagements that left, oldest first.
inline std::vector<int64_t> sentClicks(const TestWorld& world) {
  std::vector<int64_t> found;
  for (const kit::Value& payload : world.payloads(kReEngagement))
    found.push_back(payload["deeplink_info"]["conversion_key"].integer());
  return found;
}

inline void open(TestWorld& world, const std::string& url) {
  world.loop.perform([&] { world.core().passOpenURL(kit::Url(url)); });
}

}  // namespace morvik::testing
