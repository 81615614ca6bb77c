#include "proofs/scripts/soak.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace morvik::proofs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(Soak, IsTheSameOnAnyNumberOfThreads) {
  const SoakOptions alone{.first_seed = 3, .runs = 6, .days = 0.5, .workers = 1};
  SoakOptions several = alone;
  several.workers = 3;
  const SoakResult one = soak(alone);
  const SoakResult three = soak(several);
  EXPECT_EQ(one.hash, three.hash);
  EXPECT_EQ(figuresOf(one), figuresOf(three));
}

TEST(Soak, TellsHowManyAreLived) {
  std::vector<uint64_t> played;
  soak({.first_seed = 1, .runs = 3, .days = 0.1, .workers = 1}, [&played](uint64_t count, const SoakFailure& failure) {
    played.push_back(count);
    EXPECT_THAT(failure.complaints, IsEmpty());
  });
  EXPECT_THAT(played, ElementsAre(1, 2, 3));
}

TEST(Soak, BeginsNoMoreLivesThanItIsLet) {
  int asked = 0;
  const SoakResult result =
      soak({.first_seed = 1, .runs = 100, .days = 0.1, .workers = 1, .goes_on = [&asked] { return ++asked <= 2; }});
  EXPECT_EQ(result.figures.runs, 2U);
}

TEST(Soak, NamesEachSeedBeforeItsRun) {
  std::vector<uint64_t> seeds;
  SoakOptions options{.first_seed = 40, .runs = 3, .days = 0.01, .workers = 1};
  options.begins = [&seeds](uint64_t seed) { seeds.push_back(seed); };
  soak(options);
  EXPECT_THAT(seeds, ElementsAre(40, 41, 42));
}

TEST(Soak, KeepsTheFirstFailuresAloneAndCountsThemAll) {
  std::vector<uint64_t> told;
  SoakOptions options{.first_seed = 40, .runs = kMaxSoakFailures + 4, .days = 0.01, .workers = 2};
  options.sabotage = Sabotage::kSaysStrangeThings;
  const SoakResult result = soak(options, [&told](uint64_t, const SoakFailure& failure) {
    if (!failure.complaints.empty())
      told.push_back(failure.seed);
  });
  std::sort(told.begin(), told.end());
  ASSERT_GT(told.size(), kMaxSoakFailures);
  EXPECT_EQ(result.failed, told.size());
  std::vector<uint64_t> kept;
  for (const SoakFailure& failure : result.failures)
    kept.push_back(failure.seed);
  told.resize(kMaxSoakFailures);
  EXPECT_EQ(kept, told);
}

TEST(Soak, NamesTheSeedOfARunThatThrew) {
  SoakOptions options{.first_seed = 40, .runs = 3, .days = 0.01, .workers = 1};
  options.begins = [](uint64_t seed) {
    if (seed == 41)
      throw std::runtime_error("no more runs");
  };
  EXPECT_THAT([&] { soak(options); },
              ::testing::ThrowsMessage<std::runtime_error>("the run with seed 41 threw: no more runs"));
}

TEST(Soak, PrintsItsFiguresAndTheSeedsOfItsFailures) {
  SoakResult result;
  result.figures.runs = 12;
  result.failed = 1;
  result.failures = {{.seed = 77, .complaints = {"a checker: what it saw"}}};
  const std::string text = figuresOf(result);
  EXPECT_THAT(text, HasSubstr("  runs                                      12\n"));
  EXPECT_THAT(text, HasSubstr("  ! seed 77: a checker: what it saw\n"));
}

}  // namespace
}  // namespace morvik::proofs
