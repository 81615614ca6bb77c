#include "runtime/ledger/ledger_unclaimed.h"

#include <algorithm>

namespace morvik::runtime {

bool LedgerUnclaimed::Group::isSettledBy(uint64_t ended, bool is_accepted) const {
  const bool is_carried = std::find(carriers.begin(), carriers.end(), ended) != carriers.end();
  return is_carried && (is_accepted || carriers.size() == 1);
}

void LedgerUnclaimed::add(LedgerKind kind, LedgerReason reason, LedgerMoments::Moment first_after,
                          const std::vector<uint64_t>& carriers) {
  const bool is_like_the_last =
      !groups_.empty() && groups_.back().records.kind == kind && groups_.back().records.reason == reason &&
      groups_.back().records.first_after == first_after && groups_.back().carriers == carriers;
  if (!is_like_the_last)
    groups_.push_back({{kind, reason, first_after, 0}, carriers});
  ++groups_.back().records.count;
}

std::vector<LedgerUnclaimed::Settled> LedgerUnclaimed::settle(uint64_t ended, bool is_accepted) {
  std::vector<Settled> settled = settledBy(ended, is_accepted);
  std::erase_if(groups_, [&](Group& group) {
    if (group.isSettledBy(ended, is_accepted))
      return true;
    std::erase(group.carriers, ended);
    return false;
  });
  return settled;
}

std::vector<LedgerUnclaimed::Settled> LedgerUnclaimed::settledBy(uint64_t ended, bool is_accepted) const {
  std::vector<Settled> settled;
  for (const Group& group : groups_) {
    if (group.isSettledBy(ended, is_accepted))
      settled.push_back(group.records);
  }
  return settled;
}

uint64_t LedgerUnclaimed::count() const {
  uint64_t sum = 0;
  for (const Group& group : groups_)
    sum += group.records.count;
  return sum;
}

}  // namespace morvik::runtime
