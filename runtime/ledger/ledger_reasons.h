// The kinds of records that the ledger counts, and why records are given up: as data, in one table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace morvik::runtime {

enum class LedgerKind : uint8_t {
  kActivities,
  kImpressions,
  kReEngagementClicks,
  kCommerceClicks,
  kCrashReports,
  kDemographics
};
inline constexpr size_t kLedgerKinds = 6;
/// By kind, the names that people read.
inline constexpr std::array<const char*, kLedgerKinds> kLedgerKindNames = {
    "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports", "demographics"};

/// Its place in arrays by kind.
constexpr size_t indexOf(LedgerKind kind) {
  return static_cast<size_t>(kind);
}

enum class LedgerReason : uint8_t {
  kKeptSession,
  kPlaceTaken,
  kTooLarge,
  kAddedDuringUpload,
  kNotAccepted,
  kForgotten,
  kNewerClick,
  kSameKey,
  kSessionEnded,
  kSixthSessionEnd,
  kOtherKeyAccepted,
  kEmptyAnswer,
  kReplaced,
  kTakenBack,
  kNoIdentifier,
  kProcessEnded,
  kByHand,
  kMissing,
  kUnexplained
};

/// One row: for this reason records of this kind may be given up.
struct LedgerRule {
  LedgerKind kind;
  LedgerReason reason;
  const char* key;    ///< under which the count is stored; never changed once released
  const char* words;  ///< for people
  bool by_rule;       ///< false: it never happens while the kit and its store are in good order
};

/// All of them, by kind.
std::span<const LedgerRule> ledgerRules();

/// The row's number in ledgerRules(). For a kind that has no such reason: that of kUnexplained, which every kind has.
size_t ledgerRuleOf(LedgerKind kind, LedgerReason reason);

}  // namespace morvik::runtime
