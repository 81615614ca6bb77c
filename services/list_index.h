// Finds the records of a stored list by their key, so that a search in ten thousand costs no more than in ten.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "kit/value.h"

namespace morvik::services {

/// An index over one list at a time: that of the latest call. appended() and without() keep it up to date; when another
/// list is passed it is rebuilt, in time proportional to the list's length. The results are those of a search without
/// an index. Not thread-safe: use it under the lock of the list.
class ListIndex {
 public:
  using KeyOf = int64_t (*)(const kit::Value& record);
  explicit ListIndex(KeyOf key_of) : key_of_(key_of) {}

  /// Whether a record of `list` has this key. An absent list has none.
  bool contains(const kit::Value& list, int64_t key);
  /// `list` without the records that have this key; `list` itself, and absent where it is absent, if none has it.
  kit::Value without(const kit::Value& list, int64_t key);
  /// `list`, or a new one where it is absent, with `record` at its end.
  kit::Value appended(const kit::Value& list, const kit::Value& record);

 private:
  void indexOf(const kit::Value& list);
  void add(const kit::Value& record);
  size_t positionOf(const kit::Array& list, uint64_t order) const;

  const KeyOf key_of_;
  kit::Value list_;
  /// The order of each key's first record. Orders rise along the list; they have gaps where records were removed.
  std::unordered_map<int64_t, uint64_t> first_orders_;
  uint64_t next_order_ = 0;
};

}  // namespace morvik::services
