// Records that left their list while requests were under way that carry them: what became of them shows later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/ledger/ledger_moments.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

/// Plain; not safe for threads. Needs no limit of its own: a group goes with the last of the requests that carry it,
/// and while these are under way only so much leaves the lists as they carry.
class LedgerUnclaimed {
 public:
  /// One record more, with the first moment after it. `reason` counts if none of `carriers`, of which there is at least
  /// one, is accepted.
  void add(LedgerKind kind, LedgerReason reason, LedgerMoments::Moment first_after,
           const std::vector<uint64_t>& carriers);

  struct Settled {
    LedgerKind kind;
    LedgerReason reason;
    LedgerMoments::Moment first_after = 0;
    uint64_t count = 0;
  };
  /// A request has ended. Accepted, what it carries is settled; else what no other request carries. In the order in
  /// which they came.
  std::vector<Settled> settle(uint64_t ended, bool is_accepted);
  /// What settle() would answer.
  std::vector<Settled> settledBy(uint64_t ended, bool is_accepted) const;
  /// All that wait for that.
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
