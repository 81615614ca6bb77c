// Which rows of the store hold the elements of a stored array, and which of them a new version changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kit/value.h"

namespace morvik::host {

/// Orders of rows are below this, from 0; an array whose next row would exceed it is rewritten from 0. At a million
/// appended elements a second that takes twelve days, at a thousand a day three million years.
inline constexpr int64_t kMaxRowOrder = int64_t{1} << 40;

/// Consecutive rows.
struct RowRange {
  int64_t first = 0;
  int64_t count = 0;
  friend bool operator==(const RowRange&, const RowRange&) = default;
};

/// What must be written so that the rows hold a new version of the array.
struct RowChange {
  std::vector<RowRange> removed;  ///< in order; a range may span rows removed earlier
  size_t appended_from = 0;       ///< index, in the new version, of the first element that needs a new row
  int64_t first_new_row = 0;      ///< order of that row; the others follow

  bool removes(int64_t row) const;
  friend bool operator==(const RowChange&, const RowChange&) = default;
};

/// Ranges walked and moved together. Finding and removing a row costs one such block, and one step for each other
/// block.
inline constexpr size_t kRangesPerBlock = 128;

/// The rows of one array, in order, kept as ranges: appending and trimming leave few of them, however long the array;
/// random removal leaves up to one for every two elements.
class ArrayRows {
 public:
  /// Adds a row found in the store; call in order.
  void add(int64_t order);
  /// The change from `before`, which these rows hold, to `after`. Elements are compared by identity, chunks shared by
  /// both as a whole. So appending costs as much as was appended; removing costs the chunks that lost an element and
  /// one step for each other chunk. Changes nothing here.
  RowChange changeTo(const kit::Array& before, const kit::Array& after) const;
  /// Whether apply() needs no memory, and so cannot fail.
  bool appliesInPlace(const RowChange& change) const;
  /// Applies the change once it is written. `size` is the new version's.
  void apply(const RowChange& change, size_t size);

  std::vector<RowRange> ranges() const;
  int64_t next() const { return next_; }

 private:
  /// No block is empty, and no two neighbours would fit into one.
  struct Block {
    explicit Block(std::span<const RowRange> some);
    void remove(std::span<const RowRange> removed);
    std::vector<RowRange> ranges;
    size_t rows = 0;  ///< in all its ranges
  };
  class Finder;

  void append(RowRange rows);
  void append(Block&& block);
  void remove(std::span<const RowRange> removed);

  std::vector<Block> blocks_;
  int64_t next_ = 0;
};

}  // namespace morvik::host
