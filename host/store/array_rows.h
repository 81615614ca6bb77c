// Which rows of the store hold the elements of one stored array, and which of them a new version of it changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kit/value.h"

namespace morvik::host {

/// Rows have orders from 0 up to here, exclusive; an array whose next row would lie beyond is written anew from 0.
/// At a million appended elements a second that takes twelve days, at a thousand a day three million years.
inline constexpr int64_t kMaxRowOrder = int64_t{1} << 40;

/// Consecutive rows.
struct RowRange {
  int64_t first = 0;
  int64_t count = 0;
  friend bool operator==(const RowRange&, const RowRange&) = default;
};

/// What has to be written so that the rows hold a new version of the array.
struct RowChange {
  std::vector<RowRange> removed;  ///< rows that go, in order; one range may span rows that went before
  size_t appended_from = 0;       ///< index, in the new version, of the first element that needs a new row
  int64_t first_new_row = 0;      ///< order of that row; the others follow

  bool removes(int64_t row) const;
  friend bool operator==(const RowChange&, const RowChange&) = default;
};

/// Ranges that are walked and moved together. Finding and removing a row costs one such block and a step for each of
/// the others.
inline constexpr size_t kRangesPerBlock = 128;

/// The rows of one array, in order. Kept as ranges: appending and trimming leave few of them, however long the array;
/// removing at random leaves up to one for every two elements.
class ArrayRows {
 public:
  /// Adds a row that was found in the store; rows are added in their order.
  void add(int64_t order);
  /// What leads from `before`, which these rows hold, to `after`. Elements are told apart by identity, chunks of
  /// elements that both share as a whole: what came of the stored array by appending costs what was appended; by
  /// removing, the chunks that lost an element and a step for each of the others. Changes nothing here.
  RowChange changeTo(const kit::Array& before, const kit::Array& after) const;
  /// Whether apply() of the change needs no memory, and so cannot fail.
  bool appliesInPlace(const RowChange& change) const;
  /// Takes the change over, once it is written. `size` is that of the new version.
  void apply(const RowChange& change, size_t size);

  std::vector<RowRange> ranges() const;
  int64_t next() const { return next_; }

 private:
  /// No block is empty, and no two neighbours would fit into one.
  struct Block {
    explicit Block(std::span<const RowRange> some);
    void remove(std::span<const RowRange> removed);
    std::vector<RowRange> ranges;
    size_t rows = 0;  ///< in all of them
  };
  class Finder;

  void append(RowRange rows);
  void append(Block&& block);
  void remove(std::span<const RowRange> removed);

  std::vector<Block> blocks_;
  int64_t next_ = 0;
};

}  // namespace morvik::host
