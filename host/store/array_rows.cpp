#include "host/store/array_rows.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <utility>

namespace morvik::host {
namespace {

using kit::Array;

int64_t endOf(const RowRange& rows) {
  return rows.first + rows.count;
}

/// Rows that are neighbours in the array are removed with one command even if there are gaps in their order: nothing is
/// in between.
void addRemoved(std::vector<RowRange>& removed, int64_t order, bool follows_a_removed_one) {
  if (follows_a_removed_one)
    removed.back().count = order - removed.back().first + 1;
  else
    removed.push_back({order, 1});
}

size_t countOf(std::span<const RowRange> ranges) {
  size_t count = 0;
  for (const RowRange& range : ranges)
    count += static_cast<size_t>(range.count);
  return count;
}

/// The ranges without the removed rows.
std::vector<RowRange> without(std::span<const RowRange> ranges, std::span<const RowRange> removed) {
  std::vector<RowRange> left;
  const auto keep = [&left](int64_t first, int64_t end) {
    if (first < end)
      left.push_back({first, end - first});
  };
  auto gone = removed.begin();
  for (const RowRange& range : ranges) {
    int64_t order = range.first;
    for (; gone != removed.end() && gone->first < endOf(range); ++gone) {
      keep(order, gone->first);
      order = std::max(order, endOf(*gone));
      if (order >= endOf(range))
        break;  // it may continue in the next range
    }
    keep(order, endOf(range));
  }
  return left;
}

}  // namespace

bool RowChange::removes(int64_t row) const {
  const auto range = std::partition_point(removed.begin(), removed.end(),
                                          [row](const RowRange& candidate) { return endOf(candidate) <= row; });
  return range != removed.end() && range->first <= row;
}

ArrayRows::Block::Block(std::span<const RowRange> some) : ranges(some.begin(), some.end()), rows(countOf(some)) {}

void ArrayRows::Block::remove(std::span<const RowRange> removed) {
  const auto gone = std::partition_point(removed.begin(), removed.end(), [this](const RowRange& candidate) {
    return endOf(candidate) <= ranges.front().first;
  });
  if (gone == removed.end())
    return;
  const auto first = std::partition_point(ranges.begin(), ranges.end(),
                                          [gone](const RowRange& range) { return endOf(range) <= gone->first; });
  const auto behind = std::partition_point(
      first, ranges.end(), [&removed](const RowRange& range) { return range.first < endOf(removed.back()); });
  const std::vector<RowRange> left = without({first, behind}, {gone, removed.end()});
  rows = rows - countOf({first, behind}) + countOf(left);
  const auto shared = static_cast<std::ptrdiff_t>(std::min(left.size(), static_cast<size_t>(behind - first)));
  const auto rest = std::copy_n(left.begin(), shared, first);
  if (rest != behind)
    ranges.erase(rest, behind);
  else
    ranges.insert(rest, left.begin() + shared, left.end());
}

/// Finds the row of an element. Moves forward only.
class ArrayRows::Finder {
 public:
  explicit Finder(const std::vector<Block>& blocks) : block_(blocks.begin()) {}
  int64_t orderOf(size_t index) {
    for (; index - before_ >= block_->rows; ++block_, range_ = 0, before_range_ = 0)
      before_ += block_->rows;
    const size_t in_block = index - before_;
    while (in_block - before_range_ >= static_cast<size_t>(block_->ranges[range_].count)) {
      before_range_ += static_cast<size_t>(block_->ranges[range_].count);
      ++range_;
    }
    return block_->ranges[range_].first + static_cast<int64_t>(in_block - before_range_);
  }

 private:
  std::vector<Block>::const_iterator block_;
  size_t before_ = 0;  ///< elements in the blocks passed
  size_t range_ = 0;
  size_t before_range_ = 0;  ///< elements in the ranges passed in this block
};

void ArrayRows::add(int64_t order) {
  append({order, 1});
  next_ = order + 1;
}

std::vector<RowRange> ArrayRows::ranges() const {
  std::vector<RowRange> all;
  for (const Block& block : blocks_)
    all.insert(all.end(), block.ranges.begin(), block.ranges.end());
  return all;
}

RowChange ArrayRows::changeTo(const Array& before, const Array& after) const {
  RowChange change;
  change.first_new_row = next_;
  Finder row(blocks_);
  Array::Iterator kept = after.begin();
  const Array::Iterator kept_end = after.end();
  const Array::Iterator end = before.end();
  bool removing = false;
  for (Array::Iterator element = before.begin(); element != end;) {
    size_t same = element.sharedRun(kept);
    if (same == 0 && kept != kept_end && element->identicalTo(*kept))
      same = 1;
    if (same == 0) {
      addRemoved(change.removed, row.orderOf(element.index()), removing);
      ++element;
    } else {
      element += same;
      kept += same;
    }
    removing = same == 0;
  }
  change.appended_from = kept.index();
  const auto appended = static_cast<int64_t>(after.size() - change.appended_from);
  if (appended > kMaxRowOrder - change.first_new_row) {
    change.removed = {{0, kMaxRowOrder}};
    change.appended_from = 0;
    change.first_new_row = 0;
  }
  return change;
}

bool ArrayRows::appliesInPlace(const RowChange& change) const {
  return change.removed.empty() && !blocks_.empty() && endOf(blocks_.back().ranges.back()) == change.first_new_row;
}

void ArrayRows::apply(const RowChange& change, size_t size) {
  remove(change.removed);
  const auto appended = static_cast<int64_t>(size - change.appended_from);
  append({change.first_new_row, appended});
  next_ = change.first_new_row + appended;
}

void ArrayRows::append(RowRange rows) {
  if (rows.count <= 0)
    return;
  if (blocks_.empty() || endOf(blocks_.back().ranges.back()) != rows.first) {
    append(Block({&rows, 1}));
  } else {
    blocks_.back().ranges.back().count += rows.count;
    blocks_.back().rows += static_cast<size_t>(rows.count);
  }
}

void ArrayRows::append(Block&& block) {
  const size_t count = block.ranges.size();
  if (count == 0)
    return;
  if (!blocks_.empty() && blocks_.back().ranges.size() + count <= kRangesPerBlock) {
    Block& last = blocks_.back();
    last.ranges.insert(last.ranges.end(), block.ranges.begin(), block.ranges.end());
    last.rows += block.rows;
  } else if (count <= kRangesPerBlock) {
    blocks_.push_back(std::move(block));
  } else {
    const size_t pieces = (count + kRangesPerBlock - 1) / kRangesPerBlock;
    const size_t longest = (count + pieces - 1) / pieces;
    for (size_t from = 0; from < count; from += longest)
      append(Block(std::span(block.ranges).subspan(from, std::min(longest, count - from))));
  }
}

void ArrayRows::remove(std::span<const RowRange> removed) {
  if (removed.empty())
    return;
  const auto first = std::partition_point(blocks_.begin(), blocks_.end(), [&removed](const Block& block) {
    return endOf(block.ranges.back()) <= removed.front().first;
  });
  std::vector<Block> rest(std::make_move_iterator(first), std::make_move_iterator(blocks_.end()));
  blocks_.erase(first, blocks_.end());
  bool all_removed = false;
  for (Block& block : rest) {
    if (!all_removed) {
      all_removed = endOf(removed.back()) <= endOf(block.ranges.back());
      block.remove(removed);
    }
    append(std::move(block));
  }
}

}  // namespace morvik::host
