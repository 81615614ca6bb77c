// Records that left their list while requests were under way that carry them: what became of them shows later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/ledger/ledger_reasons.h"

namespace morvik::host {

/// Plain; not safe for threads. Needs no limit of its own: a group goes with the last of the requests that carry it,
/// and while these are under way only so much leaves the lists as they carry.
class LedgerOrphans {
 public:
  /// One record more. `reason` counts if none of `carriers`, of which there is at least one, is accepted.
  void add(LedgerKind kind, LedgerReason reason, const std::vector<uint64_t>& carriers);

  struct Settled {
    LedgerKind kind;
    LedgerReason reason;
    uint64_t count = 0;
  };
  /// A request has ended. Accepted, what it carries is settled; else what no other request carries. In the order in
  /// which they came.
  std::vector<Settled> settle(uint64_t ended, bool is_accepted);

 private:
  struct Group {
    Settled records;
    std::vector<uint64_t> carriers;
  };
  std::vector<Group> groups_;
};

}  // namespace morvik::host
