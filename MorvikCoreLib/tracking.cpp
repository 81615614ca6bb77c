// The activity batch: built, sent, answered, trimmed.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "MorvikCoreLib/sent_batch.h"
#include "services/converters.h"
#include "services/endpoints.h"
#include "services/guard.h"

namespace morvik {
namespace {

using kit::lcl_vDebug;
using kit::lcl_vError;
using kit::lcl_vTrace;
using kit::Value;

/// The size trigger sends once this many activities are stored.
constexpr size_t kSizeTriggerActivities = 10;

/// At this many failed conversions the next tracking attempt asks for the referral once more.
constexpr int32_t kFailedConversionsBeforeRefetch = 10;
constexpr double kReferralRefetchDelaySeconds = 10.0;

constexpr services::Guard kMakeTrackingParameterGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeTrackingParameter!"
                    "\n                              exceptionName: %@"
                    "\n                              reason: %@"
                    "\n                              exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from makeTrackingParameter!"
                    "\n                              exception print: %@")};

constexpr services::Guard kSizeTriggerGuard{
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from chkAndSendDataWhenActivityCntMoreThenTen!"
                    "\n                              exceptionName: %@"
                    "\n                              reason: %@"
                    "\n                              exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib error] Exception from chkAndSendDataWhenActivityCntMoreThenTen!"
                    "\n                              exception print: %@")};

constexpr services::Guard kPushTrackingGuard{
    services::oneLine(lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]"),
    services::oneLine(lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]")};

constexpr services::Guard kRefetchGuard{services::ungated("! MRVK_QA-MorvikCore reGetReferral Failed Exception: %@\n"),
                                        services::ungated("! MRVK_QA-MorvikCore reGetReferral Failed Exception: %@\n")};

constexpr services::Guard kDeleteActivitysGuard{
    services::block("MRVK_QA-[MorvikCoreLib deleteCommerceEvents error] Exception from deleteActivitysForTracking!"
                    "\n                          exceptionName: %@"
                    "\n                          reason: %@"
                    "\n                          exceptionInfo: %@"),
    services::block("MRVK_QA-[MorvikCoreLib deleteCommerceEvents error] Exception from deleteActivitysForTracking!"
                    "\n                          exception print: %@")};

// Keys of stored records and of the batch. Literals, so that a batch of 100,000 entries counts no references for them.
constinit const Value kActivityInfoKey = Value::literal("activity_info");
constinit const Value kImpressionInfoKey = Value::literal("impression_info");
constinit const Value kGroupKey = Value::literal("group");
constinit const Value kActivityKey = Value::literal("activity");
constinit const Value kParamKey = Value::literal("param");
constinit const Value kPrevGroupKey = Value::literal("prev_group");
constinit const Value kPrevActivityKey = Value::literal("prev_activity");
constinit const Value kCreatedAtKey = Value::literal("created_at");
constinit const Value kEventIdKey = Value::literal("event_id");
constinit const Value kCampaignKeyKey = Value::literal("campaign_key");
constinit const Value kSpaceKeyKey = Value::literal("space_key");
constinit const Value kResourceKeyKey = Value::literal("resource_key");
constinit const Value kConversionKeyKey = Value::literal("conversion_key");
constinit const Value kIsFirstTimeKey = Value::literal("isFirstTime");
constinit const Value kBlank = Value::literal("");

constexpr std::string_view kEnd = "end";

/// The result that means "no activity to send".
Value noDataAnswer() {
  return kit::Dictionary{{"result", "failure"}};
}

/// A dictionary refuses an absent value; a record that lacks what its entry needs ends the building.
const Value& required(const Value& value, const char* key) {
  if (value.isAbsent()) {
    throw kit::Exception{"MorvikInvalidArgumentException",
                         std::string("A dictionary entry needs a value, and there is none for the key ") + key,
                         {}};
  }
  return value;
}

/// What an entry says about the record before it: group and name, or nothing for the first.
struct Previous {
  const Value* group = &kBlank;
  const Value* name = &kBlank;
};

/// Builds the entries of one batch; knows the offset by which their dates are shifted.
class EntryBuilder {
 public:
  EntryBuilder(const kit::MorvikADUtil& util, double offset_seconds) : util_(util), offset_seconds_(offset_seconds) {}

  /// The seven keys of a record. Those of the record before it in the sorted list come along as `previous`.
  Value activity(const Value& record, const Value& event_id, const Previous& previous) const {
    std::array<kit::Entry, 7> entries{{
        {kGroupKey, required(record["activityGroupName"], "group")},
        {kActivityKey, required(record["activityName"], "activity")},
        {kParamKey, util_.checkNilToBlankString(record["activityParam"])},
        {kPrevGroupKey, util_.checkNilToBlankString(*previous.group)},
        {kPrevActivityKey, util_.checkNilToBlankString(*previous.name)},
        {kCreatedAtKey, dateText(record["activityCreatedAt"])},
        {kEventIdKey, event_id},
    }};
    return kit::Dictionary::fromEntries(entries);
  }

  Value impression(const Value& record) const {
    std::array<kit::Entry, 6> entries{{
        {kCampaignKeyKey, util_.checkIntegerNilToZero(record["campaignKey"])},
        {kSpaceKeyKey, util_.checkNilToBlankString(record["spaceKey"])},
        {kResourceKeyKey, util_.checkIntegerNilToZero(record["resourceKey"])},
        {kConversionKeyKey, util_.checkIntegerNilToZero(record["conversionKey"])},
        {kIsFirstTimeKey, util_.checkNilToNo(record["isFirstTime"])},
        {kCreatedAtKey, dateText(record["createdAt"])},
    }};
    return kit::Dictionary::fromEntries(entries);
  }

 private:
  Value dateText(const Value& date) const {
    required(date.isDate() ? date : Value(), "created_at");
    return util_.getKoreaDateFormateDate(date.date().shiftedBySeconds(offset_seconds_));
  }

  const kit::MorvikADUtil& util_;
  double offset_seconds_;
};

/// The id of the last "end" in the order of the dates, blank if there is none; nothing if the kit is being stopped.
std::optional<Value> lastEndIn(const kit::Array& activities, const kit::StopRequest& stop) {
  kit::StopCheck check(&stop);
  const Value* last = nullptr;
  for (const Value& record : activities) {
    if (check.countStep())
      return std::nullopt;
    if (record["activityName"].string() != kEnd)
      continue;
    if (last == nullptr || !(record["activityCreatedAt"].date() < (*last)["activityCreatedAt"].date()))
      last = &record;
  }
  return last == nullptr ? kBlank : services::checkNilToBlankString((*last)["activityEventID"]);
}

/// The "end"s that a batch leaves out. One of them is deleted with it: the last of all that were stored when the kept
/// session's first batch was built. All others stay.
class LeftOutEnds {
 public:
  /// `kept_end`: from the session's first such batch, for one that follows it. It is then the only one left out: the
  /// others go with this batch.
  LeftOutEnds(EndActivities end_activities, const std::optional<Value>& kept_end)
      : filters_(end_activities == EndActivities::kFilter), kept_end_(kept_end) {}

  /// Called in the order of the dates.
  bool leavesOut(const Value& name, const Value& event_id) {
    if (!filters_ || name.string() != kEnd)
      return false;
    if (kept_end_ && (kept_end_->string().empty() || !(event_id == *kept_end_)))
      return false;
    last_ = event_id;
    return true;
  }
  /// Called once the batch is full or the list ends. False if the kit is being stopped meanwhile.
  bool findKeptEnd(const kit::Array& activities, bool are_all_known, const kit::StopRequest& stop) {
    if (filters_ && !kept_end_)
      kept_end_ = are_all_known ? last_ : lastEndIn(activities, stop);
    return !filters_ || kept_end_.has_value();
  }
  const std::optional<Value>& keptEnd() const { return kept_end_; }
  /// The id to delete with the batch; blank: none.
  Value deleted() const { return kept_end_ && last_ == *kept_end_ ? last_ : kBlank; }

 private:
  const bool filters_;
  std::optional<Value> kept_end_;
  Value last_ = kBlank;
};

/// The ids in a list of event ids, as a set. Views into `ids`, which must outlive it.
std::unordered_set<std::string_view> idSet(const kit::Array& ids) {
  std::unordered_set<std::string_view> set;
  set.reserve(ids.size());
  for (const Value& id : ids) {
    if (id.isString())
      set.insert(id.string());
  }
  return set;
}

}  // namespace

Value MorvikCoreLib::makeTrackingParameter(EndActivities end_activities) {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeTrackingParameter:]";
  const auto parameters = services::guarded(log(), kMakeTrackingParameterGuard, MORVIK_HERE(kOperation), [&] {
    if (isGateClosed())
      return Value();
    if (_isTrackingCalled()) {
      MORVIK_LOG(
          log(), lcl_vTrace, kOperation,
          "MRVK_QA-MorvikCoreLib tracking is blocked  because the tracking is working now, this activitis will be "
          "send again on endSession");
      return Value();
    }
    set_isTrackingCalled(true);
    built_batch_.reset();
    Value batch = buildBatch(end_activities);
    // An abandoned batch leaves no trace.
    if (batch.isAbsent() && ports_.shared_state.stop_request.isMade())
      set_isTrackingCalled(false);
    return batch;
  });
  return parameters.value_or(Value());
}

Value MorvikCoreLib::buildBatch(EndActivities end_activities) {
  static constexpr const char* kOperation = "-[MorvikCoreLib makeTrackingParameter:]";
  kit::MutableDictionary batch = services().makeCommonParameter(ports_.update_log.getSDKVersion());
  const EntryBuilder builder(util(), services().intervalSinceServerDate());
  kit::MutableArray entries;
  kit::MutableArray sent_event_keys;
  const kit::StopRequest& stop = ports_.shared_state.stop_request;
  const auto facts = std::make_shared<SentBatch>();
  facts->end_activities = end_activities;
  facts->session = sessions_;
  facts->stores_known = stores_brought_;
  const bool is_follower = batch_size_.isLimited() && last_batch_ != nullptr && last_batch_->session == sessions_;
  LeftOutEnds left_out(end_activities, is_follower ? last_batch_->kept_end : std::nullopt);
  const kit::Array activities = store().fendoActivityInfos().array();
  Previous previous;
  BatchRoom room(batch_size_.activities());
  OldestFirst oldest_activities(activities, activity_order_, batch_size_.activities().records, stop);
  while (!room.isFull()) {
    const Value* record = oldest_activities.next();
    if (record == nullptr)
      break;
    const Value& name = (*record)["activityName"];
    const Value event_id = util().checkNilToBlankString((*record)["activityEventID"]);
    if (left_out.leavesOut(name, event_id)) {
      MORVIK_LOG(log(), lcl_vTrace, kOperation, "RVK_QA-MorvikCoreLib tracking filter activity eventId - %@", event_id);
    } else {
      const Value entry = builder.activity(*record, event_id, previous);
      facts->leaves_activities = !room.take(entry);
      if (facts->leaves_activities)
        break;
      entries.append(entry);
      sent_event_keys.append(event_id);
      facts->last_activity = *record;
    }
    previous = {&(*record)["activityGroupName"], &name};
  }
  facts->leaves_activities = facts->leaves_activities || !oldest_activities.isAtEnd();
  if (oldest_activities.isStopping() || !left_out.findKeptEnd(activities, !facts->leaves_activities, stop))
    return Value();
  facts->kept_end = left_out.keptEnd();
  facts->event_ids = Value(kit::MutableArray(sent_event_keys)).array();
  facts->deleted_end = left_out.deleted();
  if (!facts->deleted_end.string().empty())
    sent_event_keys.append(facts->deleted_end);
  if (!sent_event_keys.empty())
    noted_batch_ = facts;
  noteSentEventKeys(std::move(sent_event_keys));
  if (entries.empty())
    return noDataAnswer();
  facts->activities = entries.size();
  facts->plain_bytes = room.plainBytes();
  batch.set(kActivityInfoKey, Value(std::move(entries)));
  kit::MutableArray impressions;
  kit::MutableArray sent_impressions;
  const kit::Array stored_impressions = store().fendoImpressionInfos().array();
  BatchRoom impression_room(batch_size_.impressions());
  OldestFirst oldest_impressions(stored_impressions, impression_order_, batch_size_.impressions().records, stop);
  while (!impression_room.isFull()) {
    const Value* record = oldest_impressions.next();
    if (record == nullptr)
      break;
    const Value entry = builder.impression(*record);
    if (!impression_room.take(entry))
      break;
    impressions.append(entry);
    sent_impressions.append(*record);
  }
  if (oldest_impressions.isStopping())
    return Value();
  facts->impressions = impressions.size();
  facts->leaves_impressions = facts->impressions < stored_impressions.size();
  facts->carried_impressions = Value(std::move(sent_impressions)).array();
  batch.set(kImpressionInfoKey, Value(std::move(impressions)));
  const Value payload(std::move(batch));
  MORVIK_LOG(log(), lcl_vTrace, kOperation, "MRVK_QA-trackingParams_jsonDict : %@", payload);
  Value parameters = services().makeJsonParameter(payload, trackingKey());
  last_batch_ = facts;
  built_batch_ = facts;
  return parameters;
}

/// Stores the ids that this batch covers, so that exactly these are deleted once the service has accepted it. A batch
/// that covers none leaves the stored ones alone.
void MorvikCoreLib::noteSentEventKeys(kit::MutableArray keys) {
  if (keys.empty())
    return;
  store().setFendoActivityInfosSentEventKeys(Value(std::move(keys)));
  store().synchronize();
}

bool MorvikCoreLib::isTrackingPossible() const {
  return store().fendoUserInfo_fendoUserNo() != -1 && !trackingKey().empty();
}

void MorvikCoreLib::buildAndSend() {
  if (!isTrackingPossible())
    return;
  const EndActivities end_activities = endActivitiesOfRest();
  sendBatch(makeTrackingParameter(end_activities), end_activities);
}

void MorvikCoreLib::chkAndSendDataWhenActivityCntMoreThenTen() {
  services::guarded(log(), kSizeTriggerGuard, MORVIK_HERE("-[MorvikCoreLib chkAndSendDataWhenActivityCntMoreThenTen]"),
                    [this] {
                      if (store().fendoActivityInfos().size() >= kSizeTriggerActivities)
                        buildAndSend();
                    });
}

void MorvikCoreLib::pushTracking() {
  services::guarded(log(), kPushTrackingGuard, MORVIK_HERE("-[MorvikCoreLib pushTracking]"),
                    [this] { buildAndSend(); });
}

void MorvikCoreLib::tracking(const Value& parameters) {
  sendBatch(parameters, EndActivities::kSend);
}

void MorvikCoreLib::sendBatch(const Value& parameters, EndActivities end_activities) {
  std::shared_ptr<SentBatch> batch = std::exchange(built_batch_, nullptr);
  if (batch == nullptr)  // not built here
    batch = std::make_shared<SentBatch>();
  if (parameters.isNil() || isGateClosed())
    return;
  if (util().checkNilToBlankString(parameters["result"]).string() == "failure") {
    deleteActivitysForTracking();
    set_isTrackingCalled(false);
    return;
  }
  refetchReferral();
  // Without a referral record nothing is sent, and the slot stays taken until the next session start frees it.
  if (store().fendoUserInfo_referralKey() == -1)
    return;

  auto request = services::postRequest(ports_.endpoints, services::Endpoint::kTracking, parameters,
                                       services::AcceptEncoding::kGzip);
  const auto self = shared_from_this();
  batch->ticket = ledger().carries(
      {.kind = kit::LedgerKind::kActivities, .records = batch->event_ids, .impressions = batch->carried_impressions});
  const bool has_begun = services::run(
      requestTools(), std::move(request), [self, batch](const Value& json) { self->trackingDidSucceed(json, batch); },
      [self, batch](const std::optional<kit::Response>& response, const kit::Error& error) {
        self->trackingDidFail(response, error, batch);
      },
      {.when_held = kit::WhenHeld::kEnds,
       .not_sent = [self, end_activities] { self->trackingWasNotSent(end_activities); },
       .leaves =
           [self, batch] {
             batch->has_left = true;
             if (self->delivery_observer_.batchLeaves)
               self->delivery_observer_.batchLeaves(batch->activities);
           },
       .ticket = batch->ticket});
  if (!has_begun)
    return;
  ++batches_under_way_;
  newest_batch_ = batch;
}

void MorvikCoreLib::batchDidEnd(BatchEnd end) {
  // Whatever kept this batch from leaving keeps the others too; and what a session has not sent is left to the next.
  if (end == BatchEnd::kNotSent || !isStartSessionCalled_)
    pushes_after_batch_ = false;
  if (pushes_after_batch_ && !isBatchUnderWay() && !is_next_batch_due_)
    pushAsAtSessionStart();
  if (delivery_observer_.batchDidEnd)
    delivery_observer_.batchDidEnd(end);
}

/// Fires once, at the tenth counted failure: the counter moves on.
void MorvikCoreLib::refetchReferral() {
  if (failedGetReferralCnt_ != kFailedConversionsBeforeRefetch || store().fendoUserInfo_referralKey() != -1)
    return;
  services::guarded(log(), kRefetchGuard, MORVIK_HERE("-[MorvikCoreLib tracking:]"), [this] {
    ++failedGetReferralCnt_;
    ports_.main_queue.after(kReferralRefetchDelaySeconds,
                            [self = shared_from_this(), made = makeConversion()] { self->conversion(made); });
  });
}

void MorvikCoreLib::trackingDidSucceed(const Value& json, const std::shared_ptr<const SentBatch>& batch) {
  --batches_under_way_;
  MORVIK_LOG(log(), lcl_vDebug, "-[MorvikCoreLib tracking:]_block_invoke", "MRVK_QA-tracking_JSON: %@", json);
  takeServerTime(json);
  const bool is_accepted = util().checkNilToNo(json["Result"]);
  ledger().answered(batch->ticket, is_accepted ? kit::LedgerAnswer::kAccepted : kit::LedgerAnswer::kNotAccepted);
  bool has_trimmed = false;
  if (is_accepted) {
    // The noted ids are those of the newest batch. While that has not left, the acceptance of an earlier one does not
    // cover it: what the earlier one carried is sent once more.
    has_trimmed = (newest_batch_ == batch || newest_batch_->has_left) && trimActivities(batch.get());
    // It did not carry those of a store that was recovered since.
    if (batch->leaves_impressions ||
        !clearStored(kit::LedgerKind::kImpressions, batch->stores_known, kit::LedgerReason::kAddedDuringUpload))
      removeSent(kit::LedgerKind::kImpressions, batch->carried_impressions);
  }
  set_isTrackingCalled(false);
  applicationEndBackgroundTask();
  const bool goes_on = is_accepted && followAccepted(batch, has_trimmed);
  batchDidEnd(goes_on ? BatchEnd::kGoesOn : is_accepted ? BatchEnd::kAccepted : BatchEnd::kRefused);
}

void MorvikCoreLib::trackingDidFail(const std::optional<kit::Response>& response, const kit::Error& error,
                                    const std::shared_ptr<const SentBatch>& batch) {
  static constexpr const char* kOperation = "-[MorvikCoreLib tracking:]_block_invoke";
  --batches_under_way_;
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-Recieved an HTTP %ld", services::statusCode(response));
  MORVIK_LOG(log(), lcl_vError, kOperation, "MRVK_QA-The error was: %@", error);
  clearSentEventKeysAfterFailure();
  set_isTrackingCalled(false);
  applicationEndBackgroundTask();
  const bool goes_on = followTooLarge(batch, response, error);
  batchDidEnd(goes_on ? BatchEnd::kGoesOn : response ? BatchEnd::kRefused : BatchEnd::kNoAnswer);
}

/// After the user's wish the slot stays taken, as when the gate refuses a batch at once. A batch that was held is built
/// again, and leaves out the same "end".
void MorvikCoreLib::trackingWasNotSent(EndActivities end_activities) {
  --batches_under_way_;
  // A batch before it may still be accepted, and must not trim what never left.
  emptySentEventKeys();
  if (end_activities == EndActivities::kFilter)
    withheld_end_activities_ = end_activities;
  if (!services().isGDPRForgetMe())
    set_isTrackingCalled(false);
  applicationEndBackgroundTask();
  batchDidEnd(BatchEnd::kNotSent);
}

/// Returns what they are then: an absent list stays absent.
Value MorvikCoreLib::emptySentEventKeys() {
  Value emptied = store().inOneStep([this] {
    const Value keys = store().fendoActivityInfosSentEventKeys();
    Value empty = keys.isAbsent() ? Value() : Value(kit::Array());
    store().setFendoActivityInfosSentEventKeys(empty);
    return empty;
  });
  store().synchronize();
  return emptied;
}

void MorvikCoreLib::clearSentEventKeysAfterFailure() {
  const Value cleared = emptySentEventKeys();
  MORVIK_LOG(log(), lcl_vTrace, "-[MorvikCoreLib tracking:]_block_invoke",
             "MRVK_QA-clear fendoActivityInfosSentEventKeys on request failure: %@", cleared);
}

Value MorvikCoreLib::baseTimeOf(const Value& json) {
  const Value& time = json["BaseTime"];
  return time.isNumber() || (time.isString() && services::beginsWithNumber(time.string())) ? time : Value();
}

/// Takes the server's time, in milliseconds, from an answer that has it; otherwise the offset stays as it was.
void MorvikCoreLib::takeServerTime(const Value& json) {
  const Value base_time = baseTimeOf(json);
  if (base_time.isAbsent())
    return;
  const double base_time_seconds = util().checkDoubleNilToZero(base_time) / 1000.0;
  services().setIntervalSinceServerDate(util().timeIntervalSinceServerDate(ports_.clock.now(), base_time_seconds));
}

void MorvikCoreLib::deleteActivitysForTracking() {
  trimActivities(nullptr);
}

/// Ids that a later batch noted are trimmed by the answer to an earlier one, too.
kit::LedgerReason MorvikCoreLib::reasonOfTrim(const SentBatch* answered) const {
  return answered == nullptr || answered == noted_batch_.get() ? kit::LedgerReason::kAnswered
                                                               : kit::LedgerReason::kPlaceTaken;
}

/// Returns whether anything was removed.
bool MorvikCoreLib::trimActivities(const SentBatch* answered) {
  const auto has_trimmed = services::guarded(
      log(), kDeleteActivitysGuard, MORVIK_HERE("-[MorvikCoreLib deleteActivitysForTracking]"), [this, answered] {
        // The ids are removed first: if the process is killed in between, the activities are sent again rather than
        // lost.
        const kit::Array sent = store().inOneStep([this] {
          const Value keys = store().fendoActivityInfosSentEventKeys();
          if (!keys.isAbsent())
            store().setFendoActivityInfosSentEventKeys(kit::Array());
          return keys.array();
        });
        store().synchronize();
        const auto covered = idSet(sent);
        // With a limit, a long list is searched only until all have been found.
        size_t left = batch_size_.isLimited() ? sent.size() : SIZE_MAX;
        const Value kept_end = noted_batch_ != nullptr ? noted_batch_->deleted_end : Value();
        const bool is_any_removed = store().inOneStep([this, answered, &kept_end, &covered, &left] {
          const Value stored = store().fendoActivityInfos();
          if (stored.isAbsent())
            return false;
          kit::MutableArray survivors(stored);
          kit::MutableArray gone;
          kit::MutableArray gone_ends;
          survivors.retainIf([&](const Value& record) {
            if (left == 0)
              return true;
            const Value& id = record["activityEventID"];
            const bool is_covered = id.isString() && covered.count(id.string()) > 0;
            left -= is_covered ? 1 : 0;
            if (is_covered)
              (!kept_end.string().empty() && id == kept_end ? gone_ends : gone).append(record);
            return !is_covered;
          });
          ledger().removed(kit::LedgerKind::kActivities, Value(std::move(gone)).array(), reasonOfTrim(answered));
          ledger().removed(kit::LedgerKind::kActivities, Value(std::move(gone_ends)).array(),
                           kit::LedgerReason::kKeptSession);
          const bool removes = survivors.size() < stored.size();
          store().replace(services::property::fendoActivityInfos, stored, Value(std::move(survivors)));
          return removes;
        });
        store().synchronize();
        return is_any_removed;
      });
  return has_trimmed.value_or(false);
}

}  // namespace morvik
