#include "runtime/ledger/ledger_reasons.h"

#include <iterator>

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;

// Reasons that apply to every kind.
constexpr LedgerRule processEnded(Kind kind) {
  return {kind, Reason::kProcessEnded, "processEnded", "in a request alone when the process ended", true};
}
constexpr LedgerRule byHand(Kind kind) {
  return {kind, Reason::kByHand, "byHand", "written over by hand", true};
}
constexpr LedgerRule missing(Kind kind) {
  return {kind, Reason::kMissing, "missing", "no longer in the store when it was opened", false};
}
constexpr LedgerRule unexplained(Kind kind) {
  return {kind, Reason::kUnexplained, "unexplained", "unexplained", false};
}

constexpr LedgerRule kRules[] = {
    {Kind::kActivities, Reason::kKeptSession, "keptSession", "the \"end\" of a session that went on within a minute",
     true},
    {Kind::kActivities, Reason::kPlaceTaken, "placeTaken",
     "deleted by the answer to another batch, and their own was not accepted", true},
    {Kind::kActivities, Reason::kTooLarge, "tooLarge", "over 1 MiB, and too large for the service when sent alone",
     true},
    processEnded(Kind::kActivities),
    byHand(Kind::kActivities),
    missing(Kind::kActivities),
    unexplained(Kind::kActivities),
    {Kind::kImpressions, Reason::kAddedDuringUpload, "addedDuringUpload",
     "added while a batch was under way that was then accepted", true},
    {Kind::kImpressions, Reason::kPlaceTaken, "placeTaken",
     "deleted by the answer to another batch, and their own was not accepted", true},
    processEnded(Kind::kImpressions),
    byHand(Kind::kImpressions),
    missing(Kind::kImpressions),
    unexplained(Kind::kImpressions),
    {Kind::kReEngagementClicks, Reason::kNotAccepted, "notAccepted", "answered, but neither accepted nor failed", true},
    {Kind::kReEngagementClicks, Reason::kForgotten, "forgotten", "not sent yet when the user asked to be forgotten",
     true},
    {Kind::kReEngagementClicks, Reason::kNewerClick, "newerClick", "failed after a newer click had come", true},
    {Kind::kReEngagementClicks, Reason::kSameKey, "sameKey", "failed while one with the same key was kept", true},
    {Kind::kReEngagementClicks, Reason::kSessionEnded, "sessionEnded", "failed after the session had ended", true},
    {Kind::kReEngagementClicks, Reason::kSixthSessionEnd, "sixthSessionEnd", "not accepted until the sixth session end",
     true},
    {Kind::kReEngagementClicks, Reason::kOtherKeyAccepted, "otherKeyAccepted",
     "struck off by the answer to another click, which named their key", true},
    processEnded(Kind::kReEngagementClicks),
    byHand(Kind::kReEngagementClicks),
    missing(Kind::kReEngagementClicks),
    unexplained(Kind::kReEngagementClicks),
    {Kind::kCommerceClicks, Reason::kAddedDuringUpload, "addedDuringUpload",
     "added while a request was under way that was then accepted", true},
    {Kind::kCommerceClicks, Reason::kEmptyAnswer, "emptyAnswer", "accepted by an answer that says nothing of them",
     true},
    processEnded(Kind::kCommerceClicks),
    byHand(Kind::kCommerceClicks),
    missing(Kind::kCommerceClicks),
    unexplained(Kind::kCommerceClicks),
    {Kind::kCrashReports, Reason::kAddedDuringUpload, "addedDuringUpload",
     "added while an upload was under way that was then accepted", true},
    {Kind::kCrashReports, Reason::kEmptyAnswer, "emptyAnswer", "accepted by an answer without a code", true},
    processEnded(Kind::kCrashReports),
    byHand(Kind::kCrashReports),
    missing(Kind::kCrashReports),
    unexplained(Kind::kCrashReports),
    {Kind::kDemographics, Reason::kReplaced, "replaced", "replaced by a newer value before they were delivered", true},
    {Kind::kDemographics, Reason::kTakenBack, "takenBack", "taken back by the app before they were delivered", true},
    {Kind::kDemographics, Reason::kAddedDuringUpload, "addedDuringUpload",
     "set while an upload was under way that was then accepted", true},
    {Kind::kDemographics, Reason::kNoIdentifier, "noIdentifier",
     "accepted in a payload that could not say whose they are", true},
    processEnded(Kind::kDemographics),
    byHand(Kind::kDemographics),
    missing(Kind::kDemographics),
    unexplained(Kind::kDemographics),
};

}  // namespace

std::span<const LedgerRule> ledgerRules() {
  return kRules;
}

size_t ledgerRuleOf(LedgerKind kind, LedgerReason reason) {
  size_t unexplained = 0;
  for (size_t row = 0; row < std::size(kRules); ++row) {
    if (kRules[row].kind != kind)
      continue;
    if (kRules[row].reason == reason)
      return row;
    if (kRules[row].reason == Reason::kUnexplained)
      unexplained = row;
  }
  return unexplained;
}

}  // namespace morvik::runtime
