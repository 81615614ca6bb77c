// What became of the activities and impressions recorded before certain moments.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "kit/mutex.h"
#include "runtime/ledger/ledger_reasons.h"
#include "runtime/ledger/list_change.h"

namespace morvik::runtime {

/// Both lists lose records anywhere but grow only at their end. So what was recorded before a moment is what lies
/// before a place in the list, plus what left it while a request carries it. The book reports what leaves and what
/// becomes of it; appending changes nothing here. Any thread; has its own lock, the innermost one, and calls nothing
/// under it. Needs no limit of its own: a flush has two moments, and kMaxFlushes bounds those.
class LedgerMoments {
 public:
  /// Identifies a moment; later ones are greater.
  using Moment = uint64_t;

  /// For what was recorded before a moment.
  struct Left {
    uint64_t waiting = 0;   ///< stored, or only in an unanswered request
    uint64_t given_up = 0;  ///< since the moment, by a rule that counts: see isLoss()
  };

  /// Begins a moment with this many records in the lists. Call forget() some time.
  Moment begin(size_t activities, size_t impressions);
  void forget(Moment moment);
  /// Zero for a forgotten moment.
  Left left(Moment moment) const;
  /// Records of both kinds that only a request holds.
  uint64_t underWay() const;

  /// Whether records of this kind are followed.
  static bool follows(LedgerKind kind) { return kind == LedgerKind::kActivities || kind == LedgerKind::kImpressions; }
  /// Whether a record given up for this reason is missing from what was delivered. The "end" of a session that went on
  /// is not: there was no such end.
  static bool isLoss(LedgerReason reason) { return reason != LedgerReason::kKeptSession; }

  // For the book; no effect for kinds that are not followed.
  /// The first moment after the stored record at this place was recorded; the next moment if there is none yet.
  Moment firstAfter(LedgerKind kind, size_t index) const;
  /// Records with `first` as the first moment after them leave the list: into a request alone, or for good.
  void wentUnderWay(LedgerKind kind, Moment first, uint64_t count);
  void wasSettled(LedgerKind kind, Moment first, uint64_t count, bool is_lost);
  void wasLost(LedgerKind kind, Moment first, uint64_t count);
  /// The list lost these.
  void listShrank(LedgerKind kind, const ListChange& change);
  /// The list was found to have this many more, some of them before the known ones. All count as recorded before each
  /// moment: a flush rather waits for too much than for too little.
  void listRecovered(LedgerKind kind, uint64_t more);
  /// The list was found to be no longer than this.
  void listWasCut(LedgerKind kind, size_t size);

 private:
  struct State {
    Moment moment = 0;
    std::array<size_t, kLedgerKinds> places{};  ///< how many of the first elements of each list
    uint64_t under_way = 0;
    uint64_t given_up = 0;
  };

  // These hold the mutex.
  std::vector<State>::const_iterator find(Moment moment) const;

  mutable kit::Mutex mutex_;   // guards what follows
  std::vector<State> states_;  ///< later ones never have earlier places
  Moment latest_ = 0;
  uint64_t under_way_ = 0;
};

}  // namespace morvik::runtime
