// A backlog larger than one batch: what follows an accepted batch, and what follows one that was too large.

#include <memory>
#include <unordered_set>
#include <utility>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "MorvikCoreLib/sent_batch.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vError;
using kit::Value;

constexpr int kPayloadTooLarge = 413;

constexpr services::Guard kNextBatchGuard{
    services::oneLine(kit::lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]"),
    services::oneLine(kit::lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]")};

/// Identifies a record for as long as it is held.
std::unordered_set<const kit::Entry*> identities(const kit::Array& records) {
  std::unordered_set<const kit::Entry*> found;
  found.reserve(records.size());
  for (const Value& record : records) {
    if (record.size() > 0)
      found.insert(record.dictionary().begin());
  }
  return found;
}

/// Where the records of this kind are stored.
const char* listOf(kit::LedgerKind kind) {
  switch (kind) {
    case kit::LedgerKind::kImpressions:
      return services::property::fendoImpressionInfos;
    case kit::LedgerKind::kCommerceClicks:
      return services::property::commerceConversionInfos;
    default:
      return services::property::MorvikCoreUserInfo_Crash;
  }
}

}  // namespace

// --------------------------------------------------------------------------------------------------- after an answer

/// Empties a stored list of records, including what was added meanwhile. False, and nothing is done, if a store was
/// recovered since that count was taken: its records stay.
bool MorvikCoreLib::clearStored(kit::LedgerKind kind, uint64_t stores_known, kit::LedgerReason reason) {
  const bool is_done = store().inOneStep([this, kind, stores_known, reason] {
    if (stores_known != stores_brought_)
      return false;
    const Value stored = store().arrayForKey(listOf(kind));
    if (stored.isAbsent())
      return true;
    ledger().removed(kind, stored.array(), reason);
    store().replace(listOf(kind), stored, kit::Array());
    return true;
  });
  if (is_done)
    store().synchronize();
  return is_done;
}

/// Removes these from a stored list of records. What was left out stays, and so does what was added meanwhile.
void MorvikCoreLib::removeSent(kit::LedgerKind kind, const kit::Array& sent) {
  if (sent.empty())
    return;
  const auto covered = identities(sent);
  store().inOneStep([this, kind, &covered] {
    const Value stored = store().arrayForKey(listOf(kind));
    if (stored.isAbsent())
      return;
    kit::MutableArray survivors(stored);
    kit::MutableArray gone;
    size_t left = covered.size();
    survivors.retainIf([&covered, &gone, &left](const Value& record) {
      const bool is_covered = left > 0 && record.size() > 0 && covered.contains(record.dictionary().begin());
      left -= is_covered ? 1 : 0;
      if (is_covered)
        gone.append(record);
      return !is_covered;
    });
    ledger().removed(kind, Value(std::move(gone)).array(), kit::LedgerReason::kAnswered);
    store().replace(listOf(kind), stored, Value(std::move(survivors)));
  });
  store().synchronize();
}

/// Returns whether the limit has left activities that can still be delivered; it plans the batch if they fill one.
bool MorvikCoreLib::followAccepted(const std::shared_ptr<const SentBatch>& batch, bool has_trimmed) {
  batch_size_.grow();
  if (!has_trimmed || !batch->leaves_activities)
    return false;
  if (isStartSessionCalled_ && isFullBatchWaiting(*batch))
    planNextBatch(batch, true);
  return true;
}

/// Returns whether something smaller is sent now.
bool MorvikCoreLib::followTooLarge(const std::shared_ptr<const SentBatch>& batch,
                                   const std::optional<kit::Response>& response, const kit::Error& error) {
  const bool is_refused = services::statusCode(response) == kPayloadTooLarge;
  if (!batch_size_.isLimited() || (!is_refused && !error.is_timeout))
    return false;
  if (batch->activities > 1 || batch->impressions > 0) {
    batch_size_.halve(batch->activities, batch->impressions);
    if (is_refused)
      planNextBatch(batch, false);
    return is_refused;
  }
  if (!is_refused || batch->plain_bytes <= kMaxKeptEntryBytes)
    return false;
  giveUpActivity(*batch);
  planNextBatch(batch, false);
  return true;
}

/// The bytes of pending records are unknown until entries are made of them: they are taken to be as large as those just
/// sent.
bool MorvikCoreLib::isFullBatchWaiting(const SentBatch& batch) const {
  const size_t waiting = store().fendoActivityInfos().size();
  const kit::BatchLimit limit = batch_size_.activities();
  return waiting >= limit.records || waiting >= limit.plain_bytes / (batch.plain_bytes / batch.activities + 1);
}

/// The service takes it neither with others nor alone, so it would block all later ones.
void MorvikCoreLib::giveUpActivity(const SentBatch& batch) {
  MORVIK_LOG(log(), lcl_vError, "-[MorvikCoreLib tracking:]_block_invoke",
             "MRVK_QA-an activity is given up, the service does not take its %lu bytes : %@", batch.plain_bytes,
             batch.last_activity["activityEventID"]);
  store().inOneStep([this, &batch] {
    const Value stored = store().fendoActivityInfos();
    kit::MutableArray survivors(stored);
    survivors.retainIf([&batch](const Value& record) { return !record.identicalTo(batch.last_activity); });
    if (survivors.size() < stored.size())
      ledger().removed(kit::LedgerKind::kActivities, {batch.last_activity}, kit::LedgerReason::kTooLarge);
    store().replace(services::property::fendoActivityInfos, stored, Value(std::move(survivors)));
  });
  store().synchronize();
}

// --------------------------------------------------------------------------------------------------- the next batch

void MorvikCoreLib::planNextBatch(const std::shared_ptr<const SentBatch>& batch, bool needs_session) {
  if (std::exchange(is_next_batch_due_, true))
    return;
  ports_.main_queue.async(
      [self = shared_from_this(), batch, needs_session] { self->sendNextBatch(*batch, needs_session); });
}

void MorvikCoreLib::sendNextBatch(const SentBatch& batch, bool needs_session) {
  is_next_batch_due_ = false;
  services::guarded(log(), kNextBatchGuard, MORVIK_HERE("-[MorvikCoreLib pushTracking]"), [&] {
    const bool may_send = isStartSessionCalled_ || !needs_session;
    if (!may_send || isBatchUnderWay() || _isTrackingCalled() || !isTrackingPossible())
      return;
    const EndActivities end_activities = endActivitiesNow(batch);
    sendBatch(makeTrackingParameter(end_activities), end_activities);
  });
  if (!isBatchUnderWay() && delivery_observer_.nextBatchWasDropped)
    delivery_observer_.nextBatchWasDropped();
}

/// What a kept session leaves out stays left out as long as that session lasts.
EndActivities MorvikCoreLib::endActivitiesNow(const SentBatch& batch) const {
  return batch.session == sessions_ ? batch.end_activities : EndActivities::kSend;
}

/// This also holds when a trigger sends what a limit left out.
EndActivities MorvikCoreLib::endActivitiesOfRest() const {
  return last_batch_ != nullptr && last_batch_->leaves_activities ? endActivitiesNow(*last_batch_)
                                                                  : EndActivities::kSend;
}

}  // namespace morvik
