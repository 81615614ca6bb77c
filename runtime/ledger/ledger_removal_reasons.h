// Why a record went: which of the rules explains it, or none.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kit/value.h"
#include "runtime/ledger/ledger_exchange.h"
#include "runtime/ledger/ledger_exchanges.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

enum class LedgerWriter : uint8_t { kKit, kHand };

/// What the core did last, as far as it explains what goes.
struct LedgerTraces {
  kit::Value last_sent_key;  ///< of the ids of the latest batch
  size_t sent_keys = 0;
  kit::Value newest_click;
  /// What was to be done if it fails was dropped, or may have been: a session ended since its payload was begun.
  bool is_newest_click_let_go = false;
};

/// Who takes records of a kind out of the store, and when.
struct LedgerDeparture {
  LedgerKind kind;
  LedgerWriter writer;
  /// The exchange whose handler does it, if it goes where records of this kind go; else null.
  LedgerExchange* ended = nullptr;
  bool is_accepted = false;  ///< it was
  bool is_in_background = false;
  bool leaves_some = false;  ///< of what was stored

  /// The exchange delivered the record at `index` of the list.
  bool isDelivered(const kit::Value& record, size_t index) const;
};

/// Why a record went that the exchange did not deliver. `is_carried`: by another request that is under way. A rule's
/// reason, or kUnexplained.
LedgerReason removalReason(const LedgerDeparture& departure, const kit::Value& record, bool is_carried,
                           const LedgerTraces& traces, LedgerExchanges& exchanges);

/// The same of a demographic value. `is_replaced`: by another one that waits.
LedgerReason valueRemovalReason(const LedgerDeparture& departure, bool is_replaced);

/// Why a click that nothing but `ended` had went with it, unaccepted. `kept`: the clicks that were stored when its
/// handler began: one of them may be given up meanwhile.
LedgerReason clickLossReason(const LedgerExchange& ended, const LedgerTraces& traces, const kit::Value& kept);

}  // namespace morvik::runtime
