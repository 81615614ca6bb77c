#include "proofs/scripts/random_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

namespace morvik::proofs {
namespace {

using ::testing::Each;
using ::testing::Gt;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint64_t kSeedsToAnyOccasion = 60;

TEST(RandomRun, GivesNobodyReasonToComplain) {
  RunFigures figures;
  for (uint64_t seed = 1; seed <= 12; ++seed) {
    const RandomRunResult played = playRandomRun({.seed = seed, .days = 1});
    EXPECT_THAT(played.complaints, IsEmpty()) << "seed " << seed;
    figures += played.figures;
  }
  EXPECT_EQ(figures.runs, 12U);
  EXPECT_GE(figures.days, 12);
  EXPECT_GT(figures.steps, 100U);
  EXPECT_GT(figures.processes, 20U);
  EXPECT_THAT(figures.ends, Each(Gt(0U)));
  EXPECT_THAT(figures.disk_faults, Each(Gt(0U)));
  EXPECT_GT(figures.delivered, 0U);
  EXPECT_EQ(figures.recorded, figures.delivered + figures.stored + figures.given_up + figures.undone);
}

TEST(RandomRun, HoldsTheKitToItsOwnNumberOfFailuresOfAClick) {
  // In these a click is refused or lost until it is given up.
  for (const uint64_t seed : {16U, 30U, 48U, 60U})
    EXPECT_THAT(playRandomRun({.seed = seed, .days = 2}).complaints, IsEmpty()) << "seed " << seed;
}

TEST(RandomRun, IsTheSameToTheByteForTheSameSeed) {
  const RandomRunResult first = playRandomRun({.seed = 7, .days = 1});
  const RandomRunResult second = playRandomRun({.seed = 7, .days = 1});
  EXPECT_EQ(first.hash, second.hash);
  EXPECT_EQ(first.figures.log_lines, second.figures.log_lines);
  EXPECT_EQ(first.figures.disk_changes, second.figures.disk_changes);
  EXPECT_NE(first.hash, playRandomRun({.seed = 8, .days = 1}).hash);
}

TEST(RandomRun, IsTheSameWhetherItIsTracedOrNot) {
  std::vector<std::string> lines;
  RandomRunOptions traced{.seed = 9, .days = 0.5};
  traced.trace = [&lines](std::string_view line) { lines.emplace_back(line); };
  EXPECT_EQ(playRandomRun(traced).hash, playRandomRun({.seed = 9, .days = 0.5}).hash);
  EXPECT_THAT(lines, SizeIs(Gt(100U)));
}

// -------------------------------------------------------------------------------- what is made wrong is found out

TEST(RandomRun, KeepsNoMoreComplaintsThanAnybodyReads) {
  size_t complained = 0;
  RandomRunOptions options{.seed = 0, .sabotage = Sabotage::kForgetsToDelete};
  options.trace = [&complained](std::string_view line) {
    if (line.find(" ! ") != std::string_view::npos)
      ++complained;
  };
  RandomRunResult played;
  while (complained <= kMaxRunComplaints && options.seed < kSeedsToAnyOccasion) {
    complained = 0;
    ++options.seed;
    played = playRandomRun(options);
    EXPECT_EQ(played.complaints.size(), std::min(complained, kMaxRunComplaints));
  }
  EXPECT_GT(complained, kMaxRunComplaints);
}

struct Found {
  Sabotage sabotage;
  const char* by;
};
std::ostream& operator<<(std::ostream& out, const Found& found) {
  return out << '"' << found.by << '"';
}

class BrokenRun : public ::testing::TestWithParam<Found> {};

TEST_P(BrokenRun, IsFoundOut) {
  std::vector<std::string> others;
  for (uint64_t seed = 1; seed <= kSeedsToAnyOccasion; ++seed) {
    const RandomRunResult played = playRandomRun({.seed = seed, .days = 2, .sabotage = GetParam().sabotage});
    const bool is_found = std::any_of(played.complaints.begin(), played.complaints.end(),
                                      [](const std::string& each) { return each.starts_with(GetParam().by); });
    if (is_found)
      return;
    others.insert(others.end(), played.complaints.begin(), played.complaints.end());
  }
  ADD_FAILURE() << "nobody noticed; complaints of others: " << ::testing::PrintToString(others);
}

INSTANTIATE_TEST_SUITE_P(
    ByEachChecker, BrokenRun,
    ::testing::Values(
        Found{Sabotage::kForgetsAnActivity, kLedgerIsSound}, Found{Sabotage::kForgetsAnActivity, kNothingIsLost},
        Found{Sabotage::kForgetsTheAccount, kLedgerAgrees}, Found{Sabotage::kSendsBatchesTwice, kOneBatchPerSlot},
        Found{Sabotage::kStoresClicksTwice, kOneClickPerKey}, Found{Sabotage::kStoresStrangers, kStoreHoldsEachOnce},
        Found{Sabotage::kCountsTooFar, kCountsInBounds}, Found{Sabotage::kRetriesTwice, kRetriesInBounds},
        Found{Sabotage::kLosesHandlers, kRequestsReturn}, Found{Sabotage::kLosesTheWish, kWishesAreKept},
        Found{Sabotage::kLosesTheWish, kForgottenIsSilent}, Found{Sabotage::kLosesTheWishFile, kWishesAreKept},
        Found{Sabotage::kIgnoresTheVersion, kNewerStoreStays}, Found{Sabotage::kSaysItIsKept, kAnswersAreTrue},
        Found{Sabotage::kSyncsTooLate, kNothingIsLost}, Found{Sabotage::kLetsOutWhatWaits, kForgottenIsSilent},
        Found{Sabotage::kForgetsToDelete, kSentOnce}, Found{Sabotage::kSpoilsDemographics, kAllGoesOut},
        Found{Sabotage::kSaysStrangeThings, kLinesAreKnown}, Found{Sabotage::kIsAnotherDevice, kOneDevice}));

}  // namespace
}  // namespace morvik::proofs
