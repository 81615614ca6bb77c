#include "simulation/crash_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik::simulation {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

TEST(BusyLife, DeliversEverythingWhenNothingCutsIt) {
  const BusyLifeResult lived = liveBusyLife({});
  EXPECT_THAT(lived.texts, IsEmpty());
  EXPECT_TRUE(lived.account.balances());
  EXPECT_EQ(lived.account.delivered, lived.account.recorded);
  EXPECT_GT(lived.account.recorded, 100U);
  EXPECT_GT(lived.changes, 2000U);
  EXPECT_GT(lived.sent_twice, 0U) << "answers are lost on the way";
  EXPECT_GT(lived.recorded_meanwhile, 5U) << "the log is written back while the app goes on";
  EXPECT_EQ(lived.installs, 1U);
  EXPECT_THAT(lived.fault_points, Each(Gt(100U)));
}

TEST(BusyLife, IsTheSameEveryTime) {
  const BusyLifeOptions options = lifeAtPoint(PointMode::kScatteredPowerCut, 700, 3);
  const BusyLifeResult first = liveBusyLife(options);
  const BusyLifeResult second = liveBusyLife(options);
  EXPECT_EQ(first.changes, second.changes);
  EXPECT_EQ(first.fault_points, second.fault_points);
  EXPECT_EQ(first.account.delivered, second.account.delivered);
  EXPECT_EQ(first.account.not_kept_yet, second.account.not_kept_yet);
}

TEST(CrashPoints, LoseNothingAtAFew) {
  const CrashPointResult result = tryCrashPoints({.stride = 390, .seed = 7, .workers = 2});
  EXPECT_THAT(result.texts, IsEmpty());
  EXPECT_THAT(result.complaints, Each(0U));
  EXPECT_GT(result.tried_in_all, 30U);
  EXPECT_TRUE(result.account.balances());
  EXPECT_GT(result.account.delivered, 0U);
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
class BrokenStore : public ::testing::Test {
 protected:
  static CrashPointResult triedWith(Sabotage sabotage, PointMode mode) {
    return tryCrashPoints({.modes = {mode}, .stride = 250, .seed = 11, .workers = 2, .sabotage = sabotage});
  }
};

TEST_F(BrokenStore, ThatSyncsNothingLosesWhatWasRecordedLongBeforeThePowerCut) {
  const CrashPointResult result = triedWith(Sabotage::kSyncsNothing, PointMode::kPowerCut);
  EXPECT_GT(result.count(Complaint::kLostAtPowerCut), 0U);
  EXPECT_GT(result.count(Complaint::kUnbalancedAccount), 0U);
  EXPECT_GT(result.count(Complaint::kAnotherDevice), 0U);
  EXPECT_THAT(result.texts, Not(IsEmpty()));
  EXPECT_LE(result.texts.size(), kMaxComplaintTexts);
  EXPECT_THAT(figuresOf(result), HasSubstr("! power "));
}

TEST_F(BrokenStore, ThatKeepsNothingLosesWhatWasSynchronizedBeforeTheKill) {
  const CrashPointResult result = triedWith(Sabotage::kKeepsNothing, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kLostAtKill), 0U);
  EXPECT_GT(result.count(Complaint::kUnbalancedAccount), 0U);
  EXPECT_GT(result.count(Complaint::kForgottenWish), 0U);
  EXPECT_GT(result.count(Complaint::kUnsoundLedger), 0U) << "with each process its counts are gone";
}

TEST_F(BrokenStore, ThatWritesTheLedgerAfterWhatItCountsUpsetsIt) {
  const CrashPointResult result = triedWith(Sabotage::kHoldsBack, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kUnsoundLedger), 0U);
  EXPECT_EQ(result.count(Complaint::kLostAtKill), 0U);
  EXPECT_THAT(result.texts, Contains(HasSubstr("no longer in the store when it was opened")));
}

TEST_F(BrokenStore, ThatForgetsWhatWasTrimmedSendsItTwice) {
  const CrashPointResult result = triedWith(Sabotage::kForgetsTheLastSession, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kSentTwice), 0U);
}

TEST_F(BrokenStore, ThatDropsAWriteIsUnreadableOrLosesRecords) {
  const CrashPointResult result = triedWith(Sabotage::kDropsAWrite, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kLostAtKill) + result.count(Complaint::kUnreadableStore), 0U);
}

TEST_F(BrokenStore, WhoseFileIsGarbledIsUnreadable) {
  const CrashPointResult result = triedWith(Sabotage::kGarblesTheFile, PointMode::kKill);
  EXPECT_GT(result.count(Complaint::kUnreadableStore), 0U);
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
  result.account.given_up[host::ledgerRuleOf(host::LedgerKind::kImpressions, host::LedgerReason::kPlaceTaken)] = 2;
  result.account.given_up[host::ledgerRuleOf(host::LedgerKind::kDemographics, host::LedgerReason::kReplaced)] = 3;
  const std::string text = figuresOf(result);
  EXPECT_THAT(text, HasSubstr("  given up by rule                          5\n"
                              "  of these impressions deleted by the answer to another batch, and their own was not "
                              "accepted 2\n"
                              "  of these demographics replaced by a newer value before they were delivered 3\n"
                              "  not kept yet when the cut came            0\n"));
}

}  // namespace
}  // namespace morvik::simulation
