// Why a record was removed: the rule that explains it, or none.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kit/value.h"
#include "runtime/ledger/ledger_exchange.h"
#include "runtime/ledger/ledger_exchanges.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

enum class LedgerWriter : uint8_t { kKit, kHand };

/// What the core did last, as far as it explains removals.
struct LedgerTraces {
  kit::Value last_sent_key;  ///< last id of the latest batch
  size_t sent_keys = 0;
  kit::Value newest_click;
  /// The retry of the newest click was dropped, or may have been: a session ended since its payload was begun.
  bool is_newest_click_let_go = false;
};

/// Who removes records of a kind from the store, and when.
struct LedgerDeparture {
  LedgerKind kind;
  LedgerWriter writer;
  /// The exchange whose handler does it, if it goes to this kind's endpoint; else null.
  LedgerExchange* ended = nullptr;
  bool is_accepted = false;  ///< `ended` was accepted
  bool is_in_background = false;
  bool leaves_some = false;  ///< some stored records remain

  /// The exchange delivered the record at `index` of the list.
  bool isDelivered(const kit::Value& record, size_t index) const;
};

/// Why a record was removed that the exchange did not deliver: a rule's reason, or kUnexplained. `is_carried`: another
/// request under way carries it.
LedgerReason removalReason(const LedgerDeparture& departure, const kit::Value& record, bool is_carried,
                           const LedgerTraces& traces, LedgerExchanges& exchanges);

/// The same for a demographic value. `is_replaced`: by another pending one.
LedgerReason valueRemovalReason(const LedgerDeparture& departure, bool is_replaced);

/// Why a click that only `ended` held was lost with it, unaccepted. `kept`: the clicks stored when its handler began;
/// one of them may have been given up since.
LedgerReason clickLossReason(const LedgerExchange& ended, const LedgerTraces& traces, const kit::Value& kept);

}  // namespace morvik::runtime
