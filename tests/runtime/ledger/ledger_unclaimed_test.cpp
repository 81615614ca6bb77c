#include "runtime/ledger/ledger_unclaimed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

MATCHER_P3(Is, kind, reason, count, "") {
  return arg.kind == kind && arg.reason == reason && arg.count == static_cast<uint64_t>(count);
}

TEST(LedgerUnclaimed, AreSettledByTheFirstAnswerThatAcceptsThem) {
  LedgerUnclaimed unclaimed;
  unclaimed.add(Kind::kActivities, Reason::kPlaceTaken, 0, {1, 2});
  EXPECT_THAT(unclaimed.settle(2, true), ElementsAre(Is(Kind::kActivities, Reason::kPlaceTaken, 1)));
  EXPECT_THAT(unclaimed.settle(1, true), IsEmpty());
}

TEST(LedgerUnclaimed, AreSettledByTheLastThatFails) {
  LedgerUnclaimed unclaimed;
  unclaimed.add(Kind::kActivities, Reason::kPlaceTaken, 0, {1, 2});
  EXPECT_THAT(unclaimed.settle(3, true), IsEmpty()) << "it carried none of them";
  EXPECT_THAT(unclaimed.settle(1, false), IsEmpty());
  EXPECT_THAT(unclaimed.settle(2, false), ElementsAre(Is(Kind::kActivities, Reason::kPlaceTaken, 1)));
}

TEST(LedgerUnclaimed, ComeTogetherOnlyWhenTheyAreAlike) {
  LedgerUnclaimed unclaimed;
  unclaimed.add(Kind::kActivities, Reason::kPlaceTaken, 0, {1});
  unclaimed.add(Kind::kActivities, Reason::kPlaceTaken, 0, {1});
  unclaimed.add(Kind::kActivities, Reason::kByHand, 0, {1});
  unclaimed.add(Kind::kImpressions, Reason::kByHand, 0, {1});
  unclaimed.add(Kind::kImpressions, Reason::kByHand, 0, {1, 2});
  EXPECT_THAT(unclaimed.settle(1, false),
              ElementsAre(Is(Kind::kActivities, Reason::kPlaceTaken, 2), Is(Kind::kActivities, Reason::kByHand, 1),
                          Is(Kind::kImpressions, Reason::kByHand, 1)));
  EXPECT_THAT(unclaimed.settle(2, false), ElementsAre(Is(Kind::kImpressions, Reason::kByHand, 1)));
}

}  // namespace
}  // namespace morvik::runtime
