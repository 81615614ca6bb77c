#include "testing/memory_store.h"

#include <utility>

#include "kit/continued_list.h"

namespace morvik::testing {

kit::Value MemoryStore::get(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  const auto found = current_.find(key);
  return found == current_.end() ? kit::Value() : found->second;
}

void MemoryStore::set(std::string_view key, kit::Value value) {
  const std::lock_guard lock(mutex_);
  setLocked(key, std::move(value));
}

void MemoryStore::append(std::string_view key, kit::Value element) {
  const std::lock_guard lock(mutex_);
  const auto found = current_.find(key);
  kit::MutableArray list(found == current_.end() ? kit::Value() : found->second);
  list.append(std::move(element));
  setLocked(key, kit::Value(std::move(list)));
}

void MemoryStore::replace(std::string_view key, const kit::Value& before, kit::Value after) {
  const std::lock_guard lock(mutex_);
  const auto found = current_.find(key);
  const kit::Value now = found == current_.end() ? kit::Value() : found->second;
  setLocked(key, kit::continuedList(before, now, std::move(after)));
}

void MemoryStore::setLocked(std::string_view key, kit::Value value) {
  journal_.add({Operation::kSet, std::string(key), value});
  ++uncommitted_writes_;
  if (!value.isAbsent()) {
    current_.insert_or_assign(std::string(key), std::move(value));
  } else if (const auto found = current_.find(key); found != current_.end()) {
    current_.erase(found);
  }
}

bool MemoryStore::synchronize() {
  const std::lock_guard lock(mutex_);
  journal_.add({Operation::kSynchronize, {}, {}});
  ++synchronize_count_;
  commitLocked();
  return !keeps_nothing_;
}

void MemoryStore::commitLocked() {
  if (keeps_nothing_)
    return;
  committed_ = current_;
  uncommitted_writes_ = 0;
}

std::optional<kit::Value> MemoryStore::tryGet(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  if (in_use_)
    return std::nullopt;
  const auto found = current_.find(key);
  return found == current_.end() ? kit::Value() : found->second;
}

bool MemoryStore::trySetAndSynchronize(std::string_view key, kit::Value value) {
  const std::lock_guard lock(mutex_);
  if (in_use_ || keeps_nothing_)
    return false;
  setLocked(key, std::move(value));
  journal_.add({Operation::kSynchronize, {}, {}});
  ++synchronize_count_;
  commitLocked();
  return true;
}

void MemoryStore::setInUse(bool in_use) {
  const std::lock_guard lock(mutex_);
  in_use_ = in_use;
}

void MemoryStore::setKeepsNothing(bool keeps_nothing) {
  const std::lock_guard lock(mutex_);
  keeps_nothing_ = keeps_nothing;
}

void MemoryStore::commitTurn() {
  const std::lock_guard lock(mutex_);
  if (uncommitted_writes_ == 0)
    return;
  journal_.add({Operation::kCommitTurn, {}, {}});
  commitLocked();
}

void MemoryStore::kill() {
  const std::lock_guard lock(mutex_);
  current_ = committed_;
  uncommitted_writes_ = 0;
}

MemoryStore::Contents MemoryStore::committed() const {
  const std::lock_guard lock(mutex_);
  return committed_;
}

MemoryStore::Contents MemoryStore::contents() const {
  const std::lock_guard lock(mutex_);
  return current_;
}

size_t MemoryStore::uncommittedWrites() const {
  const std::lock_guard lock(mutex_);
  return uncommitted_writes_;
}

size_t MemoryStore::synchronizeCount() const {
  const std::lock_guard lock(mutex_);
  return synchronize_count_;
}

std::vector<std::string> MemoryStore::journalTexts() const {
  std::vector<std::string> texts;
  for (const JournalEntry& entry : journal()) {
    switch (entry.operation) {
      case Operation::kSet:
        texts.push_back(entry.key);
        break;
      case Operation::kSynchronize:
        texts.emplace_back("synchronize");
        break;
      case Operation::kCommitTurn:
        texts.emplace_back("end of turn");
        break;
    }
  }
  return texts;
}

}  // namespace morvik::testing
