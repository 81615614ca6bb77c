#include "apps/service/expect/waiter.h"

#include <gtest/gtest.h>

#include "apps/service/expect/items.h"

namespace morvik_service {
namespace {

using std::chrono::milliseconds;

Json request(std::int64_t id, const std::vector<std::string>& activities) {
  Json events = Json::array();
  for (const std::string& each : activities)
    events.push_back({{"group", "shop"}, {"activity", each}, {"param", ""}, {"event_id", each}});
  return {{"id", id},         {"endpoint", "tracking"},
          {"method", "POST"}, {"path", "/v1/tracking"},
          {"counted", true},  {"payload", {{"activity_info", events}}}};
}

// Returns its pages one by one; after the last it waits as long as allowed, in virtual time.
class WaiterTest : public testing::Test {
 protected:
  Outcome wait(const std::string& text, int count = 1, bool none = false) {
    const Expectation expectation{Expression::parse(text, allFields()), count, none, 0, milliseconds(5000)};
    return waitFor(
        expectation, [this](std::int64_t after, milliseconds patience) { return next(after, patience); },
        [this] { return now_; });
  }
  Json next(std::int64_t after, milliseconds patience) {
    Json page = Json::array();
    if (!coming_.empty()) {
      now_ += std::min(patience, milliseconds(100));
      page.push_back(coming_.front());
      coming_.erase(coming_.begin());
    } else {
      now_ += std::min(patience, milliseconds(1000));
    }
    return {{"requests", page}, {"next_after", page.empty() ? after : page[0].at("id").get<std::int64_t>()}};
  }

  std::vector<Json> coming_;
  milliseconds now_{1000};
};

TEST_F(WaiterTest, EndsAsSoonAsItIsMet) {
  coming_ = {request(1, {"view"}), request(2, {"purchase"}), request(3, {"more"})};
  const Outcome outcome = wait("activity == 'purchase'");
  EXPECT_TRUE(outcome.met);
  EXPECT_EQ((std::vector<std::string>{"request 2, event shop/purchase"}), outcome.matches);
  EXPECT_EQ(1U, coming_.size());
}

TEST_F(WaiterTest, GivesUpWhenTheTimeIsOver) {
  coming_ = {request(1, {"view"})};
  const Outcome outcome = wait("activity == 'purchase'");
  EXPECT_FALSE(outcome.met);
  EXPECT_EQ(milliseconds(6000), now_);
  EXPECT_EQ(1, outcome.looked_at);
  ASSERT_EQ(1U, outcome.closest.size());
  EXPECT_EQ("request 1, event shop/view", outcome.closest[0].item);
  EXPECT_EQ((std::vector<std::string>{"activity is \"view\"; wanted activity == 'purchase'"}),
            outcome.closest[0].verdict.why);
}

TEST_F(WaiterTest, WhatIsThereIsLookedAtToItsEndWhateverTheTime) {
  for (int i = 1; i <= 100; ++i)
    coming_.push_back(request(i, {"view" + std::to_string(i)}));
  coming_.push_back(request(101, {"purchase"}));
  EXPECT_TRUE(wait("activity == 'purchase'").met);
}

TEST_F(WaiterTest, AnEventThatArrivesAgainCountsOnce) {
  coming_ = {request(1, {"purchase"}), request(2, {"purchase"})};
  const Outcome outcome = wait("group == 'shop'", 2);
  EXPECT_FALSE(outcome.met);
  EXPECT_EQ(1, outcome.matched);
  coming_ = {request(1, {"purchase"}), request(2, {"view", "more"})};
  EXPECT_TRUE(wait("group == 'shop'", 2).met);
}

TEST_F(WaiterTest, RequestsCountEachTime) {
  coming_ = {request(1, {}), request(2, {})};
  EXPECT_TRUE(wait("endpoint == 'tracking'", 2).met);
}

TEST_F(WaiterTest, NoneHoldsUntilTheEndAndFailsAtOnce) {
  coming_ = {request(1, {"view"})};
  EXPECT_TRUE(wait("activity == 'purchase'", 1, true).met);
  EXPECT_EQ(milliseconds(6000), now_);
  coming_ = {request(1, {"purchase"}), request(2, {"view"})};
  const Outcome outcome = wait("activity == 'purchase'", 1, true);
  EXPECT_FALSE(outcome.met);
  EXPECT_EQ(milliseconds(6100), now_);
  EXPECT_EQ(1U, outcome.matches.size());
}

TEST_F(WaiterTest, TheClosestMissesAreKeptInOrder) {
  coming_ = {request(1, {"a", "b"}), request(2, {"c"}), request(3, {"d", "purchase"})};
  const Outcome outcome = wait("activity == 'purchase' and group == 'store'");
  ASSERT_EQ(kNearMissesTold, outcome.closest.size());
  EXPECT_EQ("request 3, event shop/purchase", outcome.closest[0].item);
  EXPECT_EQ(1, outcome.closest[0].verdict.misses);
  EXPECT_EQ("request 3, event shop/d", outcome.closest[1].item);
}

}  // namespace
}  // namespace morvik_service
