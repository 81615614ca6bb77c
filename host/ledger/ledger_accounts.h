// The counts of the ledger, and the form in which they are stored.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/ledger/ledger_reasons.h"
#include "kit/value.h"
#include "morvik/ledger.h"

namespace morvik::host {

/// By kind.
using LedgerCounts = std::array<uint64_t, kLedgerKinds>;

struct LedgerAccounts {
  LedgerCounts recorded{};
  LedgerCounts delivered{};
  LedgerCounts under_way{};
  LedgerCounts found_uncounted{};
  /// By row of ledgerRules().
  std::vector<uint64_t> given_up = std::vector<uint64_t>(ledgerRules().size());

  uint64_t& of(LedgerCounts LedgerAccounts::*member, LedgerKind kind) {
    return (this->*member)[static_cast<size_t>(kind)];
  }
  uint64_t givenUp(LedgerKind kind) const;

  /// With the number of activities that are stored at this moment.
  kit::Value toValue(uint64_t stored_activities) const;
  /// Of anything that toValue() did not make, what can be read of it. `stored_activities` are those that are stored
  /// now: recording one does not write the counts, everything else that happens to a list does, so what the list grew
  /// by since was recorded.
  static LedgerAccounts from(const kit::Value& written, uint64_t stored_activities);

  Ledger toLedger(const LedgerCounts& stored) const;
};

}  // namespace morvik::host
