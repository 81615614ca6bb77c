#include "proofs/oracle/removal_rules.h"

#include <iterator>

namespace morvik::proofs {
namespace {

using Kind = RecordKind;
using Reason = RemovalReason;

constexpr RemovalRule processEnded(Kind kind) {
  return {kind, Reason::kProcessEnded, "in a request alone when the process ended"};
}

constexpr RemovalRule kRules[] = {
    {Kind::kActivities, Reason::kKeptSession, "the \"end\" of a session that went on within a minute"},
    {Kind::kActivities, Reason::kPlaceTaken, "deleted by the answer to another batch, and their own was not accepted"},
    {Kind::kActivities, Reason::kTooLarge, "over 1 MiB, and too large for the service when sent alone"},
    processEnded(Kind::kActivities),
    {Kind::kImpressions, Reason::kAddedDuringUpload, "added while a batch was under way that was then accepted"},
    {Kind::kImpressions, Reason::kPlaceTaken, "deleted by the answer to another batch, and their own was not accepted"},
    processEnded(Kind::kImpressions),
    {Kind::kReEngagementClicks, Reason::kNotAccepted, "answered, but neither accepted nor failed"},
    {Kind::kReEngagementClicks, Reason::kForgotten, "not sent yet when the user asked to be forgotten"},
    {Kind::kReEngagementClicks, Reason::kNewerClick, "failed after a newer click had come"},
    {Kind::kReEngagementClicks, Reason::kSameKey, "failed while one with the same key was kept"},
    {Kind::kReEngagementClicks, Reason::kSessionEnded, "failed after the session had ended"},
    {Kind::kReEngagementClicks, Reason::kSixthSessionEnd, "not accepted until the sixth session end"},
    {Kind::kReEngagementClicks, Reason::kOtherKeyAccepted,
     "struck off by the answer to another click, which named their key"},
    processEnded(Kind::kReEngagementClicks),
    {Kind::kCommerceClicks, Reason::kAddedDuringUpload, "added while a request was under way that was then accepted"},
    {Kind::kCommerceClicks, Reason::kEmptyAnswer, "accepted by an answer that says nothing of them"},
    processEnded(Kind::kCommerceClicks),
    {Kind::kCrashReports, Reason::kAddedDuringUpload, "added while an upload was under way that was then accepted"},
    {Kind::kCrashReports, Reason::kEmptyAnswer, "accepted by an answer without a code"},
    processEnded(Kind::kCrashReports),
    {Kind::kDemographics, Reason::kReplaced, "replaced by a newer value before they were delivered"},
    {Kind::kDemographics, Reason::kTakenBack, "taken back by the app before they were delivered"},
    {Kind::kDemographics, Reason::kAddedDuringUpload, "set while an upload was under way that was then accepted"},
    {Kind::kDemographics, Reason::kNoIdentifier, "accepted in a payload that could not say whose they are"},
    processEnded(Kind::kDemographics),
};

}  // namespace

std::span<const RemovalRule> removalRules() {
  return kRules;
}

std::optional<size_t> removalRuleOf(RecordKind kind, RemovalReason reason) {
  for (size_t row = 0; row < std::size(kRules); ++row) {
    if (kRules[row].kind == kind && kRules[row].reason == reason)
      return row;
  }
  return std::nullopt;
}

}  // namespace morvik::proofs
