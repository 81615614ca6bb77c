#include "runtime/ledger/ledger_removal_reasons.h"

#include <gtest/gtest.h>

#include <string>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Kind = LedgerKind;
using Reason = LedgerReason;

Value activity(const char* id, const char* name = "look") {
  return Dictionary{{"activityEventID", id}, {"activityName", name}};
}
Value click(int64_t key) {
  return Dictionary{{"conversion_key", key}};
}

class LedgerRemovalReasons : public ::testing::Test {
 protected:
  /// By the handler of an exchange of that kind, answered "yes" or "no".
  LedgerDeparture by(Kind kind, bool is_accepted) {
    LedgerExchange exchange;
    exchange.endpoint = ledgerEndpointOf(kind);
    exchanges.handlerBegins(exchanges.begin(std::move(exchange)));
    return {.kind = kind, .writer = LedgerWriter::kKit, .ended = exchanges.running(), .is_accepted = is_accepted};
  }
  static LedgerDeparture byNoHandler(Kind kind, bool is_in_background = false) {
    return {.kind = kind, .writer = LedgerWriter::kKit, .is_in_background = is_in_background};
  }
  Reason of(const LedgerDeparture& departure, const Value& record, bool is_carried = false) {
    return removalReason(departure, record, is_carried, traces, exchanges);
  }

  LedgerTraces traces;
  LedgerExchanges exchanges;
};

TEST_F(LedgerRemovalReasons, ExplainsNothingThatGoesWithoutAnAnswer) {
  for (size_t i = 0; i < kLedgerKinds; ++i) {
    const auto kind = static_cast<Kind>(i);
    if (kind == Kind::kDemographics)
      continue;
    EXPECT_EQ(of(byNoHandler(kind), activity("a")), Reason::kUnexplained);
    EXPECT_EQ(of(by(kind, false), activity("a"), true), Reason::kUnexplained);
  }
}

TEST_F(LedgerRemovalReasons, NamesWhatIsRemovedByHandAsSuch) {
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    const LedgerDeparture by_hand{.kind = static_cast<Kind>(kind), .writer = LedgerWriter::kHand};
    EXPECT_EQ(of(by_hand, activity("a"), true), Reason::kByHand);
    EXPECT_EQ(valueRemovalReason(by_hand, true), Reason::kByHand);
  }
}

TEST_F(LedgerRemovalReasons, KnowsTheEndOfAKeptSessionThatABatchLeavesOut) {
  const LedgerDeparture accepted = by(Kind::kActivities, true);
  exchanges.running()->left_out_id = "the end";
  EXPECT_EQ(of(accepted, activity("the end", "end")), Reason::kKeptSession);
}

TEST_F(LedgerRemovalReasons, KnowsTheEndOfAKeptSessionThatIsTrimmedWithoutABatch) {
  traces.last_sent_key = "the end";
  EXPECT_EQ(of(byNoHandler(Kind::kActivities), activity("the end", "end")), Reason::kKeptSession);
  EXPECT_EQ(of(byNoHandler(Kind::kActivities), activity("the end", "start")), Reason::kUnexplained);
  EXPECT_EQ(of(byNoHandler(Kind::kActivities), activity("another", "end")), Reason::kUnexplained);
}

TEST_F(LedgerRemovalReasons, KnowsAnActivityWhoseBatchLostItsPlace) {
  LedgerExchange unsent;
  unsent.activities = BatchIds(Array{Dictionary{{"event_id", "unsent"}}});
  exchanges.wasSealed("sealed", std::move(unsent));
  const LedgerDeparture accepted = by(Kind::kActivities, true);
  EXPECT_EQ(of(accepted, activity("carried"), true), Reason::kPlaceTaken);
  EXPECT_EQ(of(accepted, activity("unsent")), Reason::kPlaceTaken);
  EXPECT_EQ(of(accepted, activity("neither")), Reason::kUnexplained);
}

TEST_F(LedgerRemovalReasons, KnowsAnActivityThatIsTooLargeForTheService) {
  const LedgerDeparture refused = by(Kind::kActivities, false);
  exchanges.running()->activities = BatchIds(Array{Dictionary{{"event_id", "large"}}});
  EXPECT_EQ(of(refused, activity("large")), Reason::kUnexplained);
  exchanges.running()->status_code = 413;
  EXPECT_EQ(of(refused, activity("large")), Reason::kTooLarge);
  EXPECT_EQ(of(refused, activity("another")), Reason::kUnexplained);
  exchanges.running()->activities = BatchIds(Array{Dictionary{{"event_id", "large"}}, Dictionary{{"event_id", "b"}}});
  EXPECT_EQ(of(refused, activity("large")), Reason::kUnexplained);
}

TEST_F(LedgerRemovalReasons, TakesImpressionsOfAPartForDeliveredWhereverTheyStood) {
  LedgerDeparture accepted = by(Kind::kImpressions, true);
  exchanges.running()->leading[indexOf(Kind::kImpressions)] = 1;
  EXPECT_TRUE(accepted.isDelivered({}, 0));
  EXPECT_FALSE(accepted.isDelivered({}, 7));
  accepted.leaves_some = true;
  EXPECT_TRUE(accepted.isDelivered({}, 7));
}

TEST_F(LedgerRemovalReasons, TellsImpressionsOfAnotherBatchFromThoseOfNone) {
  EXPECT_EQ(of(by(Kind::kImpressions, true), {}, true), Reason::kPlaceTaken);
  EXPECT_EQ(of(by(Kind::kImpressions, true), {}, false), Reason::kAddedDuringUpload);
}

TEST_F(LedgerRemovalReasons, TakesWhatAnAcceptedUploadDidNotCarryForAddedMeanwhile) {
  for (const Kind kind : {Kind::kCommerceClicks, Kind::kCrashReports}) {
    EXPECT_EQ(of(by(kind, true), {}, true), Reason::kAddedDuringUpload);
    EXPECT_EQ(of(by(kind, true), {}, false), Reason::kAddedDuringUpload);
  }
}

TEST_F(LedgerRemovalReasons, KnowsWhoTakesAKeptClick) {
  EXPECT_EQ(of(by(Kind::kReEngagementClicks, true), click(5)), Reason::kOtherKeyAccepted);
  EXPECT_EQ(of(byNoHandler(Kind::kReEngagementClicks, true), click(5)), Reason::kSixthSessionEnd);
}

TEST_F(LedgerRemovalReasons, KnowsWhyADemographicValueWent) {
  EXPECT_EQ(valueRemovalReason(byNoHandler(Kind::kDemographics), true), Reason::kReplaced);
  EXPECT_EQ(valueRemovalReason(byNoHandler(Kind::kDemographics), false), Reason::kTakenBack);
  EXPECT_EQ(valueRemovalReason(by(Kind::kDemographics, true), false), Reason::kAddedDuringUpload);
}

TEST_F(LedgerRemovalReasons, KnowsWhyAClickIsNotKeptAfterItsRequest) {
  LedgerExchange ended;
  ended.click = click(5);
  traces.newest_click = click(5);
  const Value other_kept = Array{click(6)};
  const Value same_kept = Array{click(6), Dictionary{{"conversion_key", 5}, {"session_no", "2"}}};
  EXPECT_EQ(clickLossReason(ended, traces, same_kept), Reason::kSameKey);
  EXPECT_EQ(clickLossReason(ended, traces, other_kept), Reason::kUnexplained);
  EXPECT_EQ(clickLossReason(ended, traces, {}), Reason::kUnexplained);
  traces.newest_click = click(6);
  EXPECT_EQ(clickLossReason(ended, traces, same_kept), Reason::kNewerClick);
  traces.is_newest_click_let_go = true;
  EXPECT_EQ(clickLossReason(ended, traces, same_kept), Reason::kSessionEnded);
  ended.answer = Dictionary{{"Result", false}};
  EXPECT_EQ(clickLossReason(ended, traces, same_kept), Reason::kNotAccepted);
}

}  // namespace
}  // namespace morvik::runtime
