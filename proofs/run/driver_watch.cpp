// What the driver sees of a run: requests, values, log lines and the disk.
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>
#include <variant>

#include "proofs/run/driver.h"
#include "proofs/run/stored_keys.h"
#include "testing/json_reader.h"

namespace morvik::proofs {
namespace {

using testing::Answer;
using testing::ServiceEndpoint;

/// What the core takes for a success: a good status, and an object.
std::optional<kit::Value> successIn(const kit::TransportOutcome& outcome) {
  if (outcome.error || !outcome.response)
    return std::nullopt;
  const kit::Response& response = *outcome.response;
  if (response.status_code < 200 || response.status_code > 299)
    return std::nullopt;
  auto read = testing::readJson(response.body);
  auto* json = std::get_if<kit::Value>(&read);
  return json != nullptr && json->isDictionary() ? std::optional(std::move(*json)) : std::nullopt;
}

}  // namespace

bool Driver::tryObserve() {
  tracker_.facts.now = now();
  tracker_.facts.is_forgotten = process_ && process_->isGdprForgetMe();
  if (!isCut() && process_)
    noteRecovery();
  return !isCut();
}

/// Where the file can be read and not be written, no line tells that it has recovered; the install's name does.
void Driver::noteRecovery() {
  RunFacts& facts = tracker_.facts;
  if (facts.is_next_to_newer)
    return;
  if (facts.is_unavailable && process_->storedValue(kInstallIdKey) != name_while_unavailable_) {
    facts.is_unavailable = false;
    has_recovered_ = true;
  }
  if (std::exchange(has_recovered_, false))
    tracker_.storeRecovered(reader());
}

void Driver::requestStarts(uint64_t exchange, const kit::Request& request) {
  if (!tryObserve())
    return;
  const bool is_in_background = machine_.loop.running() == testing::VirtualLoop::Running::kBackgroundBlock;
  tracker_.requestStarts(exchange, request, is_in_background);
  tell([&](Invariant& invariant) { invariant.requestStarts(tracker_.facts.exchanges.at(exchange)); });
}
void Driver::handlerBegins(uint64_t exchange, const kit::TransportOutcome& outcome) {
  if (!tryObserve())
    return;
  const std::optional<kit::Value> answer = successIn(outcome);
  tracker_.exchangeEnds(exchange, outcome.isNotSent(), answer);
  const RunExchange* const ended = tracker_.facts.handled();
  if (ended == nullptr)
    return;
  tell([&](Invariant& invariant) { invariant.exchangeEnds(*ended, answer); });
  if (ended->endpoint == ServiceEndpoint::kErasure && answer)
    noteWish(true);
}
void Driver::handlerEnded(uint64_t exchange) {
  if (tryObserve())
    tracker_.handlerEnded(exchange);
}
void Driver::valueSet(std::string_view key, const kit::Value& value) {
  if (!tryObserve())
    return;
  if (options_.trace && kindStoredUnder(key))
    trace("  store ", std::string(key) + " is set, " + std::to_string(value.size()) + " records");
  tracker_.valueSet(key, value);
  tell([&](Invariant& invariant) { invariant.valueSet(key, value); });
}
void Driver::blockPostponed(double delay_seconds) {
  if (tryObserve())
    tell([&](Invariant& invariant) { invariant.blockPostponed(delay_seconds); });
}

void Driver::lineLogged(std::string_view line) {
  if (isCut())
    return;
  ++figures_.log_lines;
  transcript_.add(line);
  trace("  log ", line);
  tell([&](Invariant& invariant) { invariant.lineLogged(line); });
}
void Driver::storeSays(std::string_view line) {
  if (isCut())
    return;
  const auto says = [line](std::string_view part) { return line.find(part) != std::string_view::npos; };
  if (says("cannot be written (") || says("cannot be opened ("))
    trouble_since_ = trouble_since_.value_or(now());
  if (says("cannot be opened (") && is_starting_) {
    tracker_.facts.knows_its_store = false;
    tracker_.facts.is_unavailable = true;
  }
  if (says("can be written again")) {
    writeLate(trouble_since_.value_or(now()));
    trouble_since_.reset();
    has_recovered_ = std::exchange(tracker_.facts.is_unavailable, false);
  }
}

void Driver::writeLate(double since) {
  tracker_.facts.now = now();
  tracker_.writeLate(since);
  for (double* const kept_from : {&wish_kept_from_, &made_device_at_}) {
    if (*kept_from >= since && *kept_from != kNever)
      *kept_from = now();
  }
}

void Driver::diskChanges(const simulation::DiskCall& call) {
  ++figures_.disk_changes;
  if (options_.trace) {
    static constexpr const char* kKinds[] = {"reads",   "writes",  "syncs",   "truncates",
                                             "creates", "renames", "removes", "syncs the folder of"};
    static_assert(std::size(kKinds) == simulation::DiskCall::kKinds);
    trace("  disk ", std::string(kKinds[static_cast<size_t>(call.kind)]) + " " + std::string(call.path) + " at " +
                         std::to_string(call.offset) + ", " + std::to_string(call.size) + " bytes");
  }
  if (process_ && flaky_disk_.changesTheStore(call))
    tell([&](Invariant& invariant) { invariant.storeFileChanges(call.path); });
  transcript_.add(static_cast<uint64_t>(call.kind));
  transcript_.add(call.path);
  transcript_.add(static_cast<uint64_t>(call.offset));
  transcript_.add(static_cast<uint64_t>(call.size));
  diskCalled(call);
}

// ------------------------------------------------------------------------------------------------------- the service

void Driver::requestLeaves(const kit::Request& request) {
  if (!tryObserve())
    return;
  ++figures_.requests;
  transcript_.add(request.url);
  transcript_.add(request.body);
  trace("  request ", request.url);
  leaving_ = tracker_.requestLeaves(request);
  const RunExchange unknown{.endpoint = testing::endpointOf(request.url), .url = request.url};
  tell([&](Invariant& invariant) { invariant.requestLeaves(leaving_ != nullptr ? *leaving_ : unknown); });
}

Answer Driver::serve(const kit::Request& request) {
  if (isCut())
    return Answer::silence();  // it never left
  for (const RecordNumber number : leaving_ != nullptr ? leaving_->records : std::vector<RecordNumber>())
    ++tracker_.facts.records[number].times_sent;
  const Treatment treatment = treatmentOf(request);
  ++figures_.misbehaviours[static_cast<size_t>(treatment.misbehaviour)];
  trace("  service ", nameOf(treatment.misbehaviour));
  TreatedRequest treated = treat(request, treatment, *service_, dice_, otherKeys());
  if (treated.served.refusal)
    complain(kRequestsAreGood, request.url + ": " + *treated.served.refusal);
  if (treated.served.counted && leaving_ != nullptr)
    tracker_.arrives(*leaving_);
  noteInstalls();
  return treated.answer;
}

/// Who does not know yet who it is gives itself a name for the time being.
void Driver::noteInstalls() {
  const bool is_another_for_now = leaving_ != nullptr && leaving_->was_made_while_unavailable;
  if (is_another_for_now && service_->installs() > other_devices_ + tracker_.facts.installs)
    ++other_devices_;
  tracker_.facts.installs = service_->installs() - other_devices_;
}

void Driver::note(std::string_view what) {
  transcript_.add(what);
  transcript_.add(static_cast<uint64_t>(now() * 1e6));
  trace("", what);
}

void Driver::traceLedger(const Ledger& ledger) {
  for (const Ledger::Account& account : ledger.accounts) {
    if (!options_.trace || account.recorded == 0)
      continue;
    std::string text = account.kind + ": " + std::to_string(account.recorded) + " recorded, " +
                       std::to_string(account.delivered) + " delivered, " + std::to_string(account.stored) +
                       " stored, " + std::to_string(account.under_way) + " under way";
    for (const Ledger::GivenUp& each : account.given_up)
      text += ", " + std::to_string(each.count) + " " + each.reason;
    if (std::exchange(traced_accounts_[account.kind], text) != text)
      trace("  ledger ", text);
  }
}

void Driver::trace(std::string_view before, std::string_view what) {
  if (!options_.trace)
    return;
  char time[32];
  std::snprintf(time, sizeof time, "%12.3f ", now());
  options_.trace(std::string(time) + std::string(before) + std::string(what));
}

}  // namespace morvik::proofs
