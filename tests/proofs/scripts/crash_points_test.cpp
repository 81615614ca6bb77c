#include "proofs/scripts/crash_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace morvik::proofs {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

std::map<std::pair<RecordKind, RemovalReason>, uint64_t> givenUp(const ScriptedRunTotals& totals) {
  std::map<std::pair<RecordKind, RemovalReason>, uint64_t> given_up;
  for (size_t row = 0; row < totals.given_up.size(); ++row) {
    if (totals.given_up[row] != 0)
      given_up[{removalRules()[row].kind, removalRules()[row].reason}] = totals.given_up[row];
  }
  return given_up;
}

TEST(ScriptedRun, DeliversEverythingButWhatTheRulesLetGoWhenNothingCutsIt) {
  const ScriptedRunResult lived = playScriptedRun({});
  EXPECT_THAT(lived.texts, IsEmpty());
  EXPECT_TRUE(lived.totals.balances());
  EXPECT_EQ(lived.totals.delivered + lived.totals.givenUp() + lived.totals.kept_in_memory, lived.totals.recorded);
  EXPECT_THAT(givenUp(lived.totals),
              UnorderedElementsAre(Pair(Pair(RecordKind::kActivities, RemovalReason::kPlaceTaken), 1),
                                   Pair(Pair(RecordKind::kImpressions, RemovalReason::kAddedDuringUpload), 1),
                                   Pair(Pair(RecordKind::kReEngagementClicks, RemovalReason::kForgotten), Gt(0U)),
                                   Pair(Pair(RecordKind::kReEngagementClicks, RemovalReason::kProcessEnded), 1),
                                   Pair(Pair(RecordKind::kCommerceClicks, RemovalReason::kAddedDuringUpload), 1),
                                   Pair(Pair(RecordKind::kDemographics, RemovalReason::kReplaced), 1),
                                   Pair(Pair(RecordKind::kDemographics, RemovalReason::kAddedDuringUpload), 1)));
  EXPECT_GT(lived.totals.recorded, 100U);
  EXPECT_GT(lived.changes, 2000U);
  EXPECT_GT(lived.sent_twice, 0U) << "answers are lost on the way";
  EXPECT_GT(lived.recorded_meanwhile, 5U) << "the log is written back while the app goes on";
  EXPECT_EQ(lived.installs, 1U);
  EXPECT_THAT(lived.occasions, Each(Gt(0U))) << "newer stores, full queues and all the others";
  EXPECT_GT(lived.totals.kept_in_memory, 0U) << "next to a newer store, and in one that takes nothing";
  EXPECT_THAT(lived.fault_points, Each(Gt(100U)));
}

TEST(ScriptedRun, IsTheSameEveryTime) {
  const ScriptedRunOptions options = runAtPoint(PointMode::kScatteredPowerCut, 700, 3);
  const ScriptedRunResult first = playScriptedRun(options);
  const ScriptedRunResult second = playScriptedRun(options);
  EXPECT_EQ(first.changes, second.changes);
  EXPECT_EQ(first.fault_points, second.fault_points);
  EXPECT_EQ(first.totals.delivered, second.totals.delivered);
  EXPECT_EQ(first.totals.not_kept_yet, second.totals.not_kept_yet);
}

TEST(ScriptedRun, ThatIsCutOffDiesOfThatAndNotOfTheNextDeathInItsScript) {
  const ScriptedRunResult whole = playScriptedRun({});
  uint64_t in_the_place_of_a_kill = 0;
  for (uint64_t number = 50; number < whole.changes; number += whole.changes / 20) {
    const ScriptedRunResult lived = playScriptedRun(runAtPoint(PointMode::kPowerCut, number, 1));
    in_the_place_of_a_kill += lived.cuts == whole.cuts && lived.power_cuts == whole.power_cuts + 1 ? 1 : 0;
  }
  EXPECT_GT(in_the_place_of_a_kill, 0U);
}

TEST(ScriptedRun, LeavesToTheSeedWhatItsScriptLeavesOpen) {
  const ScriptedRunResult one = playScriptedRun({.seed = 1});
  const ScriptedRunResult other = playScriptedRun({.seed = 2});
  EXPECT_NE(one.occasions, other.occasions);
  EXPECT_THAT(other.texts, IsEmpty());
}

TEST(ScriptedRun, ThatIsCutOffInItsHealthyEndBeginsThatAgain) {
  const ScriptedRunResult whole = playScriptedRun({});
  const ScriptedRunResult late = playScriptedRun(runAtPoint(PointMode::kKill, whole.changes - 20, 1));
  EXPECT_THAT(late.texts, IsEmpty());
  EXPECT_EQ(late.cuts, whole.cuts + 1);
  EXPECT_GT(late.totals.recorded, whole.totals.recorded);
  EXPECT_EQ(late.totals.stored, 0U) << "all of it went out after the cut";
}

TEST(CrashPoints, LoseNothingAtAFew) {
  const CrashPointResult result = tryCrashPoints({.stride = 390, .seed = 7, .workers = 2});
  EXPECT_THAT(result.texts, IsEmpty());
  EXPECT_THAT(result.complaints, Each(0U));
  EXPECT_GT(result.tried_in_all, 30U);
  EXPECT_TRUE(result.totals.balances());
  EXPECT_GT(result.totals.delivered, 0U);
}

TEST(CrashPoints, AreTheSameOnAnyNumberOfThreads) {
  const CrashPointOptions few{.modes = {PointMode::kPowerCut}, .stride = 500, .seed = 2, .workers = 2};
  CrashPointOptions alone = few;
  alone.workers = 1;
  EXPECT_EQ(figuresOf(tryCrashPoints(few)), figuresOf(tryCrashPoints(alone)));
}

TEST(CrashPoints, TellHowManyAreLived) {
  std::vector<uint64_t> lived;
  uint64_t of_all = 0;
  tryCrashPoints({.modes = {PointMode::kSyncError}, .stride = 60}, [&](uint64_t now, uint64_t of) {
    lived.push_back(now);
    of_all = of;
  });
  EXPECT_THAT(lived, SizeIs(of_all));
  EXPECT_EQ(lived.back(), of_all);
}

TEST(CrashPoints, HaveModesWithNames) {
  for (const PointMode mode : kPointModes)
    EXPECT_EQ(pointModeNamed(nameOf(mode)), mode);
  EXPECT_FALSE(pointModeNamed("earthquake").has_value());
}

// A proof that cannot fail is none: each of these stores does less than it says.
CrashPointResult triedWith(Sabotage sabotage, PointMode mode) {
  return tryCrashPoints({.modes = {mode}, .stride = 250, .seed = 11, .workers = 2, .sabotage = sabotage});
}

TEST(BrokenStore, ThatSyncsNothingLosesWhatWasRecordedLongBeforeThePowerCut) {
  const CrashPointResult result = triedWith(Sabotage::kSyncsNothing, PointMode::kPowerCut);
  EXPECT_GT(result.count(Complaint::kLostAtPowerCut), 0U);
  EXPECT_GT(result.count(Complaint::kUnbalancedAccount), 0U);
  EXPECT_GT(result.count(Complaint::kAnotherDevice), 0U);
  EXPECT_THAT(result.texts, Not(IsEmpty()));
  EXPECT_LE(result.texts.size(), kMaxComplaintTexts);
  EXPECT_THAT(figuresOf(result), HasSubstr("! power "));
}

TEST(BrokenStore, ThatKeepsNothingLosesWhatWasSynchronizedBeforeTheKill) {
  const CrashPointResult result = triedWith(Sabotage::kKeepsNothing, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kLostAtKill), 0U);
  EXPECT_GT(result.count(Complaint::kUnbalancedAccount), 0U) << "with each process its counts are gone";
  EXPECT_GT(result.count(Complaint::kForgottenWish), 0U);
}

TEST(BrokenStore, ThatWritesTheLedgerAfterWhatItCountsUpsetsIt) {
  const CrashPointResult result = triedWith(Sabotage::kHoldsBack, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kUnsoundLedger), 0U);
  EXPECT_EQ(result.count(Complaint::kLostAtKill), 0U);
  EXPECT_THAT(result.texts, Contains(HasSubstr("no longer in the store when it was opened")));
}

TEST(BrokenStore, ThatForgetsWhatWasTrimmedSendsItTwice) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsTheLastSession, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kSentTwice), 0U);
}

TEST(BrokenStore, ThatDropsAWriteIsUnreadableOrLosesRecords) {
  const CrashPointResult result = triedWith(Sabotage::kDropsAWrite, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kLostAtKill) + result.count(Complaint::kUnreadableStore), 0U);
}

TEST(BrokenStore, WhoseFileIsGarbledIsUnreadable) {
  const CrashPointResult result = triedWith(Sabotage::kGarblesTheFile, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kUnreadableStore), 0U);
}

// How often each complaint came, but for those that never did.
std::map<std::string, uint64_t> complaintsOf(const CrashPointResult& result) {
  std::map<std::string, uint64_t> complaints;
  for (size_t i = 0; i < kComplaints; ++i) {
    if (result.complaints[i] != 0)
      complaints[nameOf(static_cast<Complaint>(i))] = result.complaints[i];
  }
  return complaints;
}

// Each of these devices has one fault, and one count alone tells of it.
TEST(BrokenDevice, ThatForgetsEventsAfterTheLastDeathLosesThemWithoutACut) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsAtTheEnd, PointMode::kDiskFull);
  EXPECT_THAT(complaintsOf(result), ElementsAre(Pair("lost without a cut", 2 * result.tried_in_all)));
}

TEST(BrokenDevice, ThatForgetsWhatARuleMayLetGoIsInNoAgreementWithItsLedger) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsTheExcused, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), ElementsAre(Pair("unbalanced account", Gt(0U))));
  EXPECT_THAT(result.texts, Contains(AllOf(HasSubstr("impressions: "), HasSubstr("1 given up"))));
}

TEST(BrokenDevice, ThatAsksForTheScheduleOfAForgottenUserIsSeen) {
  const CrashPointResult result = triedWith(Sabotage::kAsksForTheForgotten, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), ElementsAre(Pair("request of a forgotten user", Gt(0U))));
}

TEST(BrokenDevice, ThatLetsOutWhatWaitsBehindAFullQueueIsSeen) {
  const CrashPointResult result = triedWith(Sabotage::kLetsOutWhatWaits, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("request of a forgotten user", Gt(0U))));
}

TEST(BrokenDevice, ThatUsesAStoreOfANewerVersionHasChangedIt) {
  const CrashPointResult result = triedWith(Sabotage::kIgnoresTheVersion, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("changed a newer store", Gt(0U))));
  EXPECT_THAT(result.texts, Contains(HasSubstr("kept in the place of: kept in memory only")));
}

TEST(BrokenDevice, ThatKnowsOfNoWishBesideANewerStoreHasForgottenIt) {
  const CrashPointResult result = triedWith(Sabotage::kLosesTheWishFile, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("forgotten wish", Gt(0U))));
}

TEST(BrokenDevice, ThatCallsKeptWhatAStoreCannotTakeTellsTheAppWhatIsNotSo) {
  const CrashPointResult result = triedWith(Sabotage::kSaysItIsKept, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("told the app what is not so", Gt(0U))));
}

TEST(BrokenDevice, ThatForgetsWhatAStoreCannotTakeYetHasLostItOnceItCould) {
  const CrashPointResult result = triedWith(Sabotage::kKeepsNoMemory, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("lost at a kill", Gt(0U))));
}

TEST(BrokenDevice, WhoseDiskIsSlowerThanItSaysLosesWhatWasRecordedLongBeforeThePowerCut) {
  const CrashPointResult result = triedWith(Sabotage::kSyncsTooLate, PointMode::kKill);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("lost at a power cut", Gt(0U))));
}

TEST(BrokenDevice, ThatCallsKeptWhatIsOverALimitTellsTheAppWhatIsNotSo) {
  const CrashPointResult result = triedWith(Sabotage::kTakesWhatIsTooLarge, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("told the app what is not so", Gt(0U))));
  EXPECT_THAT(result.texts, Contains(HasSubstr("kept in the place of: refused: too large")));
}

TEST(BrokenDevice, ThatLosesTheNeighboursOfWhatIsOverALimitHasLostThem) {
  const CrashPointResult result = triedWith(Sabotage::kLosesTheNeighbours, PointMode::kSyncError);
  EXPECT_THAT(complaintsOf(result), Contains(Pair("lost at a kill", Gt(0U))));
}

TEST(BrokenDevice, ThatThrowsIsBrokenAndTheOtherLivesAreStillTried) {
  const CrashPointResult result = triedWith(Sabotage::kThrows, PointMode::kKill);
  EXPECT_GT(result.tried_in_all, 10U);
  EXPECT_THAT(complaintsOf(result), ElementsAre(Pair("broken", result.tried_in_all)));
  EXPECT_THAT(result.texts, Each(AllOf(HasSubstr("kill "), HasSubstr("the life threw: it was to end badly"))));
  EXPECT_EQ(result.totals.recorded, 0U) << "what was recorded in such a life is in no account";
}

TEST(CrashPointFigures, NameEachComplaintAndItsNumber) {
  CrashPointResult result;
  result.complaints[static_cast<size_t>(Complaint::kSentTwice)] = 12;
  result.texts = {"kill 5: sent twice without a reason: x"};
  const std::string text = figuresOf(result);
  EXPECT_THAT(text, HasSubstr("  sent twice without a reason               12\n"));
  EXPECT_THAT(text, HasSubstr("  lost at a kill                            0\n"));
  EXPECT_THAT(text, HasSubstr("  ! kill 5: sent twice without a reason: x\n"));
}

TEST(CrashPointFigures, NameWhatWasGivenUpInTheWordsOfTheLedger) {
  CrashPointResult result;
  result.totals.given_up[removalRuleOf(RecordKind::kImpressions, RemovalReason::kPlaceTaken).value()] = 2;
  result.totals.given_up[removalRuleOf(RecordKind::kDemographics, RemovalReason::kReplaced).value()] = 3;
  const std::string text = figuresOf(result);
  EXPECT_THAT(text, HasSubstr("  given up by rule                          5\n"
                              "  of these impressions deleted by the answer to another batch, and their own was not "
                              "accepted 2\n"
                              "  of these demographics replaced by a newer value before they were delivered 3\n"
                              "  not kept yet when the cut came            0\n"));
}

}  // namespace
}  // namespace morvik::proofs
