#include "runtime/ledger/ledger_accounts.h"

#include <algorithm>
#include <utility>

namespace morvik::runtime {
namespace {

constexpr const char* kRecorded = "recorded";
constexpr const char* kStored = "stored";
constexpr const char* kDelivered = "delivered";
constexpr const char* kUnderWay = "under_way";
constexpr const char* kFoundUncounted = "found_uncounted";
constexpr const char* kGivenUp = "given_up";
constexpr const char* kSets = "sets";
constexpr const char* kRefused = "refused";
/// Stored names of kLedgerRefusals.
constexpr std::array kRefusalKeys = {"forgotten", "empty", "too_large", "too_many", "not_running", "no_memory"};
static_assert(kRefusalKeys.size() == kLedgerRefusals.size());

const char* nameOf(LedgerKind kind) {
  return kLedgerKindNames[indexOf(kind)];
}

void setUnlessZero(kit::MutableDictionary& dictionary, const char* key, uint64_t count) {
  if (count > 0)
    dictionary.set(key, static_cast<int64_t>(count));
}

uint64_t grownBy(uint64_t then, uint64_t now) {
  return now > then ? now - then : 0;
}

uint64_t countIn(const kit::Value& value) {
  return value.integer() > 0 ? std::min(static_cast<uint64_t>(value.integer()), kMaxLedgerCount) : 0;
}

}  // namespace

DemographicSets DemographicSets::from(const kit::Value& stored) {
  return {.pending = countIn(stored["pending"]), .all = countIn(stored["all"])};
}

kit::Value DemographicSets::toValue() const {
  return kit::Dictionary{{"pending", static_cast<int64_t>(pending)}, {"all", static_cast<int64_t>(all)}};
}

LedgerAccounts::LedgerAccounts(const kit::Value& written, const Stored& stored) {
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    const kit::Value& account = written[kLedgerKindNames[kind]];
    recorded_[kind] = countIn(account[kRecorded]);
    delivered_[kind] = countIn(account[kDelivered]);
    under_way_[kind] = countIn(account[kUnderWay]);
    found_uncounted_[kind] = countIn(account[kFoundUncounted]);
  }
  for (size_t row = 0; row < given_up_.size(); ++row) {
    const LedgerRule& rule = ledgerRules()[row];
    given_up_[row] = countIn(written[nameOf(rule.kind)][kGivenUp][rule.key]);
  }
  for (size_t row = 0; row < refused_.size(); ++row)
    refused_[row] = countIn(written[kRefused][kRefusalKeys[row]]);
  if (!written.isDictionary())
    return;
  recordUnwritten(LedgerKind::kActivities,
                  grownBy(countIn(written[nameOf(LedgerKind::kActivities)][kStored]), stored.activities));
  // Counts of an older version lack these.
  const kit::Value& impressions_then = written[nameOf(LedgerKind::kImpressions)][kStored];
  if (!impressions_then.isAbsent())
    recordUnwritten(LedgerKind::kImpressions, grownBy(countIn(impressions_then), stored.impressions));
  takeDemographicsSetSince(DemographicSets::from(written[nameOf(LedgerKind::kDemographics)][kSets]), stored);
}

/// A value that was set and is no longer pending was replaced or withdrawn: the service's answer would have written the
/// counts.
void LedgerAccounts::takeDemographicsSetSince(const DemographicSets& then, const Stored& stored) {
  constexpr LedgerKind kKind = LedgerKind::kDemographics;
  const uint64_t set_since = grownBy(then.all, stored.demographics.all);
  if (set_since == 0)
    return;
  recordUnwritten(kKind, grownBy(then.pending, stored.demographics.pending));
  const uint64_t known = delivered_[indexOf(kKind)] + givenUp(kKind) + under_way_[indexOf(kKind)];
  const uint64_t missing = grownBy(known + stored.demographics_waiting, recorded_[indexOf(kKind)]);
  giveUp(kKind, LedgerReason::kReplaced, std::min(missing, set_since));
}

void LedgerAccounts::record(LedgerKind kind, uint64_t count) {
  recordUnwritten(kind, count);
  is_changed_ |= count > 0;
}

void LedgerAccounts::recordUnwritten(LedgerKind kind, uint64_t count) {
  recorded_[indexOf(kind)] += count;
}

void LedgerAccounts::recordUncounted(LedgerKind kind, uint64_t count) {
  record(kind, count);
  found_uncounted_[indexOf(kind)] += count;
}

void LedgerAccounts::unrecord(LedgerKind kind, uint64_t count) {
  recorded_[indexOf(kind)] -= count;
  is_changed_ |= count > 0;
}

void LedgerAccounts::deliver(LedgerKind kind, uint64_t count) {
  delivered_[indexOf(kind)] += count;
  is_changed_ |= count > 0;
}

void LedgerAccounts::giveUp(LedgerKind kind, LedgerReason reason, uint64_t count) {
  given_up_[ledgerRuleOf(kind, reason)] += count;
  is_changed_ |= count > 0;
}

void LedgerAccounts::beginUnderWay(LedgerKind kind, uint64_t count) {
  under_way_[indexOf(kind)] += count;
  is_changed_ |= count > 0;
}

void LedgerAccounts::endUnderWay(LedgerKind kind, uint64_t count) {
  under_way_[indexOf(kind)] -= count;
  is_changed_ |= count > 0;
}

void LedgerAccounts::takeBack(LedgerKind kind, const LedgerAccounts& before) noexcept {
  const size_t i = indexOf(kind);
  recorded_[i] = before.recorded_[i];
  delivered_[i] = before.delivered_[i];
  under_way_[i] = before.under_way_[i];
  found_uncounted_[i] = before.found_uncounted_[i];
  for (size_t row = 0; row < given_up_.size(); ++row) {
    if (ledgerRules()[row].kind == kind)
      given_up_[row] = before.given_up_[row];
  }
}

void LedgerAccounts::refuse(const LedgerRefusals& counts) {
  for (size_t row = 0; row < counts.size(); ++row)
    refused_[row] += counts[row];
  has_unwritten_refusals_ |= std::any_of(counts.begin(), counts.end(), [](uint64_t count) { return count > 0; });
}

uint64_t LedgerAccounts::givenUp(LedgerKind kind) const {
  uint64_t sum = 0;
  for (size_t row = 0; row < given_up_.size(); ++row)
    sum += ledgerRules()[row].kind == kind ? given_up_[row] : 0;
  return sum;
}

void LedgerAccounts::bringInLineWith(const Found& found) {
  for (size_t i = 0; i < kLedgerKinds; ++i) {
    const auto kind = static_cast<LedgerKind>(i);
    giveUp(kind, LedgerReason::kProcessEnded, under_way_[i]);
    endUnderWay(kind, under_way_[i]);
    uint64_t missing = 0;
    uint64_t beyond = 0;
    const uint64_t gone = delivered_[i] + givenUp(kind);
    if (recorded_[i] > gone + found.stored[i])
      missing = recorded_[i] - gone - found.stored[i];
    else
      beyond = gone + found.stored[i] - recorded_[i];
    if (kind == LedgerKind::kDemographics) {
      const uint64_t replaced = std::min(missing, found.demographics_set_since);
      giveUp(kind, LedgerReason::kReplaced, replaced);
      missing -= replaced;
    }
    giveUp(kind, LedgerReason::kMissing, missing);
    record(kind, beyond);
    // A dying process writes its report without the book.
    if (kind != LedgerKind::kCrashReports && !found.is_first)
      found_uncounted_[i] += beyond;
  }
}

void LedgerAccounts::add(const LedgerAccounts& other) {
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    recorded_[kind] += other.recorded_[kind];
    delivered_[kind] += other.delivered_[kind];
    under_way_[kind] += other.under_way_[kind];
    found_uncounted_[kind] += other.found_uncounted_[kind];
  }
  refuse(other.refused_);
  for (size_t row = 0; row < given_up_.size(); ++row)
    given_up_[row] += other.given_up_[row];
  is_changed_ = true;
}

kit::Value LedgerAccounts::accountOf(LedgerKind kind, const Stored& stored) const {
  const size_t i = indexOf(kind);
  kit::MutableDictionary account;
  setUnlessZero(account, kRecorded, recorded_[i]);
  if (kind == LedgerKind::kActivities)
    setUnlessZero(account, kStored, stored.activities);
  if (kind == LedgerKind::kImpressions)
    account.set(kStored, static_cast<int64_t>(stored.impressions));
  if (kind == LedgerKind::kDemographics && stored.demographics.all > 0)
    account.set(kSets, stored.demographics.toValue());
  setUnlessZero(account, kDelivered, delivered_[i]);
  setUnlessZero(account, kUnderWay, under_way_[i]);
  setUnlessZero(account, kFoundUncounted, found_uncounted_[i]);
  kit::MutableDictionary reasons;
  for (size_t row = 0; row < given_up_.size(); ++row) {
    const LedgerRule& rule = ledgerRules()[row];
    if (rule.kind == kind)
      setUnlessZero(reasons, rule.key, given_up_[row]);
  }
  if (reasons.size() > 0)
    account.set(kGivenUp, kit::Value(std::move(reasons)));
  return kit::Value(std::move(account));
}

kit::Value LedgerAccounts::write(const Stored& stored) {
  is_changed_ = false;
  has_unwritten_refusals_ = false;
  kit::MutableDictionary all;
  for (size_t kind = 0; kind < kLedgerKinds; ++kind)
    all.set(kLedgerKindNames[kind], accountOf(static_cast<LedgerKind>(kind), stored));
  kit::MutableDictionary refused;
  for (size_t row = 0; row < refused_.size(); ++row)
    setUnlessZero(refused, kRefusalKeys[row], refused_[row]);
  if (refused.size() > 0)
    all.set(kRefused, kit::Value(std::move(refused)));
  return kit::Value(std::move(all));
}

Ledger LedgerAccounts::toLedger(const LedgerCounts& stored) const {
  Ledger ledger;
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    Ledger::Account account;
    account.kind = kLedgerKindNames[kind];
    account.recorded = recorded_[kind];
    account.delivered = delivered_[kind];
    account.stored = stored[kind];
    account.under_way = under_way_[kind];
    account.found_uncounted = found_uncounted_[kind];
    for (size_t row = 0; row < given_up_.size(); ++row) {
      const LedgerRule& rule = ledgerRules()[row];
      if (rule.kind == static_cast<LedgerKind>(kind) && given_up_[row] > 0)
        account.given_up.push_back({rule.words, given_up_[row], rule.by_rule});
    }
    ledger.accounts.push_back(std::move(account));
  }
  for (size_t row = 0; row < refused_.size(); ++row) {
    if (refused_[row] > 0)
      ledger.refused.push_back({std::string(toText(kLedgerRefusals[row])), refused_[row]});
  }
  return ledger;
}

}  // namespace morvik::runtime
