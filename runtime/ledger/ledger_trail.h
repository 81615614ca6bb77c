// Writes the trail of the latest batches, and explains from it what became of one event.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kit/clock.h"
#include "kit/value.h"
#include "morvik/explanation.h"
#include "runtime/ledger/exchange_trail.h"
#include "runtime/ledger/ledger_reasons.h"
#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Not safe for threads. What it writes is committed with the turn. Without memory an element is left out. Of a user
/// who asked to be forgotten it keeps nothing.
class LedgerTrail {
 public:
  /// Both outlive it.
  LedgerTrail(MachineStore& store, const kit::Clock& clock);

  /// Drops what does not belong into a trail, and closes what earlier processes left open: nobody knows those answers.
  /// To be called at the start, and when the store has recovered.
  void takeOver() noexcept;
  /// A batch begins. Returns its number; 0: without memory.
  uint64_t begun(const kit::Array& event_ids) noexcept;
  /// `end.ended` is now, unless it was abandoned.
  void ended(TrailEnd end) noexcept;
  void givenUp(LedgerReason reason, const kit::Array& event_ids) noexcept;
  /// If the user asked for it: drops everything.
  void forgetIfWished() noexcept;

  kit::Date now() const { return clock_.now(); }
  /// The trail as explain() takes it.
  kit::Value read() const { return store_.get(kTrailKey); }
  /// How many elements were dropped as damaged since the last call. Any thread.
  size_t takeDropped();

 private:
  bool isForgotten() const;
  void append(kit::Value element);

  MachineStore& store_;
  const kit::Clock& clock_;
  uint64_t first_number_;
  uint64_t last_number_;
  std::atomic<size_t> dropped_ = 0;
};

}  // namespace morvik::runtime
