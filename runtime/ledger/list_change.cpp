#include "runtime/ledger/list_change.h"

#include <algorithm>

namespace morvik::runtime {
namespace {

void remove(std::vector<ElementRange>& removed, size_t first, size_t count) {
  if (count == 0)
    return;
  if (!removed.empty() && removed.back().first + removed.back().count == first)
    removed.back().count += count;
  else
    removed.push_back({first, count});
}

}  // namespace

ListChange changeBetween(const kit::Array& before, const kit::Array& after) {
  ListChange change;
  kit::Array::Iterator old = before.begin();
  kit::Array::Iterator kept = after.begin();
  const kit::Array::Iterator old_end = before.end();
  const kit::Array::Iterator kept_end = after.end();
  while (old != old_end && kept != kept_end) {
    const size_t shared = old.sharedRun(kept);
    if (shared == 0 && !old->identicalTo(*kept)) {
      remove(change.removed, old.index(), 1);
      ++old;
      continue;
    }
    const size_t step = std::max(shared, size_t{1});
    old += step;
    kept += step;
  }
  remove(change.removed, old.index(), before.size() - old.index());
  change.added = after.size() - kept.index();
  return change;
}

}  // namespace morvik::runtime
