#include "apps/device/property_values.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "apps/device/json_dates.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/dates.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
using morvik::services::PropertyType;

using Read = std::variant<kit::Value, std::string>;

bool isWhole(const kit::Value& value) {
  return value.kind() == kit::Kind::kInteger;
}

bool fits32Bits(const kit::Value& value) {
  return isWhole(value) && value.integer() >= std::numeric_limits<int32_t>::min() &&
         value.integer() <= std::numeric_limits<int32_t>::max();
}

Read dateOr(const kit::Value& json, std::string mistake) {
  if (json.isString()) {
    if (const auto date = morvik::services::dateFromIso8601(json.string()))
      return kit::Value(*date);
  }
  return mistake;
}

Read unless(bool fits, const kit::Value& value, const char* mistake) {
  if (!fits)
    return std::string(mistake);
  return value;
}

Read valueOf(PropertyType type, const kit::Value& json) {
  switch (type) {
    case PropertyType::kInt64:
      return unless(isWhole(json), json, "needs a whole number of 64 bits, or null");
    case PropertyType::kInt32:
      return unless(fits32Bits(json), json, "needs a whole number of 32 bits, or null");
    case PropertyType::kBool:
      return unless(json.isBoolean(), json, "needs true, false or null");
    case PropertyType::kString:
      return unless(json.isString(), json, "needs text in double quotes, or null");
    case PropertyType::kDate:
      return dateOr(json, "needs a date, such as \"2024-05-01T12:00:00Z\", or null");
    case PropertyType::kArray:
      break;
  }
  return unless(json.isArray(), withDates(json), "needs a JSON array, or null");
}

}  // namespace

Read propertyValue(std::string_view property, const kit::Value& json) {
  const auto all = morvik::services::storeProperties();
  const auto found = std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.name == property; });
  if (found == all.end())
    return "\"" + std::string(property) + "\" is not a stored property; \"store\" shows those that are set";
  if (json.isNull())
    return kit::Value();
  Read read = valueOf(found->type, json);
  if (auto* mistake = std::get_if<std::string>(&read))
    *mistake = std::string(property) + " " + *mistake;
  return read;
}

}  // namespace morvik_device
