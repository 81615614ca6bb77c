#include "host/store/array_rows.h"

namespace morvik::host {
namespace {

void addRow(std::vector<RowRange>& ranges, int64_t order) {
  if (!ranges.empty() && ranges.back().first + ranges.back().count == order)
    ++ranges.back().count;
  else
    ranges.push_back({order, 1});
}

void addRows(std::vector<RowRange>& ranges, RowRange rows) {
  if (rows.count == 0)
    return;
  if (!ranges.empty() && ranges.back().first + ranges.back().count == rows.first)
    ranges.back().count += rows.count;
  else
    ranges.push_back(rows);
}

/// Rows that are neighbours in the array go with one command although their orders have gaps: nothing lies between.
void addRemoved(std::vector<RowRange>& removed, int64_t order, bool follows_a_removed_one) {
  if (follows_a_removed_one)
    removed.back().count = order - removed.back().first + 1;
  else
    removed.push_back({order, 1});
}

}  // namespace

void ArrayRows::add(int64_t order) {
  addRow(ranges_, order);
  next_ = order + 1;
}

RowChange ArrayRows::changeTo(const kit::Array& before, const kit::Array& after) const {
  RowChange change;
  const size_t shared = before.sharedPrefix(after);
  change.first_new_row = next_;
  change.appended_from = shared;
  if (shared < before.size()) {
    change.kept_all = false;
    size_t index = 0;
    bool removing = false;
    for (const RowRange& range : ranges_) {
      if (index + static_cast<size_t>(range.count) <= shared) {
        addRows(change.kept, range);
        index += static_cast<size_t>(range.count);
        continue;
      }
      for (int64_t order = range.first; order < range.first + range.count; ++order, ++index) {
        const bool keep = index < shared || (change.appended_from < after.size() &&
                                             before[index].identicalTo(after[change.appended_from]));
        if (keep) {
          addRow(change.kept, order);
          if (index >= shared)
            ++change.appended_from;
        } else {
          addRemoved(change.removed, order, removing);
        }
        removing = !keep;
      }
    }
  }
  const auto appended = static_cast<int64_t>(after.size() - change.appended_from);
  if (appended > kMaxRowOrder - change.first_new_row) {
    change.removed = {{0, kMaxRowOrder}};
    change.kept.clear();
    change.kept_all = false;
    change.appended_from = 0;
    change.first_new_row = 0;
  }
  return change;
}

void ArrayRows::apply(const RowChange& change, size_t size) {
  if (!change.kept_all)
    ranges_ = change.kept;
  const auto appended = static_cast<int64_t>(size - change.appended_from);
  addRows(ranges_, {change.first_new_row, appended});
  next_ = change.first_new_row + appended;
}

}  // namespace morvik::host
