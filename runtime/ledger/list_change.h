// What a stored list lost and gained between two of its versions.
#pragma once

#include <cstddef>
#include <vector>

#include "kit/value.h"

namespace morvik::runtime {

/// Elements that stand beside each other.
struct ElementRange {
  size_t first = 0;
  size_t count = 0;
};

struct ListChange {
  /// Ascending, none touching the next; in the version before.
  std::vector<ElementRange> removed;
  /// So many of the last elements of the version after are new.
  size_t added = 0;

  size_t removedCount() const {
    size_t count = 0;
    for (const ElementRange& range : removed)
      count += range.count;
    return count;
  }
};

/// Elements are told apart by what they are, not by what they say: a list written anew of equal records has lost all
/// and gained all. Lists lose anywhere and gain at their end. A step for each chunk of elements that both share, for a
/// list that grew a single one, and a step for each element otherwise.
ListChange changeBetween(const kit::Array& before, const kit::Array& after);

}  // namespace morvik::runtime
