// What the ledger last saw in the store: five lists, and the pending demographic values.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kit/key_value_store.h"
#include "kit/value.h"
#include "runtime/ledger/ledger_accounts.h"
#include "runtime/ledger/ledger_reasons.h"
#include "runtime/ledger/ledger_tickets.h"

namespace morvik::runtime {

/// What a stored value means to the ledger.
struct LedgerKey {
  enum class Part : uint8_t {
    kNone,        ///< not relevant
    kList,        ///< the records of a kind
    kDemographic  ///< a pending value, or the mark that none is
  };
  Part part = Part::kNone;
  LedgerKind kind = LedgerKind::kActivities;  ///< of a list
  size_t slot = 0;                            ///< of a demographic value
};
LedgerKey ledgerKeyOf(std::string_view key);

/// Plain; not thread-safe. The demographics are accessed at the door only: setters come from any thread.
class LedgerStored {
 public:
  /// Reads the store, which outlives it.
  explicit LedgerStored(const kit::KeyValueStore& store);

  uint64_t count(LedgerKind kind) const;
  /// What is recorded without writing the counts.
  LedgerAccounts::Stored recordedUnwritten() const;
  LedgerCounts counts() const;
  /// Absent for demographics.
  const kit::Value& list(LedgerKind kind) const { return lists_[static_cast<size_t>(kind)]; }
  /// A unique number for each pending demographic value; 0: not pending.
  const std::array<uint64_t, kDemographicValues>& versions() const { return versions_; }

  /// The store is about to hold this list.
  void setList(LedgerKind kind, const kit::Value& list);
  // Of a demographic value, by its place.
  static std::string_view keyOf(size_t slot);
  /// By the name under which it is sent.
  static std::optional<size_t> slotOf(std::string_view demo_key);
  static bool isPending(size_t slot, const kit::Value& value);

  struct Replaced {
    uint64_t version = 0;     ///< of the previous value
    bool is_pending = false;  ///< the new value is pending
  };
  /// The store is about to hold this demographic value.
  Replaced setDemographic(size_t slot, const kit::Value& value);
  /// What setDemographic() changes, to undo it if the store could not be written after all.
  struct Demographics {
    std::array<uint64_t, kDemographicValues> versions{};
    DemographicSets sets;
    std::array<bool, kDemographicValues> was_set{};
  };
  Demographics demographics() const { return {versions_, sets_, was_set_}; }
  void takeBack(const Demographics& before);

  struct Growth {
    uint64_t more = 0;
    uint64_t fewer = 0;
    kit::Value before{};  ///< the known list; destroy it under no lock
  };
  /// Reads the list again, for changes made by other means than the two calls above.
  Growth lookAgainAtList(LedgerKind kind);
  Growth lookAgainAtDemographics();
  /// As both, for all kinds, once the store has recovered: what was in its file.
  LedgerAccounts::Found lookAgainInTheLight();

 private:
  bool takeDemographic(size_t slot);

  const kit::KeyValueStore& store_;
  std::array<kit::Value, kLedgerKinds> lists_;
  std::array<uint64_t, kDemographicValues> versions_{};
  uint64_t last_version_ = 0;
  DemographicSets sets_;
  std::array<bool, kDemographicValues> was_set_{};  ///< by setDemographic()
};

}  // namespace morvik::runtime
