#include "runtime/ledger/ledger_moments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "tests/runtime/ledger/book_rig.h"

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Kind = LedgerKind;
using Moment = LedgerMoments::Moment;

MATCHER_P2(IsLeft, waiting, given_up, "") {
  return arg.waiting == static_cast<uint64_t>(waiting) && arg.given_up == static_cast<uint64_t>(given_up);
}

// ------------------------------------------------------------------------------------------------------- by themselves

TEST(LedgerMoments, FollowTheirPlacesThroughAListThatLosesAnywhere) {
  LedgerMoments moments;
  std::vector<Moment> all;
  for (size_t place = 0; place <= 10; ++place)
    all.push_back(moments.begin(place, 0));
  moments.listShrank(Kind::kActivities, {.removed = {{1, 2}, {5, 1}, {8, 2}}, .added = 3});
  const std::vector<int> left = {0, 1, 1, 1, 2, 3, 3, 4, 5, 5, 5};
  for (size_t place = 0; place <= 10; ++place)
    EXPECT_THAT(moments.left(all[place]), IsLeft(left[place], 0)) << place;
}

TEST(LedgerMoments, TellTheFirstAfterARecord) {
  LedgerMoments moments;
  EXPECT_EQ(moments.firstAfter(Kind::kActivities, 0), 1U) << "the one that comes";
  const Moment first = moments.begin(2, 0);
  const Moment second = moments.begin(2, 1);
  const Moment third = moments.begin(4, 1);
  EXPECT_EQ(moments.firstAfter(Kind::kActivities, 1), first);
  EXPECT_EQ(moments.firstAfter(Kind::kActivities, 2), third);
  EXPECT_EQ(moments.firstAfter(Kind::kActivities, 4), third + 1);
  EXPECT_EQ(moments.firstAfter(Kind::kImpressions, 0), second);
  moments.forget(first);
  EXPECT_EQ(moments.firstAfter(Kind::kActivities, 1), second);
  EXPECT_THAT(moments.left(first), IsLeft(0, 0)) << "it was forgotten";
}

TEST(LedgerMoments, CountWhatIsUnderWayForLaterOnesToo) {
  LedgerMoments moments;
  const Moment before = moments.begin(0, 0);
  moments.wentUnderWay(Kind::kImpressions, before + 1, 2);
  const Moment after = moments.begin(0, 0);
  EXPECT_EQ(moments.underWay(), 2U);
  EXPECT_THAT(moments.left(before), IsLeft(0, 0));
  EXPECT_THAT(moments.left(after), IsLeft(2, 0));
  moments.wasSettled(Kind::kImpressions, before + 1, 2, true);
  EXPECT_EQ(moments.underWay(), 0U);
  EXPECT_THAT(moments.left(before), IsLeft(0, 0));
  EXPECT_THAT(moments.left(after), IsLeft(0, 2));
}

TEST(LedgerMoments, CareForActivitiesAndImpressionsAlone) {
  LedgerMoments moments;
  const Moment moment = moments.begin(1, 1);
  moments.wentUnderWay(Kind::kCommerceClicks, 0, 1);
  moments.wasLost(Kind::kDemographics, 0, 1);
  moments.listRecovered(Kind::kCrashReports, 5);
  EXPECT_THAT(moments.left(moment), IsLeft(2, 0));
  EXPECT_EQ(moments.underWay(), 0U);
}

// --------------------------------------------------------------------------------------------------------- in the book

class LedgerMomentsOfABook : public ::testing::Test, protected BookRig {
 protected:
  ~LedgerMomentsOfABook() override { EXPECT_TRUE(book->read().balances()); }
  void impression(int key) { append(kImpressions, Dictionary{{"campaignKey", key}}); }
};

TEST_F(LedgerMomentsOfABook, KnowWhatWasRecordedBefore) {
  record("a");
  impression(1);
  const Moment moment = book->momentNow();
  record("b");
  impression(2);
  EXPECT_THAT(book->left(moment), IsLeft(2, 0));
  EXPECT_THAT(book->left(book->momentNow()), IsLeft(4, 0));
}

TEST_F(LedgerMomentsOfABook, AreDoneWithWhatItsBatchDelivered) {
  record("a");
  impression(1);
  const kit::LedgerTicket batch = sendBatch({"a"});
  const Moment moment = book->momentNow();
  record("b");
  end(batch, kYes, [&] {
    trim({"a"});
    EXPECT_THAT(book->left(moment), IsLeft(0, 0)) << "within the handler";
  });
  EXPECT_THAT(book->left(moment), IsLeft(0, 0));
}

TEST_F(LedgerMomentsOfABook, WaitForTheBatchOfWhatAnotherAnswerTook) {
  record("a");
  const kit::LedgerTicket first = sendBatch({"a"});
  record("b");
  impression(1);
  const kit::LedgerTicket second = sendBatch({"a", "b"});
  const Moment moment = book->momentNow();
  end(first, kYes, [this] { trim({"a", "b"}, LedgerReason::kPlaceTaken); });
  EXPECT_THAT(book->left(moment), IsLeft(2, 0));
  EXPECT_THAT(book->left(book->momentNow()), IsLeft(2, 0)) << "of a later moment, too";
  EXPECT_EQ(book->moments()->underWay(), 2U);
  end(second, kYes, [&] { EXPECT_THAT(book->left(moment), IsLeft(0, 0)) << "within the handler"; });
  EXPECT_THAT(book->left(moment), IsLeft(0, 0));
}

TEST_F(LedgerMomentsOfABook, MissWhatAnotherAnswerTookAndItsOwnDidNotAccept) {
  record("a");
  const kit::LedgerTicket first = sendBatch({"a"});
  record("b");
  impression(1);
  const kit::LedgerTicket second = sendBatch({"a", "b"});
  const Moment moment = book->momentNow();
  end(first, kYes, [this] { trim({"a", "b"}, LedgerReason::kPlaceTaken); });
  end(second, std::nullopt, [&] { EXPECT_THAT(book->left(moment), IsLeft(0, 2)) << "within the handler"; });
  EXPECT_THAT(book->left(moment), IsLeft(0, 2));
  EXPECT_THAT(book->left(book->momentNow()), IsLeft(0, 0)) << "before it nothing was given up";
}

TEST_F(LedgerMomentsOfABook, MissAnImpressionThatABatchDidNotCarry) {
  record("a");
  const Moment before = book->momentNow();
  const kit::LedgerTicket batch = sendBatch({"a"});
  impression(1);
  const Moment after = book->momentNow();
  end(batch, kYes, [this] { trim({"a"}); });
  EXPECT_THAT(book->left(before), IsLeft(0, 0));
  EXPECT_THAT(book->left(after), IsLeft(0, 1));
}

TEST_F(LedgerMomentsOfABook, DoNotMissTheEndOfASessionThatWentOn) {
  record("a");
  record("b", "end");
  const kit::LedgerTicket carrying = sendBatch({"a"});
  const Moment moment = book->momentNow();
  end(carrying, kYes, [this] {
    trim({"a"});
    trim({"b"}, LedgerReason::kKeptSession);
  });
  EXPECT_THAT(book->left(moment), IsLeft(0, 0));
  EXPECT_EQ(of("activities").givenUp(), 1U);
}

TEST_F(LedgerMomentsOfABook, MissWhatIsWrittenOverByHand) {
  record("a");
  record("b");
  const Moment moment = book->momentNow();
  book->set(kActivities, Array(), LedgerWriter::kHand);
  EXPECT_THAT(book->left(moment), IsLeft(0, 2));
}

TEST_F(LedgerMomentsOfABook, WaitForAllThatRecoversBeforeWhatTheyKnow) {
  record("a");
  const Moment moment = book->momentNow();
  record("b");
  kit::MutableArray found{Value(Array{Dictionary{{"activityEventID", "old"}}})};
  for (const Value& known : store.get(kActivities).array())
    found.append(known);
  store.set(kActivities, Value(std::move(found)));
  EXPECT_GE(book->left(moment).waiting, 2U) << "the found one and its own";
  const kit::LedgerTicket batch = sendBatch({"old", "a", "b"});
  end(batch, kYes, [this] { trim({"old", "a", "b"}); });
  EXPECT_THAT(book->left(moment), IsLeft(0, 0));
}

TEST_F(LedgerMomentsOfABook, MayBeForgottenAfterTheBook) {
  const auto moments = book->moments();
  const Moment moment = book->momentNow();
  book.reset();
  moments->forget(moment);
  EXPECT_THAT(moments->left(moment), IsLeft(0, 0));
  startAgain();
}

}  // namespace
}  // namespace morvik::runtime
