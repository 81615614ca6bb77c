#include "host/ledger/ledger_accounts.h"

#include <utility>

namespace morvik::host {
namespace {

constexpr const char* kRecorded = "recorded";
constexpr const char* kStored = "stored";
constexpr const char* kDelivered = "delivered";
constexpr const char* kUnderWay = "under_way";
constexpr const char* kFoundUncounted = "found_uncounted";
constexpr const char* kGivenUp = "given_up";

void setUnlessZero(kit::MutableDictionary& dictionary, const char* key, uint64_t count) {
  if (count > 0)
    dictionary.set(key, static_cast<int64_t>(count));
}

uint64_t countIn(const kit::Value& value) {
  return value.integer() > 0 ? static_cast<uint64_t>(value.integer()) : 0;
}

}  // namespace

uint64_t LedgerAccounts::givenUp(LedgerKind kind) const {
  uint64_t sum = 0;
  for (size_t row = 0; row < given_up.size(); ++row)
    sum += ledgerRules()[row].kind == kind ? given_up[row] : 0;
  return sum;
}

kit::Value LedgerAccounts::toValue(uint64_t stored_activities) const {
  kit::MutableDictionary all;
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    kit::MutableDictionary account;
    setUnlessZero(account, kRecorded, recorded[kind]);
    if (static_cast<LedgerKind>(kind) == LedgerKind::kActivities)
      setUnlessZero(account, kStored, stored_activities);
    setUnlessZero(account, kDelivered, delivered[kind]);
    setUnlessZero(account, kUnderWay, under_way[kind]);
    setUnlessZero(account, kFoundUncounted, found_uncounted[kind]);
    kit::MutableDictionary reasons;
    for (size_t row = 0; row < given_up.size(); ++row) {
      const LedgerRule& rule = ledgerRules()[row];
      if (rule.kind == static_cast<LedgerKind>(kind))
        setUnlessZero(reasons, rule.key, given_up[row]);
    }
    if (reasons.size() > 0)
      account.set(kGivenUp, kit::Value(std::move(reasons)));
    all.set(kLedgerKindNames[kind], kit::Value(std::move(account)));
  }
  return kit::Value(std::move(all));
}

LedgerAccounts LedgerAccounts::from(const kit::Value& written, uint64_t stored_activities) {
  LedgerAccounts accounts;
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    const kit::Value& account = written[kLedgerKindNames[kind]];
    accounts.recorded[kind] = countIn(account[kRecorded]);
    accounts.delivered[kind] = countIn(account[kDelivered]);
    accounts.under_way[kind] = countIn(account[kUnderWay]);
    accounts.found_uncounted[kind] = countIn(account[kFoundUncounted]);
  }
  const uint64_t stored_then =
      countIn(written[kLedgerKindNames[static_cast<size_t>(LedgerKind::kActivities)]][kStored]);
  if (written.isDictionary() && stored_activities > stored_then)
    accounts.of(&LedgerAccounts::recorded, LedgerKind::kActivities) += stored_activities - stored_then;
  for (size_t row = 0; row < accounts.given_up.size(); ++row) {
    const LedgerRule& rule = ledgerRules()[row];
    accounts.given_up[row] = countIn(written[kLedgerKindNames[static_cast<size_t>(rule.kind)]][kGivenUp][rule.key]);
  }
  return accounts;
}

Ledger LedgerAccounts::toLedger(const LedgerCounts& stored) const {
  Ledger ledger;
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    Ledger::Account account;
    account.kind = kLedgerKindNames[kind];
    account.recorded = recorded[kind];
    account.delivered = delivered[kind];
    account.stored = stored[kind];
    account.under_way = under_way[kind];
    account.found_uncounted = found_uncounted[kind];
    for (size_t row = 0; row < given_up.size(); ++row) {
      const LedgerRule& rule = ledgerRules()[row];
      if (rule.kind == static_cast<LedgerKind>(kind) && given_up[row] > 0)
        account.given_up.push_back({rule.words, given_up[row], rule.by_rule});
    }
    ledger.accounts.push_back(std::move(account));
  }
  return ledger;
}

}  // namespace morvik::host
