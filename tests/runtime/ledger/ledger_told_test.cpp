#include "runtime/ledger/ledger_told.h"

#include <gtest/gtest.h>

namespace morvik::runtime {
namespace {

using kit::Array;
using Reason = LedgerReason;

TEST(LedgerTold, SaysWhyEachRecordGoesInTheOrderInWhichItWasTold) {
  LedgerTold told;
  told.removed(Array{1, 3}, Reason::kAnswered);
  told.removed(Array{2}, Reason::kKeptSession);
  EXPECT_EQ(told.reasonOf(1), Reason::kAnswered);
  EXPECT_EQ(told.reasonOf(2), Reason::kKeptSession);
  EXPECT_EQ(told.reasonOf(3), Reason::kAnswered);
  EXPECT_EQ(told.reasonOf(3), Reason::kUnexplained) << "it was told once";
  EXPECT_EQ(told.reasonOf(4), Reason::kUnexplained);
}

TEST(LedgerTold, IsUsedUpByTheChange) {
  LedgerTold told;
  told.added(2);
  told.removed(Array{1}, Reason::kAnswered);
  EXPECT_EQ(told.added(), 2U);
  told.clear();
  EXPECT_EQ(told.added(), 0U);
  EXPECT_EQ(told.reasonOf(1), Reason::kUnexplained);
}

TEST(LedgerTold, LetsTheNewestPartsOfAChangeStand) {
  LedgerTold told;
  told.removed(Array{1}, Reason::kTooLarge);
  told.removed(Array(), Reason::kTooLarge);
  for (size_t i = 0; i < LedgerTold::kMaxRemovals; ++i)
    told.removed(Array{1}, Reason::kAnswered);
  for (size_t i = 0; i < LedgerTold::kMaxRemovals; ++i)
    EXPECT_EQ(told.reasonOf(1), Reason::kAnswered);
  EXPECT_EQ(told.reasonOf(1), Reason::kUnexplained) << "the oldest went";
}

TEST(LedgerToldValues, SaysWhyTheValueThatWaitsGoes) {
  LedgerToldValues told;
  EXPECT_EQ(told.take(0, true), Reason::kUnexplained);
  EXPECT_EQ(told.take(0, false), Reason::kUnexplained);
  told.changes(0, Reason::kReplaced);
  told.changes(1, Reason::kTakenBack);
  told.changes(2, Reason::kAddedDuringUpload);
  EXPECT_EQ(told.take(0, false), Reason::kUnexplained);
  EXPECT_EQ(told.take(0, true), Reason::kReplaced);
  EXPECT_EQ(told.take(1, false), Reason::kTakenBack);
  EXPECT_EQ(told.take(2, false), Reason::kAddedDuringUpload);
  EXPECT_EQ(told.take(2, false), Reason::kUnexplained);
}

TEST(LedgerToldValues, CountsWhatSeveralThreadsTellOfOneValue) {
  LedgerToldValues told;
  told.changes(0, Reason::kReplaced);
  told.changes(0, Reason::kReplaced);
  EXPECT_EQ(told.take(0, true), Reason::kReplaced);
  EXPECT_EQ(told.take(0, true), Reason::kReplaced);
  EXPECT_EQ(told.take(0, true), Reason::kUnexplained);
}

}  // namespace
}  // namespace morvik::runtime
