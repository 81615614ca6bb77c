// Minutes of one processor: every fifth point. All of them: tools/crashpoints --all.
#include "proofs/scripts/crash_points.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

namespace morvik::simulation {
namespace {

using ::testing::Each;
using ::testing::Gt;
using ::testing::IsEmpty;

TEST(CrashPoints, NothingIsLostAtAnyOfThem) {
  const proofs::CrashPointResult result = proofs::tryCrashPoints({.stride = 5, .workers = 2});
  std::cout << proofs::figuresOf(result);
  EXPECT_THAT(result.tried, Each(Gt(0U)));
  EXPECT_GT(result.tried_in_all, 3000U);
  EXPECT_EQ(result.count(proofs::Complaint::kUnreadableStore), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kLostAtKill), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kLostAtPowerCut), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kLostOtherwise), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kSentTwice), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kUnbalancedAccount), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kForgottenWish), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kRequestOfForgotten), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kUnsoundLedger), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kAnotherDevice), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kTouchedNewerStore), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kWrongAnswer), 0U);
  EXPECT_EQ(result.count(proofs::Complaint::kBroken), 0U);
  EXPECT_THAT(result.texts, IsEmpty());
  EXPECT_THAT(result.occasions, Each(Gt(result.tried_in_all))) << "newer stores, full queues and all the others";
  EXPECT_EQ(result.totals.stored, 0U);
  EXPECT_TRUE(result.totals.balances());
  EXPECT_GE(result.totals.givenUp(), result.tried_in_all) << "the rules are at work in every life";
}

}  // namespace
}  // namespace morvik::simulation
