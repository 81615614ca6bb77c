#include "testing/fake_siblings.h"

namespace morvik::testing {

void FakeBundle::set(const std::string& key, std::optional<std::string> text) {
  const std::lock_guard lock(mutex_);
  if (text)
    texts_.insert_or_assign(key, *std::move(text));
  else
    texts_.erase(key);
}

std::optional<std::string> FakeBundle::objectForInfoDictionaryKey(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  const auto found = texts_.find(key);
  return found == texts_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<kit::Error> MemoryShelf::append(const kit::Value& report) {
  const std::lock_guard lock(mutex_);
  if (refusal_)
    return kit::Error{*refusal_};
  reports_.append(report);
  return std::nullopt;
}

kit::Array MemoryShelf::reports() {
  const std::lock_guard lock(mutex_);
  return kit::Value(kit::MutableArray(reports_)).array();
}

void MemoryShelf::clear() {
  const std::lock_guard lock(mutex_);
  reports_.removeAll();
}

void MemoryShelf::refuse(std::optional<std::string> error) {
  const std::lock_guard lock(mutex_);
  refusal_ = std::move(error);
}

}  // namespace morvik::testing
