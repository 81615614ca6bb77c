// What became of the activities and impressions that were recorded before certain moments.
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

/// Both lists lose records anywhere and are appended to at their end, so what was recorded before a moment is what lies
/// before a place in the list, and what has left it while a request carries it. The book says what leaves and what
/// becomes of it; what is appended changes nothing here. Any thread; a lock of its own, the last one, under which
/// nothing is called. Needs no limit of its own: a flush has two moments, and kMaxFlushes bounds those.
class LedgerMoments {
 public:
  /// Names a moment; later ones are greater.
  using Moment = uint64_t;

  /// Of what was recorded before a moment.
  struct Left {
    uint64_t waiting = 0;   ///< stored, or in a request alone whose answer has not come
    uint64_t given_up = 0;  ///< since the moment, by a rule that counts: see isLoss()
  };

  /// A moment, with so many records in the lists. To be forgotten some time.
  Moment begin(size_t activities, size_t impressions);
  void forget(Moment moment);
  /// Nothing of a moment that was forgotten.
  Left left(Moment moment) const;
  /// Records of both kinds that are in a request alone.
  uint64_t underWay() const;

  /// Whether records of this kind are followed.
  static bool follows(LedgerKind kind) { return kind == LedgerKind::kActivities || kind == LedgerKind::kImpressions; }
  /// Whether a record that is given up for this reason is missing in what was delivered. The "end" of a session that
  /// went on is not: there was no such end.
  static bool isLoss(LedgerReason reason) { return reason != LedgerReason::kKeptSession; }

  // The book's side; nothing for kinds that are not followed.
  /// The first moment that a stored record at this place was recorded before; that of the next one, where there is none
  /// yet.
  Moment firstAfter(LedgerKind kind, size_t index) const;
  /// Of those that `first` is the first moment after. They leave the list, into a request alone or for good.
  void wentUnderWay(LedgerKind kind, Moment first, uint64_t count);
  void wasSettled(LedgerKind kind, Moment first, uint64_t count, bool is_lost);
  void wasLost(LedgerKind kind, Moment first, uint64_t count);
  /// The list lost these.
  void listShrank(LedgerKind kind, const ListChange& change);
  /// The list was found to have so many more, some of them before those that were known. They all count as recorded
  /// before each moment: a flush waits rather for too much than for too little.
  void listRecovered(LedgerKind kind, uint64_t more);
  /// The list was found to be no longer than this.
  void listWasCut(LedgerKind kind, size_t size);

 private:
  struct State {
    Moment moment = 0;
    std::array<size_t, kLedgerKinds> places{};  ///< so many of the first ones in the list
    uint64_t under_way = 0;
    uint64_t given_up = 0;
  };

  // These hold the mutex.
  std::vector<State>::const_iterator find(Moment moment) const;

  mutable kit::Mutex mutex_;   // guards what follows
  std::vector<State> states_;  ///< a later one's places are never before an earlier one's
  Moment latest_ = 0;
  uint64_t under_way_ = 0;
};

}  // namespace morvik::runtime
