// Which records may be removed, and why. Repeated here instead of read from the kit, so that a change of the kit's
// rules is noticed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace morvik::proofs {

enum class RecordKind : uint8_t {
  kActivities,
  kImpressions,
  kReEngagementClicks,
  kCommerceClicks,
  kCrashReports,
  kDemographics
};
inline constexpr size_t kRecordKinds = 6;
/// The ledger's names of the kinds.
inline constexpr std::array<const char*, kRecordKinds> kRecordKindNames = {
    "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports", "demographics"};

/// The kind's index in arrays by kind.
constexpr size_t indexOf(RecordKind kind) {
  return static_cast<size_t>(kind);
}

enum class RemovalReason : uint8_t {
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
  kProcessEnded
};

/// One row: records of this kind may be removed for this reason.
struct RemovalRule {
  RecordKind kind;
  RemovalReason reason;
  const char* words;  ///< the ledger's name of it
};

/// All rules, by kind. There is none for records overwritten by hand: no run does that.
std::span<const RemovalRule> removalRules();

/// The row's index in removalRules(). Nothing for a kind that is never removed for this reason.
std::optional<size_t> removalRuleOf(RecordKind kind, RemovalReason reason);

/// The count after a click's first failed session, and the highest count at which it is sent again.
inline constexpr int64_t kFirstClickFailure = 1;
inline constexpr int64_t kLastClickFailureToResend = 5;

/// A larger single activity may be removed if the service finds it too large.
inline constexpr size_t kLargeActivityBytes = 1'048'576;

}  // namespace morvik::proofs
