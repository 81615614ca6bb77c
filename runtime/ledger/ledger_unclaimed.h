// Records that left their list while requests carrying them were under way. What became of them shows when those end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/ledger/ledger_moments.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

/// Plain; not thread-safe. Needs no limit of its own: a group goes with the last request that carries it, and no more
/// records leave the lists meanwhile than these requests carry.
class LedgerUnclaimed {
 public:
  /// Adds one record, with the first moment after it. `reason` counts if none of `carriers` (at least one) is accepted.
  void add(LedgerKind kind, LedgerReason reason, LedgerMoments::Moment first_after,
           const std::vector<uint64_t>& carriers);

  struct Settled {
    LedgerKind kind;
    LedgerReason reason;
    LedgerMoments::Moment first_after = 0;
    uint64_t count = 0;
  };
  /// A request has ended. If it was accepted, everything it carries is settled; else what no other request carries. In
  /// the order of add().
  std::vector<Settled> settle(uint64_t ended, bool is_accepted);
  /// What settle() would return.
  std::vector<Settled> settledBy(uint64_t ended, bool is_accepted) const;
  /// Records not settled yet.
  uint64_t count() const;

 private:
  struct Group {
    Settled records;
    std::vector<uint64_t> carriers;
    bool isSettledBy(uint64_t ended, bool is_accepted) const;
  };
  std::vector<Group> groups_;
};

}  // namespace morvik::runtime
