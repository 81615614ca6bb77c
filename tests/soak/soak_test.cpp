// A minute or two of one processor: a fixed set of seeds. New ones: tools/soak.
#include "proofs/scripts/soak.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

namespace morvik::simulation {
namespace {

using ::testing::Each;
using ::testing::Gt;

TEST(Soak, OfAFixedSetOfSeedsGivesNobodyReasonToComplain) {
  const proofs::SoakResult result = proofs::soak({.first_seed = 1, .runs = 4000, .workers = 2});
  std::cout << proofs::figuresOf(result);
  EXPECT_EQ(result.failed, 0U);
  EXPECT_EQ(result.figures.runs, 4000U);
  EXPECT_GT(result.figures.days, 8000);
  EXPECT_THAT(result.figures.ends, Each(Gt(1000U)));
  EXPECT_THAT(result.figures.disk_faults, Each(Gt(1000U)));
  EXPECT_THAT(result.figures.misbehaviours, Each(Gt(100U)));
  EXPECT_GT(result.figures.clock_jumps, 1000U);
  EXPECT_GT(result.figures.offline_phases, 1000U);
  EXPECT_GT(result.figures.newer_stores, 1000U);
  EXPECT_GT(result.figures.slow_disks, 1000U);
  EXPECT_GT(result.figures.too_large, 1000U);
  EXPECT_GT(result.figures.kept_in_memory, 1000U);
  EXPECT_GT(result.figures.full_queues, 100U);
}

}  // namespace
}  // namespace morvik::simulation
