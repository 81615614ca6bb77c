// A bounded list of what happened, for fakes that record calls.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace morvik::testing {

/// Limit for what a fake records. A run of many days must not fill the memory: past this the oldest entries are
/// dropped, and forgotten() counts them.
inline constexpr size_t kMaxRecordedEntries = 100'000;

/// Single calls are safe from any thread; nothing blocks. Entries are returned as copies.
template <class Entry>
class Recording {
 public:
  explicit Recording(size_t limit = kMaxRecordedEntries) : limit_(limit) {}

  void add(Entry entry) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    if (entries_.size() > limit_) {
      entries_.pop_front();
      ++forgotten_;
    }
  }
  /// All recorded entries, oldest first.
  std::vector<Entry> all() const {
    const std::lock_guard lock(mutex_);
    return {entries_.begin(), entries_.end()};
  }
  /// The recorded entries for which `wanted(entry)` is true, oldest first. `wanted` must not call back.
  template <class Wanted>
  std::vector<Entry> matching(Wanted wanted) const {
    const std::lock_guard lock(mutex_);
    std::vector<Entry> found;
    for (const Entry& entry : entries_) {
      if (wanted(entry))
        found.push_back(entry);
    }
    return found;
  }
  /// Number of recorded entries.
  size_t size() const {
    const std::lock_guard lock(mutex_);
    return entries_.size();
  }
  /// Number of entries dropped past the limit.
  size_t forgotten() const {
    const std::lock_guard lock(mutex_);
    return forgotten_;
  }
  /// Clears everything, including the count of dropped entries.
  void clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
    forgotten_ = 0;
  }

 private:
  const size_t limit_;
  mutable std::mutex mutex_;
  std::deque<Entry> entries_;
  size_t forgotten_ = 0;
};

}  // namespace morvik::testing
