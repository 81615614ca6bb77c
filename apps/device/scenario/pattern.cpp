#include "apps/device/scenario/pattern.h"

#include "services/dates.h"
#include "services/json_writer.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Value;
using Difference = std::optional<std::string>;

Difference atPlace(const std::string& place, const std::string& problem) {
  return place.empty() ? problem : place + " " + problem;
}

Difference compare(const Value& pattern, const Value& value, const std::string& place);

Difference compareObjects(const Value& pattern, const Value& value, const std::string& place) {
  if (pattern.size() == 0 && value.size() > 0)
    return atPlace(place, "is not empty but " + shortText(value));
  for (const auto& member : pattern.dictionary()) {
    const std::string name(member.key.string());
    std::string below = place;
    below.append(place.empty() ? "" : ".").append(name);
    if (auto difference = compare(member.value, value[name], below))
      return difference;
  }
  return std::nullopt;
}

Difference compareLists(const Value& pattern, const Value& value, const std::string& place) {
  if (pattern.size() == 0 && value.size() > 0)
    return atPlace(place, "is not empty but has " + std::to_string(value.size()) + " elements");
  const auto elements = value.array();
  size_t next = 0;
  for (const Value& wanted : pattern.array()) {
    while (next < elements.size() && !fits(wanted, elements[next]))
      ++next;
    if (next == elements.size())
      return atPlace(place, "has no element like " + shortText(wanted) + " (behind those before it)");
    ++next;
  }
  return std::nullopt;
}

bool equals(const Value& pattern, const Value& value) {
  if (value.isDate() && pattern.isString())
    return morvik::services::iso8601(value.date()) == pattern.string();
  return pattern == value;
}

Difference compare(const Value& pattern, const Value& value, const std::string& place) {
  if (pattern.isNil())
    return value.isNil() ? std::nullopt : atPlace(place, "is there: " + shortText(value));
  if (value.isAbsent())
    return atPlace(place, "is missing");
  if (pattern.isDictionary() && value.isDictionary())
    return compareObjects(pattern, value, place);
  if (pattern.isArray() && value.isArray())
    return compareLists(pattern, value, place);
  if (equals(pattern, value))
    return std::nullopt;
  return atPlace(place, "is " + shortText(value) + " and not " + shortText(pattern));
}

}  // namespace

std::optional<std::string> mismatch(const Value& pattern, const Value& value) {
  return compare(pattern, value, "");
}

std::string shortText(const Value& value, size_t max_bytes) {
  std::string text;
  morvik::services::appendJsonDescription(value, text);
  return shortened(std::move(text), max_bytes);
}

std::string shortened(std::string text, size_t max_bytes) {
  if (text.size() <= max_bytes)
    return text;
  size_t end = max_bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    --end;
  return text.substr(0, end) + "…";
}

}  // namespace morvik_device::scenario
