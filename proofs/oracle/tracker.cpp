#include "proofs/oracle/tracker.h"

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include "proofs/oracle/payload_values.h"
#include "proofs/oracle/removal_rules.h"
#include "services/json_writer.h"
#include "testing/scripted_transport.h"

namespace morvik::proofs {
namespace {

using testing::ServiceEndpoint;

constexpr std::string_view kLists[] = {"fendoActivityInfos", "fendoImpressionInfos", "reEngagementInfos",
                                       "commerceConversionInfos", "MorvikCoreUserInfo_Crash"};
constexpr std::string_view kDemographics[] = {"fendoUserDemoInfo_age", "fendoUserDemoInfo_gender",
                                              "fendoUserDemoInfo_userId"};
constexpr std::string_view kFailureCounts = "reEngagementConversionFailedCnt";
constexpr std::string_view kEnd = "end";

/// A batch of one activity that a service which finds it too large makes the kit give up.
bool isOneLarge(const kit::Value& batch) {
  const kit::Array entries = batch["activity_info"].array();
  return entries.size() == 1 && services::jsonDescription(entries[0]).size() > kLargeActivityBytes;
}

}  // namespace

Tracker::Tracker(testing::SimulatedService& reader, std::function<void(std::function<void()>)> when_committed)
    : reader_(reader), when_committed_(std::move(when_committed)) {}

void Tracker::keepWhenCommitted(RecordNumber number) {
  when_committed_([this, number] { facts.records.keep(number, facts.now); });
}

RecordNumber Tracker::addRecord(RecordKind kind, const std::string& name) {
  const RecordNumber number = facts.records.record(kind, name, facts.now);
  keepWhenCommitted(number);
  if (mayGo(kind, RemovalReason::kAddedDuringUpload) && facts.underWay(endpointTaking(kind)) > 0)
    facts.records.permit(number, RemovalReason::kAddedDuringUpload);
  if (kind == RecordKind::kDemographics && !has_identifier_)
    facts.records.permit(number, RemovalReason::kNoIdentifier);
  return number;
}

std::optional<RecordNumber> Tracker::setDemographic(const std::string& name, bool is_pending,
                                                    const std::string& property) {
  for (const ExpectedRecord& record : facts.records.all()) {
    if (record.kind != RecordKind::kDemographics || !record.name.starts_with(property + "="))
      continue;
    const std::optional<RecordNumber> number = facts.records.find(record.kind, record.name);
    facts.records.permit(*number, is_pending ? RemovalReason::kReplaced : RemovalReason::kTakenBack);
    // The value of a file that recovers later gives way to the newer one, whichever that is.
    if (facts.is_unavailable)
      facts.records.permit(*number, RemovalReason::kReplaced);
  }
  return is_pending ? std::optional(addRecord(RecordKind::kDemographics, name)) : std::nullopt;
}

std::vector<RecordNumber> Tracker::namesIn(ServiceEndpoint endpoint, const kit::Value& payload) {
  std::vector<RecordNumber> numbers;
  for (const CarriedRecord& carried : carriedBy(endpoint, payload)) {
    std::optional<RecordNumber> number = facts.records.find(carried.kind, carried.name);
    if (!number && carried.kind == RecordKind::kReEngagementClicks) {
      number = addRecord(carried.kind, carried.name);
      facts.records[*number].key = carried.key;
    }
    if (number && carried.kind == RecordKind::kReEngagementClicks && facts.records.mayBeUndone(*number)) {
      facts.records.recordAgain(*number, facts.now);
      keepWhenCommitted(*number);
    }
    if (!number && carried.kind == RecordKind::kCrashReports)
      number = addRecord(carried.kind, carried.name);
    if (number)
      numbers.push_back(*number);
  }
  return numbers;
}

void Tracker::permitAll(const RunExchange& exchange, RecordKind kind, RemovalReason reason) {
  for (const RecordNumber number : exchange.records) {
    if (facts.records[number].kind == kind)
      facts.records.permit(number, reason);
  }
}

void Tracker::sessionRequested() {
  for (auto& [id, exchange] : facts.exchanges)
    exchange.deletes_its_own = false;
}

void Tracker::requestStarts(uint64_t id, const kit::Request& request, bool is_in_background) {
  RunExchange exchange;
  exchange.endpoint = testing::endpointOf(request.url);
  exchange.url = request.url;
  exchange.body = request.body;
  exchange.started_at = facts.now;
  exchange.timeout_seconds = request.timeout_seconds.value_or(testing::kDefaultTimeoutSeconds);
  if (exchange.endpoint) {
    const auto served = reader_.receive(request, testing::SimulatedService::Counting::kNo);
    exchange.records = namesIn(*exchange.endpoint, served.payload);
    exchange.is_one_large = *exchange.endpoint == ServiceEndpoint::kTracking && isOneLarge(served.payload);
  }
  if (exchange.endpoint == ServiceEndpoint::kDemographics && !has_identifier_)
    exchange.records = facts.records.stored(RecordKind::kDemographics);
  exchange.was_made_while_unavailable = facts.is_unavailable;
  // The answer to a batch that is still under way may take the place of this one's.
  if (exchange.endpoint == ServiceEndpoint::kTracking && facts.underWay(ServiceEndpoint::kTracking) > 0) {
    permitAll(exchange, RecordKind::kImpressions, RemovalReason::kPlaceTaken);
    for (auto& [other_id, other] : facts.exchanges)
      other.deletes_its_own = false;
    exchange.deletes_its_own = false;
  }
  if (exchange.endpoint == ServiceEndpoint::kReEngagement && !is_in_background)
    clickStarts();
  if (exchange.endpoint == ServiceEndpoint::kCommerce)
    permitThoseThatWaitToBeHandled(exchange);
  for (const RecordNumber number : exchange.records)
    ++facts.records[number].under_way;
  facts.exchanges.emplace(id, std::move(exchange));
}

/// What the list holds goes with the request. A click whose URL was handed over and comes into the list only later is
/// cleared with it all the same.
void Tracker::permitThoseThatWaitToBeHandled(const RunExchange& exchange) {
  const std::set<RecordNumber> carried(exchange.records.begin(), exchange.records.end());
  for (RecordNumber number = 0; number < facts.records.all().size(); ++number) {
    const ExpectedRecord& record = facts.records[number];
    if (record.kind == RecordKind::kCommerceClicks && !record.has_arrived && !carried.contains(number))
      facts.records.permit(number, RemovalReason::kAddedDuringUpload);
  }
}

/// It is the newest one from now on, and kept whichever fails.
void Tracker::clickStarts() {
  for (const auto& [id, other] : facts.exchanges)
    permitAll(other, RecordKind::kReEngagementClicks, RemovalReason::kNewerClick);
}

const RunExchange* Tracker::requestLeaves(const kit::Request& request) {
  for (auto& [id, exchange] : facts.exchanges) {
    if (exchange.left_at || exchange.url != request.url || exchange.body != request.body)
      continue;
    exchange.left_at = facts.now;
    return &exchange;
  }
  return nullptr;
}

void Tracker::arrives(const RunExchange& exchange) {
  for (const RecordNumber number : exchange.records) {
    // A payload that cannot say whose they are says nothing.
    if (has_identifier_ || facts.records[number].kind != RecordKind::kDemographics)
      facts.records.arrives(number);
  }
}

void Tracker::exchangeEnds(uint64_t id, bool is_not_sent, const std::optional<kit::Value>& answer) {
  facts.handling = id;
  const auto found = facts.exchanges.find(id);
  if (found == facts.exchanges.end())
    return;
  RunExchange& exchange = found->second;
  exchange.is_accepted = answer && meansYes((*answer)["Result"]);
  if (exchange.endpoint == ServiceEndpoint::kCommerce && answer && (*answer)["errMsg"].isAbsent())
    permitAll(exchange, RecordKind::kCommerceClicks, RemovalReason::kEmptyAnswer);
  if (exchange.endpoint == ServiceEndpoint::kCrash && answer && (*answer)["code"].isAbsent())
    permitAll(exchange, RecordKind::kCrashReports, RemovalReason::kEmptyAnswer);
  if (exchange.is_one_large && !answer)
    permitAll(exchange, RecordKind::kActivities, RemovalReason::kTooLarge);
  if (is_not_sent)
    permitAll(exchange, RecordKind::kReEngagementClicks, RemovalReason::kForgotten);
  else if (exchange.endpoint == ServiceEndpoint::kReEngagement)
    clickEnds(exchange, answer);
}

void Tracker::clickEnds(const RunExchange& exchange, const std::optional<kit::Value>& answer) {
  if (exchange.records.empty())
    return;
  const RecordNumber click = exchange.records.front();
  if (!answer) {
    // Whichever failed, the newest is kept, though it may have arrived.
    facts.records.mayBeRecordedAgain(RecordKind::kReEngagementClicks);
    for (const RecordNumber other : facts.records.stored(RecordKind::kReEngagementClicks)) {
      if (other != click && facts.records[other].key == facts.records[click].key)
        facts.records.permit(click, RemovalReason::kSameKey);
    }
    return;
  }
  if (!meansYes((*answer)["Result"])) {
    facts.records.permit(click, RemovalReason::kNotAccepted);
    return;
  }
  const int64_t key = integerOf((*answer)["Data"]["conversion_result"]["conversion_key"]);
  for (const RecordNumber other : facts.records.stored(RecordKind::kReEngagementClicks)) {
    if (facts.records[other].key == key)
      facts.records.permit(other, RemovalReason::kOtherKeyAccepted);
  }
}

void Tracker::handlerEnded(uint64_t id) {
  facts.handling = 0;
  const auto found = facts.exchanges.find(id);
  if (found == facts.exchanges.end())
    return;
  for (const RecordNumber number : found->second.records)
    --facts.records[number].under_way;
  const bool is_trimmed = found->second.is_accepted && found->second.deletes_its_own &&
                          found->second.endpoint == ServiceEndpoint::kTracking;
  ended_.push_back({kNever, std::move(found->second.records)});
  facts.exchanges.erase(found);
  when_committed_([this, is_trimmed, number = ended_.size() - 1] {
    Ended& exchange = ended_[number];
    exchange.kept_from = facts.now;
    for (const RecordNumber record : exchange.records) {
      if (is_trimmed)
        facts.records.trim(record, facts.now);
    }
  });
}

void Tracker::valueSet(std::string_view key, const kit::Value& value) {
  if (key == "fendoActivityInfos")
    noteActivities(value);
  else if (key == "fendoActivityInfosSentEventKeys")
    noteSentKeys(value);
  else if (key == kFailureCounts)
    failure_counts_ = value;
  else if (key == "MorvikCoreUserInfo_endSessoinDate")
    noteSessionEnd();
  // The rules of these look at what is stored in the same turn.
  const std::optional<RecordKind> kind = kindStoredUnder(key);
  if (kind == RecordKind::kReEngagementClicks || kind == RecordKind::kCrashReports)
    lookAt(*kind, key, value);
  if (kind == RecordKind::kDemographics) {
    demographics_[std::string(key)] = value;
    lookAtDemographics();
  }
}

/// New ones stand at the end.
void Tracker::noteActivities(const kit::Value& list) {
  const kit::Array records = list.array();
  for (size_t i = records.size(); i > 0; --i) {
    const kit::Value& record = records[i - 1];
    const std::string id(record["activityEventID"].string());
    if (activity_by_id_.contains(id))
      return;
    const std::string name = nameOfStored(RecordKind::kActivities, "", record);
    std::optional<RecordNumber> number = facts.records.find(RecordKind::kActivities, name);
    if (!number && record["activityGroupName"].string() == kSessionGroup)
      number = addRecord(RecordKind::kActivities, name);
    if (!number)
      continue;
    activity_by_id_.emplace(id, *number);
    if (record["activityName"].string() == kEnd)
      facts.records.permit(*number, RemovalReason::kKeptSession);
  }
}

/// From now on the answer to a batch that is under way deletes these.
void Tracker::noteSentKeys(const kit::Value& keys) {
  if (facts.underWay(ServiceEndpoint::kTracking) == 0)
    return;
  for (const kit::Value& key : keys.array()) {
    if (const auto found = activity_by_id_.find(std::string(key.string())); found != activity_by_id_.end())
      facts.records.permit(found->second, RemovalReason::kPlaceTaken);
  }
}

void Tracker::noteSessionEnd() {
  for (const auto& [id, exchange] : facts.exchanges)
    permitAll(exchange, RecordKind::kReEngagementClicks, RemovalReason::kSessionEnded);
  std::set<int64_t> spent;
  for (const kit::Value& count : failure_counts_.array()) {
    if (failuresOf(count) > kLastClickFailureToResend)
      spent.insert(conversionKeyOf(count));
  }
  for (const RecordNumber click : facts.records.stored(RecordKind::kReEngagementClicks)) {
    if (spent.contains(facts.records[click].key))
      facts.records.permit(click, RemovalReason::kSixthSessionEnd);
  }
}

void Tracker::processBegins(const Read& read) {
  looked_at_.clear();
  failure_counts_ = read(kFailureCounts);
  noteActivities(read("fendoActivityInfos"));
}

/// A report may have waited outside the store: it is recorded once it is in it.
ExpectedRecords::Unexpected Tracker::lookAt(RecordKind kind, std::string_view key, const kit::Value& list) {
  Looked& looked = looked_at_[std::string(key)];
  if (looked.list.identicalTo(list) && !list.isAbsent())
    return looked.unexpected;  // what is wrong stays wrong, whoever looked first
  looked.list = list;
  std::vector<std::string> names;
  for (const kit::Value& record : list.array()) {
    names.push_back(nameOfStored(kind, key, record));
    if (kind == RecordKind::kCrashReports && !facts.records.find(kind, names.back()))
      addRecord(kind, names.back());
  }
  looked.unexpected = facts.records.setStored(kind, names);
  for (const RecordNumber number : facts.records.stored(kind)) {
    if (!facts.records[number].waits_outside_store)
      continue;
    facts.records.takeIn(number);
    keepWhenCommitted(number);
  }
  return looked.unexpected;
}

void Tracker::writeLate(double since) {
  facts.records.writeLate(since, facts.now);
  for (Ended& exchange : ended_) {
    if (exchange.kept_from >= since && exchange.kept_from != kNever)
      exchange.kept_from = facts.now;
  }
}

void Tracker::storeRecovered(const Read& read) {
  failure_counts_ = read(kFailureCounts);
  noteActivities(read("fendoActivityInfos"));
  look(read);
}

ExpectedRecords::Unexpected Tracker::lookAtDemographics() {
  std::vector<std::string> names;
  for (const auto& [key, value] : demographics_) {
    if (recordsIn(RecordKind::kDemographics, value) != 0)
      names.push_back(nameOfStored(RecordKind::kDemographics, key, value));
  }
  return facts.records.setStored(RecordKind::kDemographics, names);
}

std::vector<std::string> Tracker::look(const Read& read) {
  std::vector<std::string> wrong;
  const auto tell = [&wrong](const char* what, const std::vector<std::string>& names) {
    for (const std::string& name : names)
      wrong.push_back(what + name);
  };
  for (const std::string_view key : kLists) {
    const ExpectedRecords::Unexpected unexpected = lookAt(*kindStoredUnder(key), key, read(key));
    tell("stored, and nobody recorded it: ", unexpected.unknown);
    tell("stored twice: ", unexpected.doubled);
  }
  for (const std::string_view key : kDemographics)
    demographics_[std::string(key)] = read(key);
  tell("stored, and nobody set it: ", lookAtDemographics().unknown);
  return wrong;
}

void Tracker::lookAtTheShelf(const kit::Array& reports) {
  std::vector<std::string> names;
  for (const kit::Value& report : reports)
    names.push_back(nameOfStored(RecordKind::kCrashReports, "", report));
  facts.records.waitOutsideTheStore(RecordKind::kCrashReports, names);
}

void Tracker::processEnds(double undone_from, double undone_from_of_kept, bool power_lost) {
  for (const auto& [id, exchange] : facts.exchanges) {
    // A handler may have been at work: what it stored of a click is not committed, and what it took out of a list by a
    // rule was not looked at.
    for (const RecordNumber number : exchange.records) {
      const ExpectedRecord& record = facts.records[number];
      if (!record.is_stored || record.may_go != 0 || record.kind == RecordKind::kReEngagementClicks)
        facts.records.permit(number, RemovalReason::kProcessEnded);
    }
  }
  // What is undone may be undone to when they were under way.
  for (const Ended& exchange : ended_) {
    for (const RecordNumber number : exchange.records) {
      if (exchange.kept_from >= undone_from)
        facts.records.permit(number, RemovalReason::kProcessEnded);
    }
  }
  facts.exchanges.clear();
  facts.handling = 0;
  facts.records.die(undone_from, undone_from_of_kept, power_lost);
}

void Tracker::settle() {
  if (!facts.ledger)
    return;
  std::array<uint64_t, kRecordKinds> recorded{};
  for (size_t kind = 0; kind < kRecordKinds; ++kind)
    recorded[kind] = facts.ledger->of(kRecordKindNames[kind]).recorded;
  facts.records.settle(recorded, facts.now);
}

}  // namespace morvik::proofs
