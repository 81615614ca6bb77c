#include "runtime/ledger/ledger_exchange.h"

namespace morvik::runtime {
namespace {

constexpr int kPayloadTooLarge = 413;

}  // namespace

services::Endpoint kitEndpointOf(LedgerEndpoint endpoint) {
  switch (endpoint) {
    case LedgerEndpoint::kReEngagement:
      return services::Endpoint::kReEngagementConversion;
    case LedgerEndpoint::kCommerce:
      return services::Endpoint::kCommerceConversion;
    case LedgerEndpoint::kCrash:
      return services::Endpoint::kCrashReport;
    case LedgerEndpoint::kDemographics:
      return services::Endpoint::kSetDemographic;
    case LedgerEndpoint::kTracking:
      break;
  }
  return services::Endpoint::kTracking;
}

LedgerEndpoint ledgerEndpointOf(LedgerKind kind) {
  switch (kind) {
    case LedgerKind::kReEngagementClicks:
      return LedgerEndpoint::kReEngagement;
    case LedgerKind::kCommerceClicks:
      return LedgerEndpoint::kCommerce;
    case LedgerKind::kCrashReports:
      return LedgerEndpoint::kCrash;
    case LedgerKind::kDemographics:
      return LedgerEndpoint::kDemographics;
    case LedgerKind::kActivities:
    case LedgerKind::kImpressions:
      break;
  }
  return LedgerEndpoint::kTracking;
}

BatchIds::BatchIds(const kit::Array& entries) {
  ids_.reserve(entries.size());
  for (const kit::Value& entry : entries)
    ids_.push_back(entry["event_id"]);
}

bool BatchIds::contains(std::string_view id) {
  if (next_ < ids_.size() && ids_[next_].string() == id) {
    ++next_;
    return true;
  }
  if (index_.empty()) {
    index_.reserve(ids_.size());
    for (const kit::Value& each : ids_)
      index_.insert(each.string());
  }
  return index_.contains(id);
}

bool LedgerExchange::carries(LedgerKind kind, const kit::Value& record, size_t index) {
  switch (kind) {
    case LedgerKind::kActivities:
      return activities.contains(record["activityEventID"].string());
    case LedgerKind::kReEngagementClicks:
      return click == record;
    default:
      return index < leading[static_cast<size_t>(kind)];
  }
}

bool LedgerExchange::isAccepted() const {
  return answer && services::isAcceptance(kitEndpointOf(endpoint), *answer);
}

bool LedgerExchange::isOneTooLarge() const {
  return endpoint == LedgerEndpoint::kTracking && status_code == kPayloadTooLarge && activities.size() == 1;
}

std::optional<LedgerReason> LedgerExchange::emptyAcceptance() const {
  if (says_nothing)
    return LedgerReason::kNoIdentifier;
  const bool says_what = (endpoint != LedgerEndpoint::kCommerce || !(*answer)["errMsg"].isAbsent()) &&
                         (endpoint != LedgerEndpoint::kCrash || !(*answer)["code"].isAbsent());
  return says_what ? std::nullopt : std::optional(LedgerReason::kEmptyAnswer);
}

}  // namespace morvik::runtime
