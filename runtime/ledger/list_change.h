// What a stored list lost and gained between two versions.
#pragma once

#include <cstddef>
#include <vector>

#include "kit/value.h"

namespace morvik::runtime {

/// Consecutive elements.
struct ElementRange {
  size_t first = 0;
  size_t count = 0;
};

struct ListChange {
  /// Ascending, not adjacent; positions in the earlier version.
  std::vector<ElementRange> removed;
  /// How many of the last elements of the later version are new.
  size_t added = 0;

  size_t removedCount() const {
    size_t count = 0;
    for (const ElementRange& range : removed)
      count += range.count;
    return count;
  }
};

/// Elements are compared by identity, not by content: a list rewritten with equal records has lost and gained all of
/// them. Elements are lost anywhere and gained at the end. If a single element was appended, this takes one step per
/// shared chunk of elements; else one step per element.
ListChange changeBetween(const kit::Array& before, const kit::Array& after);

}  // namespace morvik::runtime
