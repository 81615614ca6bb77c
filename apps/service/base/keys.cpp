#include "apps/service/base/keys.h"

#include <algorithm>
#include <cstddef>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

std::string* slotOf(Keys& keys, std::string_view name) {
  if (name == "app-key")
    return &keys.app_key;
  if (name == "hash-key")
    return &keys.hash_key;
  if (name == "tracking-key")
    return &keys.tracking_key;
  return nullptr;
}

void parseLine(Keys& keys, std::string_view line, const std::string& place) {
  const std::size_t equals = line.find('=');
  std::string* slot = equals == std::string_view::npos ? nullptr : slotOf(keys, line.substr(0, equals));
  if (slot == nullptr) {
    throw SetupError(place + ": expected app-key=, hash-key= or tracking-key= and the key");
  }
  if (!slot->empty())
    throw SetupError(place + ": this key is given a second time; keep one of the lines");
  *slot = line.substr(equals + 1);
}

}  // namespace

std::string keyText(const Keys& keys, KeyChoice choice) {
  return choice == KeyChoice::kTrackingKey ? keys.tracking_key : keys.hash_key + keys.hash_key;
}

Keys parseKeys(std::string_view text, const std::string& file_name) {
  Keys keys;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);
    if (line.empty() || line.front() == '#')
      continue;
    parseLine(keys, line, file_name + ", line " + std::to_string(number));
  }
  return keys;
}

Keys mergeKeys(const Keys& over, const Keys& under) {
  const auto pick = [](const std::string& first, const std::string& second) { return first.empty() ? second : first; };
  return {pick(over.app_key, under.app_key), pick(over.hash_key, under.hash_key),
          pick(over.tracking_key, under.tracking_key)};
}

}  // namespace morvik_service
