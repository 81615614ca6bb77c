// What the ledger was told of the next change to a list, or to a demographic value: the store's own look at the change
// is held against it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kit/value.h"
#include "runtime/ledger/ledger_reasons.h"
#include "runtime/ledger/ledger_tickets.h"

namespace morvik::runtime {

/// Of one list. Plain; not safe for threads.
class LedgerTold {
 public:
  /// One change is told in so many parts at most. A change that never came leaves its part behind: the oldest goes.
  static constexpr size_t kMaxRemovals = 4;

  void added(size_t count) noexcept { added_ = count; }
  void removed(const kit::Array& which, LedgerReason reason) noexcept;
  /// Why this record goes; kUnexplained when nobody said so. To be asked in the order in which it was told.
  LedgerReason reasonOf(const kit::Value& record) noexcept;
  /// How many were told to come.
  size_t added() const noexcept { return added_; }
  /// The change is done.
  void clear() noexcept;

 private:
  struct Removal {
    kit::Array which;
    kit::Array::Iterator next;
    LedgerReason reason = LedgerReason::kUnexplained;
  };
  std::array<Removal, kMaxRemovals> removals_;  ///< the newest first
  size_t added_ = 0;
};

/// Of the demographic values. Several threads set the same one: what they tell is counted. Plain; at the door.
class LedgerToldValues {
 public:
  void changes(size_t slot, LedgerReason reason) noexcept;
  /// Why the value that waits in this slot goes, when one that waits takes its place, or none; kUnexplained when nobody
  /// said so.
  LedgerReason take(size_t slot, bool is_pending) noexcept;

 private:
  struct Told {
    uint32_t replaced = 0;
    uint32_t taken_back = 0;
    uint32_t answered = 0;
  };
  std::array<Told, kDemographicValues> told_{};
};

}  // namespace morvik::runtime
