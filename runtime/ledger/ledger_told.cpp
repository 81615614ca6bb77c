#include "runtime/ledger/ledger_told.h"

#include <algorithm>
#include <utility>

namespace morvik::runtime {
namespace {

bool takeOne(uint32_t& count) {
  if (count == 0)
    return false;
  --count;
  return true;
}

}  // namespace

void LedgerTold::removed(const kit::Array& which, LedgerReason reason) noexcept {
  if (which.empty())
    return;
  std::move_backward(removals_.begin(), removals_.end() - 1, removals_.end());
  removals_.front() = {which, which.begin(), reason};
}

LedgerReason LedgerTold::reasonOf(const kit::Value& record) noexcept {
  for (Removal& removal : removals_) {
    if (removal.next == removal.which.end() || !removal.next->identicalTo(record))
      continue;
    ++removal.next;
    return removal.reason;
  }
  return LedgerReason::kUnexplained;
}

void LedgerTold::clear() noexcept {
  removals_ = {};
  added_ = 0;
}

void LedgerToldValues::changes(size_t slot, LedgerReason reason) noexcept {
  Told& told = told_[slot];
  if (reason == LedgerReason::kReplaced)
    ++told.replaced;
  else if (reason == LedgerReason::kTakenBack)
    ++told.taken_back;
  else
    ++told.answered;
}

LedgerReason LedgerToldValues::take(size_t slot, bool is_pending) noexcept {
  Told& told = told_[slot];
  if (is_pending)
    return takeOne(told.replaced) ? LedgerReason::kReplaced : LedgerReason::kUnexplained;
  if (takeOne(told.answered))
    return LedgerReason::kAddedDuringUpload;
  return takeOne(told.taken_back) ? LedgerReason::kTakenBack : LedgerReason::kUnexplained;
}

}  // namespace morvik::runtime
