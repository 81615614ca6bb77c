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
  EXPECT_THAT(result.complaints, IsEmpty());
  EXPECT_THAT(result.texts, IsEmpty());
  const proofs::RunFigures& figures = result.figures;
  EXPECT_GT(figures.newer_stores, result.tried_in_all);
  EXPECT_GT(figures.kept_in_memory, result.tried_in_all);
  EXPECT_GT(figures.slow_disks, result.tried_in_all / 2);
  EXPECT_GT(figures.too_large, result.tried_in_all);
  EXPECT_GT(figures.full_queues, result.tried_in_all / 2);
  EXPECT_EQ(figures.stored, result.tried_in_all) << "the end of the last session of each";
  EXPECT_TRUE(figures.balances());
  EXPECT_GE(figures.given_up, result.tried_in_all) << "the rules are at work in every run";
}

}  // namespace
}  // namespace morvik::simulation
