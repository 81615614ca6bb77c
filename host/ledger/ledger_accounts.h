// The counts of the ledger, and the form in which they are stored.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "host/ledger/ledger_reasons.h"
#include "kit/value.h"
#include "morvik/ledger.h"

namespace morvik::host {

/// Where they lie in the store.
inline constexpr std::string_view kLedgerKey = "host.ledger";
/// A stored count past this one is none: read as this. Sums of all counts stay within 64 bits.
inline constexpr uint64_t kMaxLedgerCount = uint64_t{1} << 56;

/// By kind.
using LedgerCounts = std::array<uint64_t, kLedgerKinds>;

/// Plain values; not safe for threads.
class LedgerAccounts {
 public:
  /// No counts at all.
  LedgerAccounts() = default;
  /// As toValue() wrote them; of anything else what can be read of it. Activities that the stored list holds beyond
  /// those that were written are recorded: recording one does not write the counts, everything else that happens to a
  /// list does.
  LedgerAccounts(const kit::Value& written, uint64_t stored_activities);

  void record(LedgerKind kind, uint64_t count);
  /// As record(), and not worth writing by itself: see the constructor.
  void recordUnwritten(LedgerKind kind, uint64_t count);
  void unrecord(LedgerKind kind, uint64_t count);
  void deliver(LedgerKind kind, uint64_t count);
  void giveUp(LedgerKind kind, LedgerReason reason, uint64_t count);
  void beginUnderWay(LedgerKind kind, uint64_t count);
  void endUnderWay(LedgerKind kind, uint64_t count);

  /// What was found in the store, as these counts were, after the process that wrote them.
  struct Found {
    LedgerCounts stored{};
    /// Values that a newer one may have taken the place of.
    uint64_t demographics_set_since = 0;
    /// Nothing was counted before: an older version stored what there is.
    bool is_first = false;
  };
  /// Brings them in line: what was under way is given up, and so is what is missing; what there is beyond them is
  /// recorded now.
  void bringInLineWith(const Found& found);
  /// Adds the counts of another part of the same account.
  void add(const LedgerAccounts& other);

  /// Changed, in more than by recordUnwritten(), since the last write().
  bool isChanged() const { return is_changed_; }
  /// With the number of activities that are stored at this moment.
  kit::Value write(uint64_t stored_activities);

  Ledger toLedger(const LedgerCounts& stored) const;

 private:
  uint64_t givenUp(LedgerKind kind) const;
  kit::Value accountOf(LedgerKind kind, uint64_t stored_activities) const;

  LedgerCounts recorded_{};
  LedgerCounts delivered_{};
  LedgerCounts under_way_{};
  LedgerCounts found_uncounted_{};
  /// By row of ledgerRules().
  std::vector<uint64_t> given_up_ = std::vector<uint64_t>(ledgerRules().size());
  bool is_changed_ = false;
};

}  // namespace morvik::host
