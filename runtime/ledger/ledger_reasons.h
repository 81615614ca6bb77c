// The kinds of records that the ledger counts, and why records are given up: one table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kit/ledger.h"

namespace morvik::runtime {

using kit::LedgerKind;
using kit::LedgerReason;

inline constexpr size_t kLedgerKinds = 6;
/// By kind, for people.
inline constexpr std::array<const char*, kLedgerKinds> kLedgerKindNames = {
    "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports", "demographics"};

/// Index into arrays by kind.
constexpr size_t indexOf(LedgerKind kind) {
  return static_cast<size_t>(kind);
}

/// One row: records of this kind may be given up for this reason.
struct LedgerRule {
  LedgerKind kind;
  LedgerReason reason;
  const char* key;    ///< the count's stored name; never changed once released
  const char* words;  ///< for people
  bool by_rule;       ///< false: never happens while the kit and its store work
};

/// All rows, by kind.
std::span<const LedgerRule> ledgerRules();

/// The row's number in ledgerRules(). If the kind has no such reason: kUnexplained, which every kind has.
size_t ledgerRuleOf(LedgerKind kind, LedgerReason reason);

}  // namespace morvik::runtime
