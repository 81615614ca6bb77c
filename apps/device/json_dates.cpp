#include "apps/device/json_dates.h"

#include <string_view>
#include <utility>

#include "services/dates.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

bool namesDate(std::string_view key) {
  return key == "createdAt" || key == "activityCreatedAt";
}

kit::Value asDate(const kit::Value& value) {
  if (!value.isString())
    return withDates(value);
  const auto date = morvik::services::dateFromIso8601(value.string());
  return date ? kit::Value(*date) : value;
}

}  // namespace

kit::Value withDates(const kit::Value& value) {
  if (value.isDictionary()) {
    const kit::Dictionary before = value.dictionary();
    kit::MutableDictionary after(before.size());
    for (const kit::Entry& entry : before)
      after.add(entry.key, namesDate(entry.key.string()) ? asDate(entry.value) : withDates(entry.value));
    return kit::Value(std::move(after));
  }
  if (value.isArray()) {
    kit::MutableArray after;
    for (const kit::Value& element : value.array())
      after.append(withDates(element));
    return kit::Value(std::move(after));
  }
  return value;
}

}  // namespace morvik_device
