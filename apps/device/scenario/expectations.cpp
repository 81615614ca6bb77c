#include "apps/device/scenario/expectations.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "apps/device/ledger_rows.h"
#include "apps/device/scenario/pattern.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;
using Subject = Expectation::Subject;

constexpr Count kAtLeastOne = {1, std::numeric_limits<size_t>::max()};
constexpr Count kOnce = {1, 1};

std::string countWords(Count count) {
  if (count.most == 0)
    return "none";
  if (count.least == count.most)
    return "exactly " + std::to_string(count.least);
  if (count.most == std::numeric_limits<size_t>::max())
    return "at least " + std::to_string(count.least);
  return (count.least == 0 ? "at most " : std::to_string(count.least) + " to ") + std::to_string(count.most);
}

std::string whenWords(const std::optional<TimeRange>& when) {
  if (!when)
    return "";
  if (when->least_milliseconds == when->most_milliseconds)
    return " at " + durationText(when->least_milliseconds);
  return " from " + durationText(when->least_milliseconds) + " to " + durationText(when->most_milliseconds);
}

/// Counts what matched, and keeps the first that did not, with the reason.
class Tally {
 public:
  void add(const std::optional<std::string>& misfit, const std::string& where) {
    ++seen_;
    if (!misfit)
      ++fitting_;
    else if (nearest_.empty())
      nearest_ = where + ": " + *misfit;
  }
  Verdict verdict(Count count, std::string expected, const std::string& what) const {
    Verdict verdict{count.includes(fitting_), std::move(expected), ""};
    if (verdict.met)
      return verdict;
    verdict.got = std::to_string(fitting_) + " of " + std::to_string(seen_) + " " + what;
    if (fitting_ < count.least && !nearest_.empty())
      verdict.got += "; one that does not fit, " + nearest_;
    return verdict;
  }

 private:
  size_t seen_ = 0;
  size_t fitting_ = 0;
  std::string nearest_;
};

std::optional<std::string> outsideOf(const std::optional<TimeRange>& when, int64_t at_milliseconds) {
  if (!when || (when->least_milliseconds <= at_milliseconds && at_milliseconds <= when->most_milliseconds))
    return std::nullopt;
  return "it came at " + durationText(at_milliseconds);
}

std::string at(int64_t milliseconds) {
  return "at " + durationText(milliseconds);
}

Verdict forgotten(size_t count, const std::string& expected) {
  return {false, expected, "more happened than is kept: the oldest " + std::to_string(count) + " are forgotten"};
}

Verdict assessRequests(const Expectation& expectation, const History& history) {
  const Count count = expectation.count.value_or(kAtLeastOne);
  std::string expected = countWords(count) + " " + expectation.name + " requests" + whenWords(expectation.when);
  if (expectation.with)
    expected += " with " + shortText(*expectation.with);
  if (history.requests.forgotten() > 0)
    return forgotten(history.requests.forgotten(), expected);
  Tally tally;
  for (const SentRequest& request : history.requests.all()) {
    if (request.endpoint != expectation.endpoint)
      continue;
    auto misfit = outsideOf(expectation.when, request.at_milliseconds);
    if (!misfit && expectation.with)
      misfit = mismatch(*expectation.with, request.payload);
    tally.add(misfit, at(request.at_milliseconds));
  }
  return tally.verdict(count, std::move(expected), expectation.name + " requests fit");
}

Verdict assessDelivery(const Expectation& expectation, const Evidence& evidence) {
  const Count count = expectation.count.value_or(kOnce);
  std::string expected = countWords(count) + " delivered " + expectation.name;
  if (expectation.param)
    expected += " with param \"" + *expectation.param + "\"";
  const std::vector<kit::Value> events = evidence.events();
  if (events.size() < evidence.event_count())
    return forgotten(evidence.event_count() - events.size(), expected);
  const size_t slash = expectation.name.find('/');
  Tally tally;
  for (const kit::Value& event : events) {
    if (event["group"].string() != expectation.name.substr(0, slash) ||
        event["activity"].string() != expectation.name.substr(slash + 1))
      continue;
    const bool fits_param = !expectation.param || event["param"].string() == *expectation.param;
    tally.add(fits_param ? std::nullopt : std::optional("param is " + shortText(event["param"])),
              std::string(event["created_at"].string()));
  }
  return tally.verdict(count, std::move(expected), "of this name fit, of " + std::to_string(events.size()) + " events");
}

std::optional<std::string> misfitOfCall(const Expectation& expectation, const DelegateCall& call) {
  if (expectation.module && *expectation.module != call.module)
    return call.module.empty() ? "it went to the app" : "it went to the module " + call.module;
  if (auto misfit = outsideOf(expectation.when, call.at_milliseconds))
    return misfit;
  return expectation.with ? mismatch(*expectation.with, call.arguments) : std::nullopt;
}

Verdict assessCalls(const Expectation& expectation, const History& history) {
  const Count count = expectation.count.value_or(kAtLeastOne);
  std::string expected = countWords(count) + " calls of " + expectation.name + whenWords(expectation.when);
  if (expectation.module)
    expected += " to the module " + *expectation.module;
  if (expectation.with)
    expected += " with " + shortText(*expectation.with);
  if (history.calls.forgotten() > 0)
    return forgotten(history.calls.forgotten(), expected);
  Tally tally;
  for (const DelegateCall& call : history.calls.all()) {
    if (call.selector == expectation.name)
      tally.add(misfitOfCall(expectation, call), at(call.at_milliseconds));
  }
  return tally.verdict(count, std::move(expected), "calls of it fit");
}

Verdict assessLines(const Expectation& expectation, const History& history) {
  const Count count = expectation.count.value_or(kAtLeastOne);
  std::string expected = countWords(count) + " log lines" + whenWords(expectation.when) +
                         (expectation.whole_line ? " that are \"" : " with \"") + expectation.name + "\"";
  if (history.lines.forgotten() > 0)
    return forgotten(history.lines.forgotten(), expected);
  Tally tally;
  for (const WrittenLine& written : history.lines.all()) {
    const bool has_text = expectation.whole_line ? written.line.message == expectation.name
                                                 : written.line.message.find(expectation.name) != std::string::npos;
    if (has_text)
      tally.add(outsideOf(expectation.when, written.at_milliseconds), at(written.at_milliseconds));
  }
  return tally.verdict(count, std::move(expected), "such lines fit, of " + std::to_string(history.lines.size()));
}

Verdict assessStored(const Expectation& expectation, const Evidence& evidence) {
  const kit::Value value = evidence.stored(expectation.name);
  if (expectation.is) {
    Verdict verdict{true, expectation.name + " stored as " + shortText(*expectation.is), ""};
    if (const auto misfit = mismatch(*expectation.is, value)) {
      verdict.met = false;
      verdict.got = "it " + *misfit;
    }
    return verdict;
  }
  const Count count = expectation.count.value_or(kAtLeastOne);
  std::string expected = countWords(count) + " elements stored in " + expectation.name;
  if (expectation.with)
    expected += " with " + shortText(*expectation.with);
  if (!value.isNil() && !value.isArray())
    return {false, std::move(expected), "it is not a list but " + shortText(value)};
  Tally tally;
  size_t index = 0;
  for (const kit::Value& element : value.array())
    tally.add(expectation.with ? mismatch(*expectation.with, element) : std::nullopt,
              "element " + std::to_string(++index));
  return tally.verdict(count, std::move(expected), "elements fit");
}

/// The first problem, if any.
std::string whyNotSound(const LedgerRows& rows, const morvik::Ledger& ledger) {
  for (const morvik::Ledger::Account& account : ledger.accounts) {
    if (!account.balances() || account.found_uncounted > 0)
      return "it does not add up: " + shortText(rows.of(account.kind));
  }
  for (const kit::Value& each : rows.given_up) {
    if (!each["by_rule"].boolean())
      return "against the rules " + shortText(each);
  }
  return "";
}

Verdict assessLedger(const Expectation& expectation, const Evidence& evidence) {
  const morvik::Ledger ledger = evidence.ledger();
  const LedgerRows rows = rowsOf(ledger);
  if (expectation.name == kSoundLedger)
    return {rows.is_sound, "a ledger that is sound", whyNotSound(rows, ledger)};
  Verdict verdict{true, "the ledger of " + expectation.name + " with " + shortText(*expectation.with), ""};
  if (const auto misfit = mismatch(*expectation.with, rows.of(expectation.name))) {
    verdict.met = false;
    verdict.got = "it " + *misfit;
  }
  return verdict;
}

}  // namespace

Verdict assess(const Expectation& expectation, const Evidence& evidence) {
  switch (expectation.subject) {
    case Subject::kRequest:
      return assessRequests(expectation, evidence.history);
    case Subject::kDelivered:
      return assessDelivery(expectation, evidence);
    case Subject::kCallback:
      return assessCalls(expectation, evidence.history);
    case Subject::kLog:
      return assessLines(expectation, evidence.history);
    case Subject::kLedger:
      return assessLedger(expectation, evidence);
    case Subject::kStore:
      break;
  }
  return assessStored(expectation, evidence);
}

}  // namespace morvik_device::scenario
