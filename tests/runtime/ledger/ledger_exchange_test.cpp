#include "runtime/ledger/ledger_exchange.h"

#include <gtest/gtest.h>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Kind = LedgerKind;

Array entries(std::initializer_list<const char*> ids) {
  kit::MutableArray all{Value(Array())};
  for (const char* id : ids)
    all.append(Dictionary{{"event_id", id}});
  return Value(std::move(all)).array();
}

LedgerExchange answered(LedgerEndpoint endpoint, const Value& answer) {
  LedgerExchange exchange;
  exchange.endpoint = endpoint;
  exchange.answer = answer;
  return exchange;
}

TEST(BatchIds, AreFoundInTheirOrder) {
  BatchIds ids(entries({"a", "b", "c"}));
  EXPECT_EQ(ids.size(), 3U);
  for (const char* id : {"a", "b", "c"})
    EXPECT_TRUE(ids.contains(id));
  EXPECT_FALSE(ids.contains("d"));
}

TEST(BatchIds, AreFoundInAnyOtherOrderAndAgain) {
  BatchIds ids(entries({"a", "b", "c"}));
  for (const char* id : {"c", "a", "a", "b", "c", "b"})
    EXPECT_TRUE(ids.contains(id)) << id;
  EXPECT_FALSE(ids.contains(""));
  EXPECT_FALSE(BatchIds().contains("a"));
}

TEST(BatchIds, AreFoundWhereTheListHasOthersInBetween) {
  BatchIds ids(entries({"a", "c"}));
  EXPECT_TRUE(ids.contains("a"));
  EXPECT_FALSE(ids.contains("b"));
  EXPECT_TRUE(ids.contains("c"));
}

TEST(LedgerExchange, CarriesActivitiesByIdClicksByContentAndTheRestByTheirPlace) {
  LedgerExchange exchange;
  exchange.activities = BatchIds(entries({"a"}));
  exchange.leading[static_cast<size_t>(Kind::kImpressions)] = 2;
  exchange.click = Dictionary{{"conversion_key", 5}};
  EXPECT_TRUE(exchange.carries(Kind::kActivities, Dictionary{{"activityEventID", "a"}}, 9));
  EXPECT_FALSE(exchange.carries(Kind::kActivities, Dictionary{{"activityEventID", "b"}}, 0));
  EXPECT_TRUE(exchange.carries(Kind::kImpressions, {}, 1));
  EXPECT_FALSE(exchange.carries(Kind::kImpressions, {}, 2));
  EXPECT_FALSE(exchange.carries(Kind::kCommerceClicks, {}, 0));
  EXPECT_TRUE(exchange.carries(Kind::kReEngagementClicks, Dictionary{{"conversion_key", 5}}, 7));
  EXPECT_FALSE(exchange.carries(Kind::kReEngagementClicks, Dictionary{{"conversion_key", 6}}, 0));
}

TEST(LedgerExchange, GoesWhereItsKindGoes) {
  EXPECT_EQ(ledgerEndpointOf(Kind::kActivities), LedgerEndpoint::kTracking);
  EXPECT_EQ(ledgerEndpointOf(Kind::kImpressions), LedgerEndpoint::kTracking);
  EXPECT_EQ(ledgerEndpointOf(Kind::kReEngagementClicks), LedgerEndpoint::kReEngagement);
  EXPECT_EQ(ledgerEndpointOf(Kind::kCommerceClicks), LedgerEndpoint::kCommerce);
  EXPECT_EQ(ledgerEndpointOf(Kind::kCrashReports), LedgerEndpoint::kCrash);
  EXPECT_EQ(ledgerEndpointOf(Kind::kDemographics), LedgerEndpoint::kDemographics);
}

TEST(LedgerExchange, WithoutAnAnswerIsAcceptedNowhere) {
  for (size_t endpoint = 0; endpoint < kLedgerEndpoints; ++endpoint) {
    LedgerExchange exchange;
    exchange.endpoint = static_cast<LedgerEndpoint>(endpoint);
    EXPECT_FALSE(exchange.isAccepted());
  }
}

TEST(LedgerExchange, IsAcceptedByATrueResult) {
  for (const auto endpoint :
       {LedgerEndpoint::kTracking, LedgerEndpoint::kReEngagement, LedgerEndpoint::kDemographics}) {
    EXPECT_TRUE(answered(endpoint, Dictionary{{"Result", true}}).isAccepted());
    EXPECT_FALSE(answered(endpoint, Dictionary{{"Result", false}}).isAccepted());
    EXPECT_FALSE(answered(endpoint, Dictionary()).isAccepted());
    EXPECT_FALSE(answered(endpoint, Dictionary{{"Result", true}}).emptyAcceptance().has_value());
  }
}

TEST(LedgerExchange, OfCommerceClicksIsAcceptedByTheAbsenceOfAMessage) {
  const auto of = [](const Value& answer) { return answered(LedgerEndpoint::kCommerce, answer); };
  EXPECT_FALSE(of(Dictionary{{"errMsg", "no"}}).isAccepted());
  EXPECT_TRUE(of(Dictionary{{"errMsg", Value::null()}}).isAccepted());
  EXPECT_FALSE(of(Dictionary{{"errMsg", Value::null()}}).emptyAcceptance().has_value());
  EXPECT_TRUE(of(Dictionary()).isAccepted());
  EXPECT_EQ(of(Dictionary()).emptyAcceptance(), LedgerReason::kEmptyAnswer);
}

TEST(LedgerExchange, OfCrashReportsIsAcceptedByTheCodeZero) {
  const auto of = [](const Value& answer) { return answered(LedgerEndpoint::kCrash, answer); };
  EXPECT_TRUE(of(Dictionary{{"code", 0}}).isAccepted());
  EXPECT_FALSE(of(Dictionary{{"code", 3}}).isAccepted());
  EXPECT_FALSE(of(Dictionary{{"code", 0}}).emptyAcceptance().has_value());
  EXPECT_TRUE(of(Dictionary()).isAccepted());
  EXPECT_EQ(of(Dictionary()).emptyAcceptance(), LedgerReason::kEmptyAnswer);
}

TEST(LedgerExchange, ThatSaysNothingDeliversNothing) {
  LedgerExchange exchange = answered(LedgerEndpoint::kDemographics, Dictionary{{"Result", true}});
  exchange.says_nothing = true;
  EXPECT_TRUE(exchange.isAccepted());
  EXPECT_EQ(exchange.emptyAcceptance(), LedgerReason::kNoIdentifier);
}

}  // namespace
}  // namespace morvik::runtime
