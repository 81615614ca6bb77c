#include "testing/memory_store.h"

#include <utility>

namespace morvik::testing {

kit::Value MemoryStore::get(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  const auto found = current_.find(key);
  return found == current_.end() ? kit::Value() : found->second;
}

void MemoryStore::set(std::string_view key, kit::Value value) {
  const std::lock_guard lock(mutex_);
  journal_.add({Operation::kSet, std::string(key), value});
  ++uncommitted_writes_;
  if (!value.isAbsent()) {
    current_.insert_or_assign(std::string(key), std::move(value));
  } else if (const auto found = current_.find(key); found != current_.end()) {
    current_.erase(found);
  }
}

void MemoryStore::synchronize() {
  const std::lock_guard lock(mutex_);
  journal_.add({Operation::kSynchronize, {}, {}});
  ++synchronize_count_;
  committed_ = current_;
  uncommitted_writes_ = 0;
}

void MemoryStore::commitTurn() {
  const std::lock_guard lock(mutex_);
  if (uncommitted_writes_ == 0)
    return;
  journal_.add({Operation::kCommitTurn, {}, {}});
  committed_ = current_;
  uncommitted_writes_ = 0;
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
