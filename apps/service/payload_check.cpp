#include "apps/service/payload_check.h"

#include <array>
#include <string>
#include <string_view>

#include "apps/service/refusal.h"

namespace morvik_service {
namespace {

constexpr std::array<std::string_view, 17> kCommonNames = {
    "appkey",  "sdk_version", "os_type",          "os_version",       "device_model", "language",
    "country", "timezone",    "app_version_name", "app_version_code", "package_name", "idfa",
    "puid",    "install_id",  "network",          "carrier",          "portrait"};
constexpr std::array<std::string_view, 6> kConversionActivityNames = {"group",      "activity",   "param",
                                                                      "created_at", "prev_group", "prev_activity"};
constexpr std::array<std::string_view, 7> kActivityNames = {"group",         "activity",   "param",   "prev_group",
                                                            "prev_activity", "created_at", "event_id"};

// Where a value stands, written down only when something is wrong with it: a batch has many values.
struct Place {
  std::string_view list;  // empty at the top level
  std::size_t index = 0;

  std::string path(std::string_view name) const {
    if (list.empty())
      return std::string(name);
    std::string text = std::string(list) + "[" + std::to_string(index) + "]";
    return name.empty() ? text : text + "." + std::string(name);
  }
};

Refusal badMember(const std::string& problem, const std::string& path) {
  return Refusal(400, path + " " + problem, "the sealed payload, " + path, "send the members that the protocol lists");
}

const Json& requireMember(const Json& object, std::string_view name, const Place& place) {
  const auto found = object.find(name);
  if (found == object.end())
    throw badMember("is missing", place.path(name));
  return *found;
}

template <typename Names>
void requireStrings(const Json& object, const Names& names, const Place& place) {
  for (const std::string_view name : names) {
    if (!requireMember(object, name, place).is_string())
      throw badMember("is no string", place.path(name));
  }
}

const Json& requireArray(const Json& payload, std::string_view name) {
  const Json& value = requireMember(payload, name, {});
  if (!value.is_array())
    throw badMember("is no array", std::string(name));
  return value;
}

void requireObject(const Json& value, const Place& place) {
  if (!value.is_object())
    throw badMember("is no object", place.path(""));
}

void checkImpression(const Json& impression, const Place& place) {
  requireObject(impression, place);
  for (const std::string_view name : {"campaign_key", "resource_key", "conversion_key"}) {
    if (!requireMember(impression, name, place).is_number_integer()) {
      throw badMember("is no integer", place.path(name));
    }
  }
  requireStrings(impression, std::array<std::string_view, 2>{"space_key", "created_at"}, place);
  if (!requireMember(impression, "isFirstTime", place).is_boolean()) {
    throw badMember("is no boolean", place.path("isFirstTime"));
  }
}

}  // namespace

void checkCommonParameters(const Json& payload) {
  requireStrings(payload, kCommonNames, {});
}

void checkConversionPayload(const Json& payload) {
  checkCommonParameters(payload);
  const Json& activities = requireArray(payload, "activity_info");
  if (activities.size() != 1)
    throw badMember("does not hold exactly one entry", "activity_info");
  const Place place{"activity_info", 0};
  requireObject(activities.front(), place);
  requireStrings(activities.front(), kConversionActivityNames, place);
  const Json& details = requireMember(payload, "searchads_response", {});
  if (!details.is_object() && details != "")
    throw badMember("is neither an object nor \"\"", "searchads_response");
}

void checkThirdPartyPayload(const Json&) {}

void checkIadPayload(const Json& payload) {
  checkCommonParameters(payload);
  const auto iad = payload.find("iAd");
  if (iad == payload.end())
    return;
  if (!iad->is_object())
    throw badMember("is no object", "iAd");
  for (const std::string_view name : {"appPurchaseDate", "iAdImpressionDate"}) {
    const auto date = iad->find(name);
    if (date == iad->end() || !date->is_string())
      throw badMember("is no string", "iAd." + std::string(name));
  }
}

void checkTrackingPayload(const Json& payload) {
  checkCommonParameters(payload);
  Place place{"activity_info"};
  for (const Json& activity : requireArray(payload, place.list)) {
    requireObject(activity, place);
    requireStrings(activity, kActivityNames, place);
    ++place.index;
  }
  place = {"impression_info"};
  for (const Json& impression : requireArray(payload, place.list)) {
    checkImpression(impression, place);
    ++place.index;
  }
}

}  // namespace morvik_service
