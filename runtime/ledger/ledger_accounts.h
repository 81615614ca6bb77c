// The counts of the ledger, and their stored form.
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

/// Their key in the store.
inline constexpr std::string_view kLedgerKey = "host.ledger";
/// A larger stored count is invalid and read as this. Sums of all counts fit into 64 bits.
inline constexpr uint64_t kMaxLedgerCount = uint64_t{1} << 56;

/// How often demographic values were set on this device, as stored: see DemographicSets.
inline constexpr std::string_view kDemographicSetsKey = "host.demographicsSet";

/// Indexed by kind.
using LedgerCounts = std::array<uint64_t, kLedgerKinds>;

/// How often demographic values were set. A setter on an app's thread stores this with the value and leaves the book
/// alone; a start adds the difference between the two.
struct DemographicSets {
  uint64_t pending = 0;  ///< to a pending value
  uint64_t all = 0;      ///< those, and from a pending value to none

  static DemographicSets from(const kit::Value& stored);
  kit::Value toValue() const;
};

/// Why something the app handed over was refused; rows of the ledger.
inline constexpr std::array kLedgerRefusals = {Recorded::kRefusedForgotten,  Recorded::kRefusedEmpty,
                                               Recorded::kRefusedTooLarge,   Recorded::kRefusedTooMany,
                                               Recorded::kRefusedNotRunning, Recorded::kRefusedNoMemory};
using LedgerRefusals = std::array<uint64_t, kLedgerRefusals.size()>;

/// Plain values; not safe for threads.
class LedgerAccounts {
 public:
  /// All counts are zero.
  LedgerAccounts() = default;
  /// What is recorded without writing the counts, as the store has it now.
  struct Stored {
    uint64_t activities = 0;
    uint64_t impressions = 0;
    DemographicSets demographics;
    uint64_t demographics_waiting = 0;
  };
  /// From what write() wrote; from anything else, what can be read of it. If `stored` is larger than what was written,
  /// the difference counts as recorded: recording does not write the counts, every other change of a list does.
  LedgerAccounts(const kit::Value& written, const Stored& stored);

  void record(LedgerKind kind, uint64_t count);
  /// As record(), but not worth writing by itself: see the constructor.
  void recordUnwritten(LedgerKind kind, uint64_t count);
  /// As record(), of what nobody told of.
  void recordUncounted(LedgerKind kind, uint64_t count);
  void unrecord(LedgerKind kind, uint64_t count);
  void deliver(LedgerKind kind, uint64_t count);
  void giveUp(LedgerKind kind, LedgerReason reason, uint64_t count);
  void beginUnderWay(LedgerKind kind, uint64_t count);
  void endUnderWay(LedgerKind kind, uint64_t count);
  /// Of this kind, the counts are what they were.
  void takeBack(LedgerKind kind, const LedgerAccounts& before) noexcept;
  /// Makes the counts worth writing.
  void touch() { is_changed_ = true; }
  /// Not part of the equation, and not worth writing by itself.
  void refuse(const LedgerRefusals& counts);
  bool hasUnwrittenRefusals() const { return has_unwritten_refusals_; }

  /// What the store holds after the process that wrote these counts.
  struct Found {
    LedgerCounts stored{};
    /// Pending values that a newer one may have replaced.
    uint64_t demographics_set_since = 0;
    /// Nothing was counted before: an older version stored what is there.
    bool is_first = false;
  };
  /// Reconciles the counts with the store: what was under way and what is missing counts as given up; anything extra
  /// counts as recorded now.
  void bringInLineWith(const Found& found);
  /// Adds the counts of another part of the same account.
  void add(const LedgerAccounts& other);

  /// Whether anything but recordUnwritten() changed them since the last write().
  bool isChanged() const { return is_changed_; }
  /// With the current values of `stored`.
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
  /// Indexed by row of ledgerRules().
  std::vector<uint64_t> given_up_ = std::vector<uint64_t>(ledgerRules().size());
  LedgerRefusals refused_{};
  bool has_unwritten_refusals_ = false;
  bool is_changed_ = false;
};

}  // namespace morvik::runtime
