#include "runtime/ledger/ledger_removal_reasons.h"

#include <algorithm>

#include "services/converters.h"

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;

int64_t keyOf(const kit::Value& click) {
  return services::checkIntegerNilToZero(click["conversion_key"]);
}

bool isKept(const kit::Value& clicks, int64_t key) {
  const kit::Array all = clicks.array();
  return std::any_of(all.begin(), all.end(), [key](const kit::Value& click) { return keyOf(click) == key; });
}

Reason whyActivityGone(const LedgerDeparture& departure, const kit::Value& record, bool is_carried,
                       const LedgerTraces& traces, LedgerExchanges& exchanges) {
  const kit::Value& id = record["activityEventID"];
  // A batch with nothing but a kept session's "end" is not sent, but trimmed as if it had been.
  if (departure.ended == nullptr && record["activityName"].string() == "end" && id == traces.last_sent_key)
    return Reason::kKeptSession;
  if (departure.ended != nullptr && departure.ended->isOneTooLarge() &&
      departure.ended->carries(Kind::kActivities, record, 0))
    return Reason::kTooLarge;
  if (!departure.is_accepted)
    return Reason::kUnexplained;
  if (exchanges.isLeftOut(id))
    return Reason::kKeptSession;
  return is_carried || exchanges.isNotedAlone(id) ? Reason::kPlaceTaken : Reason::kUnexplained;
}

}  // namespace

/// An accepted batch removes all impressions, including newer ones; or, if it could not carry them all, only those it
/// carried.
bool LedgerDeparture::isDelivered(const kit::Value& record, size_t index) const {
  return is_accepted && ((kind == Kind::kImpressions && leaves_some) || ended->carries(kind, record, index));
}

Reason removalReason(const LedgerDeparture& departure, const kit::Value& record, bool is_carried,
                     const LedgerTraces& traces, LedgerExchanges& exchanges) {
  if (departure.writer == LedgerWriter::kHand)
    return Reason::kByHand;
  if (departure.kind == Kind::kActivities)
    return whyActivityGone(departure, record, is_carried, traces, exchanges);
  if (departure.kind == Kind::kReEngagementClicks && departure.ended == nullptr)
    return departure.is_in_background ? Reason::kSixthSessionEnd : Reason::kUnexplained;
  if (!departure.is_accepted)
    return Reason::kUnexplained;
  if (departure.kind == Kind::kReEngagementClicks)
    return Reason::kOtherKeyAccepted;
  return departure.kind == Kind::kImpressions && is_carried ? Reason::kPlaceTaken : Reason::kAddedDuringUpload;
}

Reason valueRemovalReason(const LedgerDeparture& departure, bool is_replaced) {
  if (departure.writer == LedgerWriter::kHand)
    return Reason::kByHand;
  if (is_replaced)
    return Reason::kReplaced;
  return departure.is_accepted ? Reason::kAddedDuringUpload : Reason::kTakenBack;
}

Reason clickLossReason(const LedgerExchange& ended, const LedgerTraces& traces, const kit::Value& kept) {
  if (ended.answer)
    return Reason::kNotAccepted;
  if (traces.is_newest_click_let_go)
    return Reason::kSessionEnded;
  if (!(traces.newest_click == ended.click))
    return Reason::kNewerClick;
  return isKept(kept, keyOf(ended.click)) ? Reason::kSameKey : Reason::kUnexplained;
}

}  // namespace morvik::runtime
