#include "apps/device/scenario/request_text.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "apps/device/scenario/pattern.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Value;
using morvik::testing::ServiceEndpoint;

constexpr size_t kShownEvents = 5;
constexpr size_t kShownPayloadBytes = 140;

// Members of every sealed payload.
constexpr std::array<std::string_view, 17> kCommonParameters = {
    "appkey",  "sdk_version", "os_type",          "os_version",       "device_model", "language",
    "country", "timezone",    "app_version_name", "app_version_code", "package_name", "idfa",
    "puid",    "install_id",  "network",          "carrier",          "portrait"};

bool isCommon(std::string_view name) {
  return std::find(kCommonParameters.begin(), kCommonParameters.end(), name) != kCommonParameters.end();
}

std::string batchText(const Value& payload) {
  const auto events = payload["activity_info"].array();
  std::string text = std::to_string(events.size()) + (events.size() == 1 ? " event: " : " events: ");
  for (size_t i = 0; i < events.size() && i < kShownEvents; ++i) {
    text += (i == 0 ? "" : ", ") + std::string(events[i]["group"].string()) + "/" +
            std::string(events[i]["activity"].string());
  }
  if (events.size() > kShownEvents)
    text += ", …";
  const size_t impressions = payload["impression_info"].size();
  if (impressions > 0)
    text += " and " + std::to_string(impressions) + (impressions == 1 ? " impression" : " impressions");
  return text;
}

Value withoutCommonParameters(const Value& payload) {
  morvik::kit::MutableDictionary rest;
  for (const auto& member : payload.dictionary()) {
    if (!isCommon(member.key.string()))
      rest.set(member.key, member.value);
  }
  return Value(std::move(rest));
}

}  // namespace

std::string endpointText(const morvik::testing::ServedRequest& served) {
  return served.endpoint ? std::string(morvik::testing::nameOf(*served.endpoint)) : "?";
}

std::string requestText(const morvik::testing::ServedRequest& served) {
  if (served.refusal)
    return "not to be read: " + *served.refusal;
  if (served.payload.isAbsent())
    return "";
  if (served.endpoint == ServiceEndpoint::kTracking)
    return batchText(served.payload);
  if (served.payload.isArray())
    return std::to_string(served.payload.size()) + " in the list " + shortText(served.payload, kShownPayloadBytes);
  return shortText(withoutCommonParameters(served.payload), kShownPayloadBytes);
}

}  // namespace morvik_device::scenario
