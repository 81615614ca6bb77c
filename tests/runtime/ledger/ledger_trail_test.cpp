// What the book writes of its exchanges, and explains from that.
#include "runtime/ledger/ledger_trail.h"

#include <gtest/gtest.h>

#include "tests/runtime/ledger/book_rig.h"

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using State = Explanation::State;

constexpr const char* kId = "018f3406-9e00-7abc-8def-0123456789ab";
constexpr const char* kOther = "018f3406-9e00-7abc-8def-0123456789ac";
constexpr const char* kForgotten = "MorvikCoreUserInfo_isGDPRForgetMe";
constexpr const char* kTrail = "host.exchanges";

class LedgerTrailTest : public ::testing::Test, protected BookRig {
 protected:
  Explanation explained() { return book->explain(kId); }
  void fail(kit::LedgerTicket ticket, const char* error) {
    book->answered(ticket, kit::LedgerAnswer::kNotAccepted);
    book->ended(ticket, {.status_code = 503, .error = error});
  }
};

TEST_F(LedgerTrailTest, CostsNothingWhenRecording) {
  record(kId);
  record(kOther);
  EXPECT_TRUE(store.get(kTrail).isAbsent());
  EXPECT_EQ(explained().state, State::kPending);
}

TEST_F(LedgerTrailTest, TellsEachRequestAndItsAnswer) {
  record(kId);
  fail(sendBatch({kId}), "Service Unavailable");
  const kit::LedgerTicket held = sendBatch({kId});
  book->ended(held, {.was_sent = false});
  const kit::LedgerTicket accepted = sendBatch({kId, kOther});
  EXPECT_EQ(explained().exchanges.at(2).outcome, "under way");
  book->departed(accepted);
  end(accepted, kYes, [this] { trim({kId}); });
  const Explanation explanation = explained();
  EXPECT_EQ(explanation.state, State::kDelivered);
  ASSERT_EQ(explanation.exchanges.size(), 3U);
  EXPECT_EQ(explanation.exchanges[0].outcome, "failed");
  EXPECT_EQ(explanation.exchanges[0].http_status, 503);
  EXPECT_EQ(explanation.exchanges[0].error, "Service Unavailable");
  EXPECT_FALSE(explanation.exchanges[0].left) << "nobody said that it left";
  EXPECT_EQ(explanation.exchanges[1].outcome, "not sent");
  EXPECT_EQ(explanation.exchanges[2].outcome, "accepted");
  EXPECT_TRUE(explanation.exchanges[2].left);
  EXPECT_TRUE(explanation.exchanges[2].ended);
}

TEST_F(LedgerTrailTest, TellsWhyAnEventWasGivenUp) {
  record(kId);
  removeAll(kActivities, LedgerReason::kTooLarge);
  EXPECT_EQ(explained().state, State::kGivenUp);
  EXPECT_EQ(explained().reason, "over 1 MiB, and too large for the service when sent alone");
}

TEST_F(LedgerTrailTest, OutlivesItsProcessWhoseOpenRequestHasNoKnownAnswer) {
  record(kId);
  sendBatch({kId});
  startAgain();
  EXPECT_EQ(explained().state, State::kPending);
  EXPECT_EQ(explained().exchanges.at(0).outcome, "answer unknown");
  const Value trail = store.get(kTrail);
  startAgain();
  EXPECT_TRUE(store.get(kTrail).identicalTo(trail)) << "it is closed once";
}

TEST_F(LedgerTrailTest, CallsARequestAbandonedThatAStopLeftOpen) {
  record(kId);
  const kit::LedgerTicket ticket = sendBatch({kId});
  book->writeAtTheEnd();
  book->ended(ticket, {.status_code = 200});
  EXPECT_EQ(explained().exchanges.at(0).outcome, "abandoned");
  EXPECT_FALSE(explained().exchanges.at(0).ended);
  startAgain();
  EXPECT_EQ(explained().exchanges.at(0).outcome, "abandoned");
}

TEST_F(LedgerTrailTest, LosesNothingElseToADamagedOne) {
  record(kId);
  store.set(kTrail, Array{7, Dictionary{{"n", "x"}}});
  startAgain();
  EXPECT_TRUE(store.get(kTrail).array().empty());
  EXPECT_TRUE(book->read().isSound());
  end(sendBatch({kId}), kYes, [this] { trim({kId}); });
  EXPECT_EQ(explained().state, State::kDelivered);
  store.set(kTrail, "no list");
  EXPECT_EQ(explained().state, State::kUnknown);
  startAgain();
  EXPECT_TRUE(store.get(kTrail).isAbsent());
}

TEST_F(LedgerTrailTest, NumbersNoTwoBatchesAlikeWhateverTheStoredNumbers) {
  store.set(kTrail, Array{trailBegin(kMaxTrailNumber - 5, clock.now(), Array{kOther})});
  startAgain();
  end(sendBatch({kId}), kYes);
  end(sendBatch({kId}), std::nullopt);
  ASSERT_EQ(explained().exchanges.size(), 2U);
  EXPECT_EQ(explained().exchanges[0].outcome, "accepted");
  EXPECT_EQ(explained().exchanges[1].outcome, "not accepted");
}

TEST_F(LedgerTrailTest, KeepsTheLatestBatches) {
  end(sendBatch({kId}), kYes);
  for (size_t batch = 1; batch < kMaxTrailExchanges; ++batch)
    end(sendBatch({kOther}), kYes);
  EXPECT_EQ(explained().state, State::kDelivered);
  end(sendBatch({kOther}), kYes);
  EXPECT_EQ(explained().state, State::kUnknown);
  EXPECT_EQ(extentOf(store.get(kTrail), clock.now()).exchanges, kMaxTrailExchanges);
}

TEST_F(LedgerTrailTest, KeepsNothingOnceTheUserAskedToBeForgotten) {
  record(kId);
  end(sendBatch({kId}), kYes, [this] { trim({kId}); });
  const kit::LedgerTicket under_way = sendBatch({kOther});
  EXPECT_FALSE(store.get(kTrail).array().empty());
  book->set(kForgotten, true, LedgerWriter::kKit);
  EXPECT_TRUE(store.get(kTrail).isAbsent()) << "with the wish itself";
  fail(under_way, "Service Unavailable");
  sendBatch({kOther});
  book->writeAtTheEnd();
  EXPECT_TRUE(store.get(kTrail).isAbsent());
  EXPECT_EQ(explained().state, State::kUnknown);
  book->set(kForgotten, false, LedgerWriter::kKit);
  end(sendBatch({kOther}), kYes);
  EXPECT_EQ(book->explain(kOther).state, State::kDelivered);
}

TEST_F(LedgerTrailTest, GoesAtTheNextStartIfTheWishCameWithoutTheBook) {
  end(sendBatch({kId}), kYes);
  store.set(kForgotten, true);
  startAgain();
  EXPECT_TRUE(store.get(kTrail).isAbsent());
}

}  // namespace
}  // namespace morvik::runtime
