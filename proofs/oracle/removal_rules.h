// Which records may be given up, and why. Written down here once more and not read from the kit, so that a change of
// the kit's rules is noticed.
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
/// By kind, as the ledger calls them.
inline constexpr std::array<const char*, kRecordKinds> kRecordKindNames = {
    "activities", "impressions", "re-engagement clicks", "commerce clicks", "crash reports", "demographics"};

/// Its place in arrays by kind.
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

/// One row: for this reason records of this kind may be given up.
struct RemovalRule {
  RecordKind kind;
  RemovalReason reason;
  const char* words;  ///< by which the ledger names it
};

/// All of them, by kind. Records that were written over by hand have none: no run does that.
std::span<const RemovalRule> removalRules();

/// The row's number in removalRules(). Nothing for a kind that is never given up for this reason.
std::optional<size_t> removalRuleOf(RecordKind kind, RemovalReason reason);

/// The count of a click's first failed session, and the highest at which it is sent again.
inline constexpr int64_t kFirstClickFailure = 1;
inline constexpr int64_t kLastClickFailureToResend = 5;

/// A single activity above this may be given up when the service finds it too large.
inline constexpr size_t kLargeActivityBytes = 1'048'576;

}  // namespace morvik::proofs
