#include "runtime/observe/observations.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "MorvikCoreLib/failure_counts.h"
#include "morvik/version.h"
#include "runtime/life/call_app.h"

namespace morvik::runtime {
namespace {

using services::Endpoint;

constexpr int kPayloadTooLarge = 413;
constexpr const char* kNotAccepted = "The service answered, and did not accept.";

Status::Time timeOf(kit::Date date) {
  return Status::Time(std::chrono::duration_cast<Status::Time::duration>(std::chrono::microseconds(date.microseconds)));
}

/// Raises an atomic by one; false if it has reached `limit`.
bool tryRaise(std::atomic<size_t>& value, size_t limit) {
  size_t now = value;
  while (now < limit) {
    if (value.compare_exchange_weak(now, now + 1))
      return true;
  }
  return false;
}

}  // namespace

Observations::Observations(ObservationsParts parts) : parts_(std::move(parts)) {}

// ------------------------------------------------------------------------------------------------------------ refusals

void Observations::refused(Recorded reason) {
  if (isKept(reason) || reason >= Recorded::kRefusedNotRunning)
    return;
  const auto listening = parts_.facade.delegateOfApp();
  if (listening == nullptr || !listening->didRefuseEvent)
    return;
  std::atomic<size_t>& pending = pending_refusals_[static_cast<size_t>(reason)];
  if (!tryRaise(pending, kMaxPendingRefusals))
    return;
  try {
    parts_.main_loop.async([this, &pending, reason] {
      --pending;
      const auto delegate = parts_.facade.delegateOfApp();
      if (delegate != nullptr && delegate->didRefuseEvent)
        callApp(delegate->didRefuseEvent, reason);
    });
  } catch (...) {
    --pending;  // not posted after all
    throw;
  }
}

// ----------------------------------------------------------------------------------------------------------- exchanges

void Observations::batchLeaves(size_t activities) {
  parts_.main_loop.async([this, activities] {
    sessionMayHaveChanged();  // the first batch of a session leaves while it starts
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, "-[MorvikCore pushTracking]",
               "Morvik host: a batch of %lu activities was sent", activities);
  });
}

/// What the handler leaves in the store shows whether there will be a retry, so this waits for the next turn.
void Observations::exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result,
                                  const CarriedLoad& load) {
  const std::optional<Endpoint> endpoint = services::endpointOf(parts_.endpoints, request.url);
  if (!endpoint || services::rowOf(*endpoint).accepted_by == services::Acceptance::kNothingDelivered)
    return;
  Ended ended{.endpoint = *endpoint,
              .is_accepted = result.succeeded && services::isAcceptance(*endpoint, result.json),
              .when = parts_.clock.now(),
              .failure = {},
              .load = load,
              .erasure = {}};
  if (endpoint == Endpoint::kGdprReq)
    ended.erasure = ended_erasure_;
  if (!ended.is_accepted) {
    ended.failure.http_status = result.status_code;
    ended.failure.reason = std::string(services::rowOf(*endpoint).description) + ": " +
                           (result.succeeded ? kNotAccepted : result.error.message.c_str());
  }
  if (endpoint == Endpoint::kTracking)
    logBatch(ended);
  parts_.main_loop.async([this, ended = std::move(ended)] { note(ended); });
}

void Observations::logBatch(const Ended& ended) {
  static constexpr const char* kOperation = "-[MorvikCore pushTracking]_block_invoke";
  if (ended.is_accepted) {
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, kOperation, "Morvik host: a batch of %lu activities was accepted",
               ended.load.activities);
  } else if (ended.failure.http_status != 0) {
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, kOperation,
               "Morvik host: a batch of %lu activities was refused with status %d", ended.load.activities,
               ended.failure.http_status);
  } else {
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, kOperation, "Morvik host: a batch of %lu activities got no answer",
               ended.load.activities);
  }
}

void Observations::note(Ended ended) {
  if (!ended.is_accepted)
    ended.failure.is_tried_again = isTriedAgain(ended);
  {
    const std::scoped_lock hold(mutex_);
    if (ended.is_accepted)
      last_success_ = timeOf(ended.when);
    else
      last_failure_ = Status::Failure{timeOf(ended.when), ended.failure};
  }
  tell(ended);
}

void Observations::tell(const Ended& ended) const {
  const auto delegate = parts_.facade.delegateOfApp();
  if (delegate == nullptr)
    return;
  if (ended.endpoint == Endpoint::kGdprReq) {
    if (delegate->didAnswerErasure)
      callApp(delegate->didAnswerErasure, isErased(ended));
  } else if (!ended.is_accepted) {
    if (delegate->didFailToDeliver)
      callApp(delegate->didFailToDeliver, ended.failure);
  } else if (ended.endpoint == Endpoint::kTracking && delegate->didDeliver) {
    callApp(delegate->didDeliver, ended.load.activities);
  }
}

bool Observations::isErased(const Ended& ended) const {
  return ended.is_accepted && parts_.names_this_device(ended.erasure);
}

/// By each endpoint's rules.
bool Observations::isTriedAgain(const Ended& ended) const {
  if (parts_.store.MorvikCoreUserInfo_isGDPRForgetMe())
    return false;
  switch (ended.endpoint) {
    case Endpoint::kThirdPartyConversion:
    case Endpoint::kGdprReq:
      return false;
    case Endpoint::kConversion:
      // After ten seconds or with the next session, until somebody has attributed the install.
      return parts_.store.fendoUserInfo_referralKey() == -1;
    case Endpoint::kReEngagementConversion:
      return isClickKept(ended.load.click);
    case Endpoint::kTracking:
      return !isOneTooLarge(ended) || isActivityKept(ended.load.first_event_id);
    default:
      return true;  // its content is still stored, or is requested again at each session start
  }
}

/// The service has said that the one activity in the batch is too much.
bool Observations::isOneTooLarge(const Ended& ended) {
  return ended.failure.http_status == kPayloadTooLarge && ended.load.activities == 1;
}

bool Observations::isActivityKept(const kit::Value& id) const {
  const kit::Array activities = parts_.store.fendoActivityInfos().array();
  return std::any_of(activities.begin(), activities.end(),
                     [&id](const kit::Value& record) { return record["activityEventID"] == id; });
}

/// It is stored, and will not be given up at the next session end.
bool Observations::isClickKept(const kit::Value& click) const {
  const auto [clicks, counts] = parts_.store.inOneStep([this] {
    return std::pair(parts_.store.reEngagementInfos().array(), parts_.store.reEngagementConversionFailedCnt().array());
  });
  if (click.isAbsent() || std::find(clicks.begin(), clicks.end(), click) == clicks.end())
    return false;
  const int64_t key = conversionKeyOf(click);
  return std::none_of(counts.begin(), counts.end(), [key](const kit::Value& count) {
    return conversionKeyOf(count) == key && failuresOf(count) > kMaxFailureCountToResend;
  });
}

// ------------------------------------------------------------------------------------------------------ the kit's life

void Observations::sessionMayHaveChanged() {
  bool is_open = false;
  {
    const std::scoped_lock hold(mutex_);
    is_open = parts_.is_session_open();
    if (is_open == is_session_open_)
      return;
    is_session_open_ = is_open;
  }
  if (is_open)
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, "-[MorvikCore applicationDidBecomeActive]",
               "Morvik host: a session started");
  else
    MORVIK_LOG(parts_.logger, kit::lcl_vInfo, "-[MorvikCore applicationDidEnterBackground]",
               "Morvik host: the session ended");
}

void Observations::hostDidStart(const std::string& store_folder) {
  MORVIK_LOG(parts_.logger, kit::lcl_vInfo, "+[MorvikCore start]",
             "Morvik host: version %@ started on the store folder %@", kVersion, store_folder);
}

void Observations::instanceDidStop(Status status) {
  status.is_running = false;
  {
    const std::scoped_lock hold(mutex_);
    at_stop_ = std::move(status);
  }
  MORVIK_LOG(parts_.logger, kit::lcl_vInfo, "-[MorvikCore stop]", "Morvik host: stopped");
}

// ---------------------------------------------------------------------------------------------------- how it stands

std::optional<Status::Time> Observations::lastSuccess() const {
  const std::scoped_lock hold(mutex_);
  return last_success_;
}

std::optional<Status::Failure> Observations::lastFailure() const {
  const std::scoped_lock hold(mutex_);
  return last_failure_;
}

std::optional<Status> Observations::statusAtStop() const {
  const std::scoped_lock hold(mutex_);
  return at_stop_;
}

}  // namespace morvik::runtime
