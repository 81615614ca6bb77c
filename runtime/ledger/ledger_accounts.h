// The counts of the ledger, and the form in which they are stored.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "kit/value.h"
#include "morvik/ledger.h"
#include "morvik/recorded.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

/// Where they lie in the store.
inline constexpr std::string_view kLedgerKey = "host.ledger";
/// A stored count past this one is none: read as this. Sums of all counts stay within 64 bits.
inline constexpr uint64_t kMaxLedgerCount = uint64_t{1} << 56;

/// How often demographic values were set on this device, as the store has it: see DemographicSets.
inline constexpr std::string_view kDemographicSetsKey = "host.demographicsSet";

/// By kind.
using LedgerCounts = std::array<uint64_t, kLedgerKinds>;

/// How often demographic values were set. A setter on a thread of the app's writes it beside the value, and leaves the
/// book to whoever holds it: a start that finds more than the book knows of adds the difference.
struct DemographicSets {
  uint64_t pending = 0;  ///< to a value that waits
  uint64_t all = 0;      ///< those, and from one that waited to none

  static DemographicSets from(const kit::Value& stored);
  kit::Value toValue() const;
};

/// Why something that the app handed over was refused, as rows of the ledger.
inline constexpr std::array kLedgerRefusals = {Recorded::kRefusedForgotten,  Recorded::kRefusedEmpty,
                                               Recorded::kRefusedTooLarge,   Recorded::kRefusedTooMany,
                                               Recorded::kRefusedNotRunning, Recorded::kRefusedNoMemory};
using LedgerRefusals = std::array<uint64_t, kLedgerRefusals.size()>;

/// Plain values; not safe for threads.
class LedgerAccounts {
 public:
  /// No counts at all.
  LedgerAccounts() = default;
  /// What is recorded without writing the counts, as the store has it now.
  struct Stored {
    uint64_t activities = 0;
    uint64_t impressions = 0;
    DemographicSets demographics;
    uint64_t demographics_waiting = 0;
  };
  /// As write() wrote them; of anything else what can be read of it. What `stored` has beyond what was written is
  /// recorded: recording one does not write the counts, everything else that happens to a list does.
  LedgerAccounts(const kit::Value& written, const Stored& stored);

  void record(LedgerKind kind, uint64_t count);
  /// As record(), and not worth writing by itself: see the constructor.
  void recordUnwritten(LedgerKind kind, uint64_t count);
  void unrecord(LedgerKind kind, uint64_t count);
  void deliver(LedgerKind kind, uint64_t count);
  void giveUp(LedgerKind kind, LedgerReason reason, uint64_t count);
  void beginUnderWay(LedgerKind kind, uint64_t count);
  void endUnderWay(LedgerKind kind, uint64_t count);
  /// Makes them worth writing.
  void touch() { is_changed_ = true; }
  /// Outside of the equation, and not worth writing by itself.
  void refuse(const LedgerRefusals& counts);
  bool hasUnwrittenRefusals() const { return has_unwritten_refusals_; }

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
  /// With what `stored` says of this moment.
  kit::Value write(const Stored& stored);

  Ledger toLedger(const LedgerCounts& stored) const;

 private:
  void takeDemographicsSetSince(const DemographicSets& then, const Stored& stored);
  uint64_t givenUp(LedgerKind kind) const;
  kit::Value accountOf(LedgerKind kind, const Stored& stored) const;

  LedgerCounts recorded_{};
  LedgerCounts delivered_{};
  LedgerCounts under_way_{};
  LedgerCounts found_uncounted_{};
  /// By row of ledgerRules().
  std::vector<uint64_t> given_up_ = std::vector<uint64_t>(ledgerRules().size());
  LedgerRefusals refused_{};
  bool has_unwritten_refusals_ = false;
  bool is_changed_ = false;
};

}  // namespace morvik::runtime
