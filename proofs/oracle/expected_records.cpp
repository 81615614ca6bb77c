#include "proofs/oracle/expected_records.h"

#include <algorithm>
#include <utility>

#include "proofs/oracle/payload_values.h"

namespace morvik::proofs {
namespace {

using Kind = RecordKind;
using testing::ServiceEndpoint;

struct StoredUnder {
  std::string_view key;
  Kind kind;
};
constexpr StoredUnder kStoredUnder[] = {
    {"fendoActivityInfos", Kind::kActivities},         {"fendoImpressionInfos", Kind::kImpressions},
    {"reEngagementInfos", Kind::kReEngagementClicks},  {"commerceConversionInfos", Kind::kCommerceClicks},
    {"MorvikCoreUserInfo_Crash", Kind::kCrashReports}, {"fendoUserDemoInfo_age", Kind::kDemographics},
    {"fendoUserDemoInfo_gender", Kind::kDemographics}, {"fendoUserDemoInfo_userId", Kind::kDemographics}};

/// What an age or gender reads as when none is pending.
constexpr int64_t kNonePending = -1;

constexpr std::string_view kDemographicPrefix = "fendoUserDemoInfo_";

/// The core's own activities are told apart by their ids, those of the app by their names; an "end" of the app by its
/// parameter.
std::string activityName(std::string_view group, std::string_view name, const kit::Value& param, const kit::Value& id) {
  if (group == kSessionGroup)
    return std::string(id.string());
  return name == "end" ? textOf(param) : std::string(name);
}

/// Of the URL of a click: what stands behind "id=".
std::string clickName(std::string_view url) {
  constexpr std::string_view kId = "id=";
  const size_t at = url.find(kId);
  if (at == std::string_view::npos)
    return std::string(url);
  const std::string_view rest = url.substr(at + kId.size());
  return std::string(rest.substr(0, rest.find_first_of("&#")));
}

}  // namespace

bool mayGo(Kind kind, RemovalReason reason) {
  return removalRuleOf(kind, reason).has_value();
}

ServiceEndpoint endpointTaking(Kind kind) {
  switch (kind) {
    case Kind::kActivities:
    case Kind::kImpressions:
      break;
    case Kind::kReEngagementClicks:
      return ServiceEndpoint::kReEngagement;
    case Kind::kCommerceClicks:
      return ServiceEndpoint::kCommerce;
    case Kind::kCrashReports:
      return ServiceEndpoint::kCrash;
    case Kind::kDemographics:
      return ServiceEndpoint::kDemographics;
  }
  return ServiceEndpoint::kTracking;
}

std::optional<Kind> kindStoredUnder(std::string_view key) {
  for (const StoredUnder& each : kStoredUnder) {
    if (each.key == key)
      return each.kind;
  }
  return std::nullopt;
}

size_t recordsIn(Kind kind, const kit::Value& stored) {
  if (kind != Kind::kDemographics)
    return stored.array().size();
  return stored.isString() || (stored.isNumber() && stored.integer() != kNonePending) ? 1 : 0;
}

std::string nameOfStored(Kind kind, std::string_view key, const kit::Value& record) {
  switch (kind) {
    case Kind::kActivities:
      return activityName(record["activityGroupName"].string(), record["activityName"].string(),
                          record["activityParam"], record["activityEventID"]);
    case Kind::kImpressions:
      return textOf(record["spaceKey"]);
    case Kind::kReEngagementClicks:
      return clickName(record["deeplink_uri"].string());
    case Kind::kCommerceClicks:
      return textOf(record["clickId"]);
    case Kind::kCrashReports:
      return textOf(record["exception_reason"]);
    case Kind::kDemographics:
      return std::string(key.substr(kDemographicPrefix.size())) + "=" + textOf(record);
  }
  return "";
}

std::vector<CarriedRecord> carriedBy(ServiceEndpoint endpoint, const kit::Value& payload) {
  std::vector<CarriedRecord> carried;
  switch (endpoint) {
    case ServiceEndpoint::kTracking:
      for (const kit::Value& event : payload["activity_info"].array()) {
        carried.push_back({Kind::kActivities, activityName(event["group"].string(), event["activity"].string(),
                                                           event["param"], event["event_id"])});
      }
      for (const kit::Value& impression : payload["impression_info"].array())
        carried.push_back({Kind::kImpressions, textOf(impression["space_key"])});
      break;
    case ServiceEndpoint::kReEngagement: {
      const kit::Value& click = payload["deeplink_info"];
      carried.push_back({Kind::kReEngagementClicks, clickName(click["deeplink_uri"].string()), conversionKeyOf(click)});
      break;
    }
    case ServiceEndpoint::kCommerce:
      for (const kit::Value& click : payload.array())
        carried.push_back({Kind::kCommerceClicks, textOf(click["clickId"])});
      break;
    case ServiceEndpoint::kCrash:
      for (const kit::Value& report : payload.array())
        carried.push_back({Kind::kCrashReports, textOf(report["exception_reason"])});
      break;
    case ServiceEndpoint::kDemographics:
      for (const kit::Value& demo : payload["user_demo_info"].array())
        carried.push_back({Kind::kDemographics, textOf(demo["demo_key"]) + "=" + textOf(demo["demo_value"])});
      break;
    default:
      break;
  }
  return carried;
}

std::optional<size_t> ExpectedRecord::firstRule() const {
  const auto rules = removalRules();
  for (size_t row = 0; row < rules.size(); ++row) {
    if (rules[row].kind == kind && (may_go & bitOf(rules[row].reason)) != 0)
      return row;
  }
  return std::nullopt;
}

RecordNumber ExpectedRecords::record(Kind kind, std::string name, double now, int64_t key) {
  const RecordNumber number = records_.size();
  by_name_[indexOf(kind)].emplace(name, number);
  of_kind_[indexOf(kind)].push_back(number);
  records_.push_back({.kind = kind, .name = std::move(name), .key = key, .recorded_at = now});
  ++expected_[indexOf(kind)];
  return number;
}

void ExpectedRecords::recordAgain(RecordNumber number, double now) {
  ExpectedRecord& record = records_[number];
  record.recorded_at = now;
  record.kept_from = kNever;
  // What a death left in doubt is counted by the ledger that settles it.
  if (!std::exchange(record.is_in_doubt, false))
    ++expected_[indexOf(record.kind)];
  record.is_undone = false;
}

std::optional<RecordNumber> ExpectedRecords::find(Kind kind, std::string_view name) const {
  const auto& names = by_name_[indexOf(kind)];
  const auto found = names.find(name);
  return found == names.end() ? std::nullopt : std::optional(found->second);
}

void ExpectedRecords::keep(RecordNumber number, double now) {
  ExpectedRecord& record = records_[number];
  record.kept_from = std::min(record.kept_from, now);
}

void ExpectedRecords::writeLate(double since, double now) {
  for (ExpectedRecord& record : records_) {
    for (double* const from : {&record.kept_from, &record.trimmed_from}) {
      if (*from >= since && *from != kNever)
        *from = now;
    }
  }
}

void ExpectedRecords::permitStored(Kind kind, RemovalReason reason) {
  for (const RecordNumber number : stored_[indexOf(kind)])
    permit(number, reason);
}

void ExpectedRecords::arrives(RecordNumber number) {
  records_[number].has_arrived = true;
}

ExpectedRecords::Unexpected ExpectedRecords::setStored(Kind kind, const std::vector<std::string>& names) {
  std::vector<RecordNumber>& stored = stored_[indexOf(kind)];
  const std::vector<RecordNumber> before = std::exchange(stored, {});
  for (const RecordNumber number : before) {
    records_[number].is_stored = false;
    records_[number].was_stored = true;
  }
  Unexpected unexpected;
  for (const std::string& name : names) {
    const std::optional<RecordNumber> number = find(kind, name);
    if (!number) {
      unexpected.unknown.push_back(name);
    } else if (std::exchange(records_[*number].is_stored, true)) {
      unexpected.doubled.push_back(name);
    } else {
      stored.push_back(*number);
      if (!records_[*number].was_stored)
        ++records_[*number].times_stored;
    }
  }
  for (const RecordNumber number : before)
    records_[number].was_stored = false;
  return unexpected;
}

void ExpectedRecords::waitOutsideTheStore(Kind kind, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const std::optional<RecordNumber> number = find(kind, name);
    if (!number || records_[*number].is_stored || std::exchange(records_[*number].waits_outside_store, true))
      continue;
    --expected_[indexOf(kind)];
  }
}

void ExpectedRecords::takeIn(RecordNumber number) {
  ExpectedRecord& record = records_[number];
  if (!std::exchange(record.waits_outside_store, false))
    return;
  record.kept_from = kNever;
  ++expected_[indexOf(record.kind)];
}

void ExpectedRecords::die(double undone_from, double undone_from_of_kept, bool power_lost) {
  is_in_doubt_ = true;
  for (ExpectedRecord& record : records_) {
    record.under_way = 0;
    if (record.trimmed_from >= undone_from)
      record.trimmed_from = kNever;
    if (power_lost && record.is_undone)
      ++back_[indexOf(record.kind)];
    // The device's account may have counted it, and lose it now.
    if (record.is_undone && record.settled_at >= undone_from)
      ++doubtful_[indexOf(record.kind)];
    const bool is_kept = record.kept_from < (record.told == Recorded::kKept ? undone_from_of_kept : undone_from);
    if (record.is_undone || record.is_in_doubt || record.waits_outside_store || is_kept)
      continue;
    record.is_in_doubt = true;
    ++doubtful_[indexOf(record.kind)];
  }
}

void ExpectedRecords::settle(const std::array<uint64_t, kRecordKinds>& recorded, double now) {
  for (ExpectedRecord& record : records_) {
    record.is_undone = record.is_undone && !record.is_stored;
    if (!std::exchange(record.is_in_doubt, false))
      continue;
    if (record.is_stored) {
      record.kept_from = now;
    } else {
      record.is_undone = true;
      record.settled_at = now;
    }
  }
  expected_ = recorded;
  doubtful_ = back_ = again_ = {};
  is_in_doubt_ = false;
}

ExpectedCounts ExpectedRecords::counts(Kind kind) const {
  const size_t index = indexOf(kind);
  // What was recorded once more may be undone as well, and is no record of its own.
  const uint64_t undone_at_most = doubtful_[index] + (is_in_doubt_ ? again_ever_[index] : 0);
  ExpectedCounts counts{.recorded_least = expected_[index] - std::min(expected_[index], undone_at_most),
                        .recorded_most = expected_[index] + again_[index] + back_[index],
                        .recorded_again = again_ever_[index],
                        .stored = stored_[index].size()};
  for (const RecordNumber number : of_kind_[index]) {
    const ExpectedRecord& record = records_[number];
    if (record.has_arrived)
      ++counts.arrived;
    if (record.has_arrived && !record.is_undone && !record.is_in_doubt)
      ++counts.arrived_for_good;
    if (record.isGone() && !record.is_in_doubt)
      ++counts.gone;
  }
  return counts;
}

uint64_t ExpectedRecords::permitted(Kind kind, RemovalReason reason) const {
  uint64_t times = 0;
  for (const RecordNumber number : of_kind_[indexOf(kind)]) {
    const ExpectedRecord& record = records_[number];
    if ((record.may_go & bitOf(reason)) != 0)
      times += std::max<uint64_t>(1, record.times_stored);
  }
  return times;
}

std::vector<RecordNumber> ExpectedRecords::lost() const {
  std::vector<RecordNumber> lost;
  for (RecordNumber number = 0; number < records_.size(); ++number) {
    const ExpectedRecord& record = records_[number];
    if (record.isGone() && !record.is_in_doubt && record.may_go == 0)
      lost.push_back(number);
  }
  return lost;
}

}  // namespace morvik::proofs
