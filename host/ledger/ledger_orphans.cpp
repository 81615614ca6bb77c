#include "host/ledger/ledger_orphans.h"

#include <algorithm>

namespace morvik::host {

void LedgerOrphans::add(LedgerKind kind, LedgerReason reason, const std::vector<uint64_t>& carriers) {
  const bool is_like_the_last = !groups_.empty() && groups_.back().records.kind == kind &&
                                groups_.back().records.reason == reason && groups_.back().carriers == carriers;
  if (!is_like_the_last)
    groups_.push_back({{kind, reason, 0}, carriers});
  ++groups_.back().records.count;
}

std::vector<LedgerOrphans::Settled> LedgerOrphans::settle(uint64_t ended, bool is_accepted) {
  std::vector<Settled> settled;
  std::erase_if(groups_, [&](Group& group) {
    if (std::erase(group.carriers, ended) == 0 || (!is_accepted && !group.carriers.empty()))
      return false;
    settled.push_back(group.records);
    return true;
  });
  return settled;
}

}  // namespace morvik::host
