#include "proofs/scripts/crash_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "proofs/oracle/invariants.h"
#include "proofs/run/app.h"

namespace morvik::proofs {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

/// Names of rules by which something was given up, and how much.
std::map<std::pair<RecordKind, RemovalReason>, uint64_t> givenUp(const RunFigures& figures) {
  std::map<std::pair<RecordKind, RemovalReason>, uint64_t> given_up;
  for (size_t row = 0; row < figures.given_up_by_rule.size(); ++row) {
    if (figures.given_up_by_rule[row] != 0)
      given_up[{removalRules()[row].kind, removalRules()[row].reason}] = figures.given_up_by_rule[row];
  }
  return given_up;
}

TEST(ScriptedRun, DeliversEverythingButWhatTheRulesLetGoWhenNothingCutsIt) {
  const ScriptedRunResult played = playScriptedRun({});
  const RunFigures& figures = played.figures;
  EXPECT_THAT(played.texts, IsEmpty());
  EXPECT_TRUE(figures.balances());
  EXPECT_EQ(figures.stored, 1U) << "the last session's end";
  EXPECT_THAT(givenUp(figures),
              UnorderedElementsAre(Pair(Pair(RecordKind::kActivities, RemovalReason::kKeptSession), Gt(0U)),
                                   Pair(Pair(RecordKind::kActivities, RemovalReason::kPlaceTaken), Gt(0U)),
                                   Pair(Pair(RecordKind::kImpressions, RemovalReason::kAddedDuringUpload), 1),
                                   Pair(Pair(RecordKind::kReEngagementClicks, RemovalReason::kForgotten), Gt(0U)),
                                   Pair(Pair(RecordKind::kReEngagementClicks, RemovalReason::kProcessEnded), 1),
                                   Pair(Pair(RecordKind::kCommerceClicks, RemovalReason::kAddedDuringUpload), 1),
                                   Pair(Pair(RecordKind::kDemographics, RemovalReason::kReplaced), 2)));
  EXPECT_GT(figures.recorded, 200U);
  EXPECT_GT(played.changes, 2000U);
  EXPECT_GT(figures.sent_again, 0U) << "answers are lost on the way";
  EXPECT_GT(figures.recorded_meanwhile, 5U) << "the log is written back while the app goes on";
  EXPECT_EQ(played.installs, 1U);
  EXPECT_GT(figures.undone_in_memory, 0U) << "next to a newer store, and in one that takes nothing";
  EXPECT_THAT(played.fault_points, Each(Gt(100U)));
}

TEST(ScriptedRun, MeetsEachOfTheOddConditions) {
  const RunFigures figures = playScriptedRun({}).figures;
  EXPECT_GT(figures.newer_stores, 0U);
  EXPECT_GT(figures.kept_in_memory, 0U);
  EXPECT_GT(figures.slow_disks, 0U);
  EXPECT_EQ(figures.too_large, kLimitedCalls);
  EXPECT_GT(figures.full_queues, 0U);
}

TEST(ScriptedRun, IsTheSameEveryTime) {
  const ScriptedRunOptions options = runAtPoint(PointMode::kScatteredPowerCut, 700, 3);
  const ScriptedRunResult first = playScriptedRun(options);
  const ScriptedRunResult second = playScriptedRun(options);
  EXPECT_EQ(first.changes, second.changes);
  EXPECT_EQ(first.fault_points, second.fault_points);
  EXPECT_EQ(first.figures.delivered, second.figures.delivered);
  EXPECT_EQ(first.figures.undone, second.figures.undone);
}

TEST(ScriptedRun, ThatIsCutOffDiesOfThatAndNotOfTheNextDeathInItsScript) {
  const ScriptedRunResult whole = playScriptedRun({});
  uint64_t in_the_place_of_a_kill = 0;
  for (uint64_t number = 50; number < whole.changes; number += whole.changes / 20) {
    const ScriptedRunResult played = playScriptedRun(runAtPoint(PointMode::kPowerCut, number, 1));
    if (played.figures.deaths() == whole.figures.deaths() &&
        played.figures.powerCuts() == whole.figures.powerCuts() + 1)
      ++in_the_place_of_a_kill;
  }
  EXPECT_GT(in_the_place_of_a_kill, 0U);
}

TEST(ScriptedRun, LeavesToTheSeedWhatItsScriptLeavesOpen) {
  const ScriptedRunResult one = playScriptedRun({.seed = 1});
  const ScriptedRunResult other = playScriptedRun({.seed = 2});
  EXPECT_NE(one.figures.recorded, other.figures.recorded);
  EXPECT_THAT(other.texts, IsEmpty());
}

TEST(ScriptedRun, ThatIsCutOffInItsHealthyEndBeginsThatAgain) {
  const ScriptedRunResult whole = playScriptedRun({});
  const ScriptedRunResult late = playScriptedRun(runAtPoint(PointMode::kKill, whole.changes - 20, 1));
  EXPECT_THAT(late.texts, IsEmpty());
  EXPECT_EQ(late.figures.deaths(), whole.figures.deaths() + 1);
  EXPECT_GT(late.figures.recorded, whole.figures.recorded);
  EXPECT_EQ(late.figures.stored, 1U) << "all but a session's end went out after the cut";
}

/// Each mode is a test of its own, so that none takes long, under a sanitizer either.
class AFewCrashPoints : public ::testing::TestWithParam<PointMode> {};

TEST_P(AFewCrashPoints, LoseNothing) {
  const CrashPointResult result = tryCrashPoints({.modes = {GetParam()}, .stride = 390, .seed = 7, .workers = 2});
  EXPECT_THAT(result.texts, IsEmpty());
  EXPECT_THAT(result.complaints, IsEmpty());
  const bool is_rare = GetParam() == PointMode::kSyncError || GetParam() == PointMode::kSyncErrorForLonger;
  EXPECT_GE(result.tried_in_all, is_rare ? 1U : 5U);
  EXPECT_TRUE(result.figures.balances());
  EXPECT_GT(result.figures.delivered, 0U);
}

INSTANTIATE_TEST_SUITE_P(OfEachMode, AFewCrashPoints, ::testing::ValuesIn(kPointModes), [](const auto& mode) {
  std::string name = nameOf(mode.param);
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

TEST(CrashPoints, AreTheSameOnAnyNumberOfThreads) {
  const CrashPointOptions few{.modes = {PointMode::kPowerCut}, .stride = 500, .seed = 2, .workers = 2};
  CrashPointOptions alone = few;
  alone.workers = 1;
  EXPECT_EQ(figuresOf(tryCrashPoints(few)), figuresOf(tryCrashPoints(alone)));
}

TEST(CrashPoints, TellHowManyWerePlayed) {
  std::vector<uint64_t> played;
  uint64_t of_all = 0;
  tryCrashPoints({.modes = {PointMode::kSyncError}, .stride = 60}, [&](uint64_t now, uint64_t of) {
    played.push_back(now);
    of_all = of;
  });
  EXPECT_THAT(played, SizeIs(of_all));
  EXPECT_EQ(played.back(), of_all);
}

TEST(CrashPoints, HaveModesWithNames) {
  for (const PointMode mode : kPointModes)
    EXPECT_EQ(pointModeNamed(nameOf(mode)), mode);
  EXPECT_FALSE(pointModeNamed("earthquake").has_value());
}

// A proof that cannot fail is none: each of these has one thing wrong with it.
CrashPointResult triedWith(Sabotage sabotage, PointMode mode) {
  return tryCrashPoints({.modes = {mode}, .stride = 250, .seed = 11, .workers = 2, .sabotage = sabotage});
}

struct FoundOut {
  Sabotage sabotage;
  PointMode mode;
  std::vector<std::string> by;
};
std::ostream& operator<<(std::ostream& out, const FoundOut& found) {
  return out << nameOf(found.sabotage);
}

class BrokenScriptedRun : public ::testing::TestWithParam<FoundOut> {};

TEST_P(BrokenScriptedRun, IsFoundOut) {
  const CrashPointResult result = triedWith(GetParam().sabotage, GetParam().mode);
  for (const std::string& invariant : GetParam().by)
    EXPECT_GT(result.count(invariant), 0U) << invariant;
}

// Stores that do less than they say, and devices that go wrong otherwise.
INSTANTIATE_TEST_SUITE_P(
    ByEachChecker, BrokenScriptedRun,
    ::testing::Values(
        FoundOut{Sabotage::kSyncsNothing, PointMode::kPowerCut, {kNothingIsLost, kLedgerAgrees, kOneDevice}},
        FoundOut{Sabotage::kKeepsNothing, PointMode::kKill, {kNothingIsLost, kLedgerAgrees, kWishesAreKept}},
        FoundOut{Sabotage::kHoldsBack, PointMode::kKill, {kLedgerIsSound}},
        FoundOut{Sabotage::kForgetsTheLastSession, PointMode::kKill, {kNothingIsLost, kSentOnce}},
        FoundOut{Sabotage::kDropsAWrite, PointMode::kKill, {kNothingIsLost, kLinesAreKnown}},
        FoundOut{Sabotage::kGarblesTheFile, PointMode::kKill, {kNothingIsLost, kLinesAreKnown, kOneDevice}},
        FoundOut{Sabotage::kForgetsTheExcused, PointMode::kSyncError, {kLedgerAgrees}},
        FoundOut{Sabotage::kAsksForTheForgotten, PointMode::kSyncError, {kForgottenIsSilent}},
        FoundOut{Sabotage::kLetsOutWhatWaits, PointMode::kSyncError, {kForgottenIsSilent}},
        FoundOut{Sabotage::kIgnoresTheVersion, PointMode::kSyncError, {kNewerStoreStays, kAnswersAreTrue}},
        FoundOut{Sabotage::kLosesTheWishFile, PointMode::kSyncError, {kWishesAreKept}},
        FoundOut{Sabotage::kSaysItIsKept, PointMode::kSyncError, {kAnswersAreTrue, kNothingIsLost}},
        FoundOut{Sabotage::kKeepsNoMemory, PointMode::kSyncError, {kNothingIsLost}},
        FoundOut{Sabotage::kSyncsTooLate, PointMode::kKill, {kNothingIsLost, kSentOnce}},
        FoundOut{Sabotage::kTakesWhatIsTooLarge, PointMode::kSyncError, {kAnswersAreTrue}},
        FoundOut{Sabotage::kLosesTheNeighbours, PointMode::kSyncError, {kNothingIsLost}}),
    [](const auto& tested) {
      std::string name = nameOf(tested.param.sabotage);
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

TEST(BrokenStore, ThatHoldsTheLedgerBackUpsetsItAndLosesNothing) {
  const CrashPointResult result = triedWith(Sabotage::kHoldsBack, PointMode::kKill);
  EXPECT_EQ(result.count(kNothingIsLost), 0U);
  EXPECT_THAT(result.texts, Contains(HasSubstr("no longer in the store when it was opened")));
}

TEST(BrokenStore, IsNamedWithItsPoint) {
  const CrashPointResult result = triedWith(Sabotage::kSyncsNothing, PointMode::kPowerCut);
  EXPECT_LE(result.texts.size(), kMaxComplaintTexts);
  EXPECT_THAT(figuresOf(result), HasSubstr("! power "));
}

TEST(BrokenDevice, ThatForgetsEventsInTheHealthyEndLosesEachOfThem) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsAtTheEnd, PointMode::kDiskFull);
  EXPECT_EQ(result.count(kNothingIsLost), 2 * result.tried_in_all);
}

TEST(BrokenDevice, ThatForgetsWhatARuleMayLetGoDisagreesWithItsLedgerAlone) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsTheExcused, PointMode::kSyncError);
  EXPECT_THAT(result.complaints, ElementsAre(Pair(kLedgerAgrees, Gt(0U))));
  EXPECT_THAT(result.texts, Contains(HasSubstr("impressions: 1 are gone, and the ledger gave up 0")));
}

TEST(BrokenDevice, ThatAsksForTheScheduleOfAForgottenUserIsSeenAndNothingElse) {
  const CrashPointResult result = triedWith(Sabotage::kAsksForTheForgotten, PointMode::kSyncError);
  EXPECT_THAT(result.complaints, ElementsAre(Pair(kForgottenIsSilent, result.tried_in_all)));
}

TEST(BrokenDevice, ThatCallsKeptWhatIsNotTellsTheAppSo) {
  EXPECT_THAT(triedWith(Sabotage::kSaysItIsKept, PointMode::kSyncError).texts,
              Contains(HasSubstr("kept in the place of: kept in memory only")));
  EXPECT_THAT(triedWith(Sabotage::kTakesWhatIsTooLarge, PointMode::kSyncError).texts,
              Contains(HasSubstr("kept in the place of: refused: too large")));
}

TEST(BrokenDevice, ThatThrowsIsBrokenAndTheOtherRunsAreStillTried) {
  const CrashPointResult result = triedWith(Sabotage::kThrows, PointMode::kKill);
  EXPECT_GT(result.tried_in_all, 10U);
  EXPECT_THAT(result.complaints, ElementsAre(Pair(kBroken, result.tried_in_all)));
  EXPECT_THAT(result.texts, Each(AllOf(HasSubstr("kill "), HasSubstr("the run threw: it was to end badly"))));
  EXPECT_EQ(result.figures.recorded, 0U) << "what was recorded in such a run is in no account";
}

TEST(CrashPointFigures, NameEachInvariantAndHowOftenItComplained) {
  CrashPointResult result;
  result.complaints[kSentOnce] = 12;
  result.texts = {"kill 5: nothing is sent again that was accepted: x"};
  const std::string text = figuresOf(result);
  EXPECT_THAT(text, HasSubstr("  against \"nothing is sent again that was accepted\" 12\n"));
  EXPECT_THAT(text, HasSubstr("  against \"nothing is lost but by a rule\"   0\n"));
  EXPECT_THAT(text, HasSubstr("  ! kill 5: nothing is sent again that was accepted: x\n"));
}

TEST(CrashPointFigures, NameWhatWasGivenUpInTheWordsOfTheLedger) {
  CrashPointResult result;
  result.figures.given_up = 5;
  result.figures.given_up_by_rule[removalRuleOf(RecordKind::kImpressions, RemovalReason::kPlaceTaken).value()] = 2;
  result.figures.given_up_by_rule[removalRuleOf(RecordKind::kDemographics, RemovalReason::kReplaced).value()] = 3;
  EXPECT_THAT(figuresOf(result),
              HasSubstr("  given up by rule                          5\n"
                        "  of these impressions deleted by the answer to another batch, and their own was not "
                        "accepted 2\n"
                        "  of these demographics replaced by a newer value before they were delivered 3\n"
                        "  not kept yet when the process ended       0\n"));
}

}  // namespace
}  // namespace morvik::proofs
