#include "runtime/ledger/ledger_exchanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Kind = LedgerKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Value click(int64_t key) {
  return Dictionary{{"conversion_key", key}};
}

LedgerExchange withClick(int64_t key) {
  LedgerExchange exchange;
  exchange.endpoint = LedgerEndpoint::kReEngagement;
  exchange.click = click(key);
  return exchange;
}

LedgerExchange batchOf(const char* id) {
  LedgerExchange exchange;
  exchange.activities = BatchIds(Array{Dictionary{{"event_id", id}}});
  return exchange;
}

Value activity(const char* id) {
  return Dictionary{{"activityEventID", id}};
}

/// As long as a sealed envelope.
std::string sealed(const std::string& nonce) {
  return nonce + std::string(100, 'x');
}

TEST(LedgerExchanges, KnowARequestByWhatSealsItsPayload) {
  LedgerExchanges exchanges;
  exchanges.wasSealed(sealed("one"), withClick(1));
  exchanges.wasSealed(sealed("two"), withClick(2));
  for (const std::string& body : {"k=app&j=" + sealed("two") + "&more=1", "j=" + sealed("one")}) {
    const LedgerExchange taken = exchanges.takeSealed(LedgerEndpoint::kReEngagement, body);
    EXPECT_EQ(taken.click, click(body.starts_with("j=") ? 1 : 2));
    EXPECT_TRUE(exchanges.takeSealed(LedgerEndpoint::kReEngagement, body).click.isAbsent()) << "it has left";
  }
}

TEST(LedgerExchanges, KnowNoPayloadOfARequestToAnotherEndpointOrWithoutOne) {
  LedgerExchanges exchanges;
  exchanges.wasSealed(sealed("one"), withClick(1));
  for (const std::string& body : {std::string(), std::string("jj=") + sealed("one"), std::string("k=j")}) {
    EXPECT_TRUE(exchanges.takeSealed(LedgerEndpoint::kReEngagement, body).click.isAbsent()) << body;
  }
  const LedgerExchange other = exchanges.takeSealed(LedgerEndpoint::kCommerce, "j=" + sealed("one"));
  EXPECT_TRUE(other.click.isAbsent());
  EXPECT_EQ(other.endpoint, LedgerEndpoint::kCommerce);
}

TEST(LedgerExchanges, ForgetTheOldestPayloadPastTheLimit) {
  LedgerExchanges exchanges;
  const auto body = [](size_t number) { return sealed(std::to_string(1000 + number)); };
  for (size_t number = 0; number <= kMaxUnsentPayloads; ++number)
    exchanges.wasSealed(body(number), withClick(static_cast<int64_t>(number)));
  EXPECT_TRUE(exchanges.takeSealed(LedgerEndpoint::kReEngagement, "j=" + body(0)).click.isAbsent());
  for (size_t number = 1; number <= kMaxUnsentPayloads; ++number) {
    EXPECT_EQ(exchanges.takeSealed(LedgerEndpoint::kReEngagement, "j=" + body(number)).click,
              click(static_cast<int64_t>(number)));
  }
}

TEST(LedgerExchanges, KeepOneBatchThatHasNotLeft) {
  LedgerExchanges exchanges;
  exchanges.wasSealed(sealed("one"), batchOf("a"));
  EXPECT_TRUE(exchanges.isNotedAlone("a"));
  exchanges.wasSealed(sealed("click"), withClick(1));
  exchanges.wasSealed(sealed("two"), batchOf("b"));
  EXPECT_FALSE(exchanges.isNotedAlone("a"));
  EXPECT_TRUE(exchanges.isNotedAlone("b"));
  EXPECT_EQ(exchanges.takeSealed(LedgerEndpoint::kReEngagement, "j=" + sealed("click")).click, click(1));
}

TEST(LedgerExchanges, RememberTheBatchThatWasAnsweredAndNotAcceptedUntilTheNext) {
  LedgerExchanges exchanges;
  LedgerExchange batch = batchOf("a");
  batch.left_out_id = "end";
  const uint64_t id = exchanges.begin(std::move(batch));
  exchanges.handlerBegins(id);
  exchanges.running()->answer = kit::Value(kit::Dictionary{{"Result", false}});
  exchanges.end(id);
  EXPECT_TRUE(exchanges.isNotedAlone("a"));
  EXPECT_TRUE(exchanges.isLeftOut("end"));
  exchanges.wasSealed(sealed("next"), batchOf("b"));
  EXPECT_FALSE(exchanges.isNotedAlone("a"));
  EXPECT_FALSE(exchanges.isLeftOut("end"));
}

TEST(LedgerExchanges, RunOneHandlerOnItsThreadAlone) {
  LedgerExchanges exchanges;
  EXPECT_EQ(exchanges.running(), nullptr);
  const uint64_t id = exchanges.begin(withClick(1));
  EXPECT_NE(id, 0U);
  EXPECT_NE(exchanges.begin(withClick(2)), id);
  exchanges.handlerBegins(id);
  ASSERT_NE(exchanges.running(), nullptr);
  EXPECT_EQ(exchanges.running()->click, click(1));
  EXPECT_TRUE(exchanges.isAnyRunning());
  std::thread([&exchanges] { EXPECT_EQ(exchanges.running(), nullptr); }).join();
  EXPECT_EQ(exchanges.end(id).click, click(1));
  EXPECT_EQ(exchanges.running(), nullptr);
  EXPECT_FALSE(exchanges.isAnyRunning());
}

TEST(LedgerExchanges, KnowWhatTheyLeaveOut) {
  LedgerExchanges exchanges;
  LedgerExchange under_way = batchOf("a");
  under_way.left_out_id = "end of the first";
  LedgerExchange unsent = batchOf("b");
  unsent.left_out_id = "end of the second";
  exchanges.begin(std::move(under_way));
  exchanges.begin(batchOf("c"));
  exchanges.wasSealed(sealed("b"), std::move(unsent));
  EXPECT_TRUE(exchanges.isLeftOut("end of the first"));
  EXPECT_TRUE(exchanges.isLeftOut("end of the second"));
  EXPECT_FALSE(exchanges.isLeftOut("a"));
  EXPECT_FALSE(exchanges.isLeftOut({})) << "a batch that leaves nothing out";
}

TEST(LedgerExchanges, LetGoOfAClickOnceItIsStored) {
  LedgerExchanges exchanges;
  LedgerExchange holding = withClick(1);
  holding.holds_click = true;
  const uint64_t holder = exchanges.begin(std::move(holding));
  exchanges.begin(withClick(2));
  EXPECT_FALSE(exchanges.noteStoredClick(click(2))) << "it was stored before";
  EXPECT_FALSE(exchanges.noteStoredClick(click(3)));
  EXPECT_TRUE(exchanges.noteStoredClick(click(1)));
  EXPECT_FALSE(exchanges.noteStoredClick(click(1)));
  EXPECT_FALSE(exchanges.end(holder).holds_click);
}

TEST(LedgerExchanges, CountTheFirstOfAListThatLosesSome) {
  LedgerExchanges exchanges;
  LedgerExchange exchange;
  exchange.endpoint = LedgerEndpoint::kCommerce;
  exchange.leading[static_cast<size_t>(Kind::kCommerceClicks)] = 4;
  const uint64_t id = exchanges.begin(std::move(exchange));
  exchanges.listShrank(Kind::kImpressions, {.removed = {{0, 4}}});
  exchanges.listShrank(Kind::kCommerceClicks, {.removed = {{1, 1}, {3, 5}}});
  const LedgerExchange ended = exchanges.end(id);
  EXPECT_EQ(ended.leading[static_cast<size_t>(Kind::kCommerceClicks)], 2U);
}

TEST(LedgerExchanges, CountTheFirstOfAListThatABatchWillCarry) {
  LedgerExchanges exchanges;
  LedgerExchange batch = batchOf("a");
  batch.leading[static_cast<size_t>(Kind::kImpressions)] = 3;
  exchanges.wasSealed(sealed("a"), std::move(batch));
  exchanges.listShrank(Kind::kImpressions, {.removed = {{0, 2}}});
  const LedgerExchange sent = exchanges.takeSealed(LedgerEndpoint::kTracking, "j=" + sealed("a"));
  EXPECT_EQ(sent.leading[static_cast<size_t>(Kind::kImpressions)], 1U);
}

TEST(LedgerExchanges, CarryADemographicValueByItsVersion) {
  LedgerExchanges exchanges;
  LedgerExchange first;
  first.values = {7, 0, 9};
  const uint64_t older = exchanges.begin(first);
  first.values = {8, 0, 9};
  const uint64_t newer = exchanges.begin(first);
  EXPECT_THAT(exchanges.carriersOfValue(0, 7, nullptr), ElementsAre(older));
  EXPECT_THAT(exchanges.carriersOfValue(2, 9, nullptr), ElementsAre(older, newer));
  exchanges.handlerBegins(older);
  EXPECT_THAT(exchanges.carriersOfValue(2, 9, exchanges.running()), ElementsAre(newer));
  EXPECT_THAT(exchanges.carriersOfValue(1, 9, nullptr), IsEmpty());
}

TEST(LedgerCarriers, AreTheOthersThatGoToTheSamePlace) {
  LedgerExchanges exchanges;
  const uint64_t ended = exchanges.begin(batchOf("a"));
  const uint64_t second = exchanges.begin(batchOf("a"));
  exchanges.begin(batchOf("b"));
  exchanges.begin(withClick(1));
  exchanges.handlerBegins(ended);
  LedgerCarriers carriers(exchanges, Kind::kActivities, exchanges.running());
  EXPECT_THAT(carriers.of(activity("a"), 0), ElementsAre(second));
  EXPECT_THAT(carriers.of(activity("c"), 1), IsEmpty());
}

}  // namespace
}  // namespace morvik::runtime
