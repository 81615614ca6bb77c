#include "runtime/ledger/exchange_trail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Value;
using State = Explanation::State;

/// 2024-05-01T12:00:00Z
constexpr Date kNoon{1'714'564'800'000'000};
constexpr const char* kId = "018f3406-9e00-7abc-8def-0123456789ab";  // of that moment

Date after(double seconds) {
  return kNoon.shiftedBySeconds(seconds);
}

class Trail : public ::testing::Test {
 protected:
  void add(Value element) {
    kit::MutableArray next(trail);
    next.append(std::move(element));
    trail = Value(std::move(next));
  }
  Explanation explained(const Value& activities = {}) { return explain(trail, activities, kId, after(100)); }
  Value trail;
};

TEST_F(Trail, KnowsNothingOfAnEventThatIsInNoBatchAndNotStored) {
  EXPECT_EQ(explained().state, State::kUnknown);
  EXPECT_EQ(explained().sentence,
            "not known: delivered or given up before 2024-05-01T12:01:40Z, or never recorded here");
  add(trailBegin(1, after(5), Array{"another"}));
  EXPECT_EQ(explained().sentence,
            "not known: delivered or given up before 2024-05-01T12:00:05Z, or never recorded here");
}

TEST_F(Trail, SaysThatAnEventWaits) {
  const Value stored = Array{Dictionary{{"activityEventID", kId}, {"activityCreatedAt", after(1)}}};
  EXPECT_EQ(explained(stored).state, State::kPending);
  EXPECT_EQ(explained(stored).sentence, "recorded 2024-05-01T12:00:01Z; waiting in the store");
}

TEST_F(Trail, SaysWithWhichRequestsAnEventWasSentAndThatItWasDelivered) {
  add(trailBegin(1, after(2), Array{"another", kId}));
  add(trailEnd(
      {.number = 1, .outcome = TrailOutcome::kFailed, .left = after(2), .ended = after(3), .error = "no route"}));
  add(trailBegin(2, after(4), Array{kId}));
  add(trailEnd(
      {.number = 2, .outcome = TrailOutcome::kAccepted, .left = after(5), .ended = after(6), .status_code = 200}));
  const Explanation explanation = explained();
  EXPECT_EQ(explanation.state, State::kDelivered);
  ASSERT_EQ(explanation.exchanges.size(), 2U);
  EXPECT_EQ(explanation.exchanges[0].outcome, "failed");
  EXPECT_EQ(explanation.exchanges[0].error, "no route");
  EXPECT_EQ(explanation.exchanges[1].http_status, 200);
  EXPECT_EQ(explanation.sentence,
            "recorded 2024-05-01T12:00:00Z; carried by a request of 2024-05-01T12:00:02Z to v1/tracking (failed: no "
            "route); carried by a request of 2024-05-01T12:00:05Z to v1/tracking (accepted, status 200); delivered");
}

TEST_F(Trail, SaysWhyAnEventWasGivenUp) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kFailed, .status_code = 413, .error = "too large"}));
  add(trailGivenUp(after(3), "tooLarge", Array{kId}));
  EXPECT_EQ(explained().state, State::kGivenUp);
  EXPECT_EQ(explained().reason, "over 1 MiB, and too large for the service when sent alone");
}

TEST_F(Trail, SaysThatNobodyKnowsTheAnswerToAnEarlierProcess) {
  add(trailBegin(1, after(2), Array{kId}));
  EXPECT_EQ(explained().exchanges.at(0).outcome, "under way");
  for (const Value& end : endsOfEarlierOnes(trail, 2))
    add(end);
  EXPECT_EQ(explained().state, State::kUnclear);
  EXPECT_EQ(explained().exchanges.at(0).outcome, "answer unknown");
  EXPECT_TRUE(endsOfEarlierOnes(trail, 2).empty());
  EXPECT_EQ(nextTrailNumber(trail), 2U);
}

TEST_F(Trail, SaysThatAnEventIsStoredUntilItsRequestIsAnswered) {
  const Value stored = Array{Dictionary{{"activityEventID", kId}}};
  add(trailBegin(1, after(2), Array{kId}));
  EXPECT_EQ(explained(stored).state, State::kPending);
  EXPECT_EQ(explained(stored).sentence,
            "recorded 2024-05-01T12:00:00Z; carried by a request of 2024-05-01T12:00:02Z to v1/tracking (under way); "
            "stored until that is answered");
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kNotAccepted, .left = after(2), .status_code = 200}));
  EXPECT_EQ(explained(stored).sentence,
            "recorded 2024-05-01T12:00:00Z; carried by a request of 2024-05-01T12:00:02Z to v1/tracking (not accepted, "
            "status 200: the answer does not accept it); waiting in the store to be sent again");
}

TEST_F(Trail, LetsTheAnswerDecideAboutAnEventThatLeftTheStoreWhileItWasCarried) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailGivenUp(after(3), "placeTaken", Array{kId}));
  EXPECT_EQ(explained().state, State::kUnclear);
  EXPECT_EQ(explained().reason, "");
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kFailed}));
  EXPECT_EQ(explained().state, State::kGivenUp);
  EXPECT_NE(explained().reason, "");
}

TEST_F(Trail, SaysOfAnEventThatWasGivenUpThatTheServiceMayHaveItAfterAnAnswerThatNobodyRead) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailGivenUp(after(3), "placeTaken", Array{kId}));
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kUnknown}));
  EXPECT_EQ(explained().state, State::kGivenUp);
  EXPECT_TRUE(explained().sentence.ends_with("; the service may have it")) << explained().sentence;
}

TEST_F(Trail, CallsDeliveredWhatWasAcceptedWhateverElseHappened) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailGivenUp(after(3), "placeTaken", Array{kId}));
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kAccepted}));
  EXPECT_EQ(explained().state, State::kDelivered);
  EXPECT_EQ(explained().reason, "");
}

TEST_F(Trail, RefusesWhatIsNoEventId) {
  for (const std::string_view text :
       {"", "7", "018f3406-9e00-7abc-8def-0123456789a", "018f3406-9e00-7abc-8def-0123456789ax",
        "018f3406x9e00-7abc-8def-0123456789ab", "018f3406-9e00-7abc-8def-0123456789ag"}) {
    const Explanation explanation = explain(trail, {}, text, kNoon);
    EXPECT_EQ(explanation.state, State::kNotAnId) << text;
    EXPECT_EQ(explanation.sentence.rfind("not an event id: ", 0), 0U) << explanation.sentence;
  }
}

TEST_F(Trail, KnowsAStoredEventWhateverItsIdLooksLike) {
  EXPECT_EQ(explain({}, Array{Dictionary{{"activityEventID", "7"}}}, "7", kNoon).state, State::kPending);
}

TEST_F(Trail, UnderstandsAnIdInCapitals) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kAccepted}));
  EXPECT_EQ(explain(trail, {}, "018F3406-9E00-7ABC-8DEF-0123456789AB", kNoon).state, State::kDelivered);
}

TEST_F(Trail, KeepsTheLatestExchangesAlone) {
  for (uint64_t number = 1; number <= kMaxTrailExchanges; ++number) {
    add(trailBegin(number, after(static_cast<double>(number)), Array{number == 1 ? kId : "another"}));
    add(trailEnd({.number = number, .outcome = TrailOutcome::kAccepted}));
  }
  EXPECT_FALSE(isTrailTooLong(trail));
  EXPECT_EQ(explained().state, State::kDelivered);
  add(trailBegin(1'000, after(999), Array{"another"}));
  EXPECT_TRUE(isTrailTooLong(trail));
  trail = shortenedTrail(trail);
  EXPECT_FALSE(isTrailTooLong(trail));
  EXPECT_EQ(extentOf(trail, kNoon).exchanges, kMaxTrailExchanges);
  EXPECT_EQ(soundTrail(trail).dropped, 0U) << "the end of what was dropped goes too";
  EXPECT_EQ(explained().state, State::kUnknown);
  EXPECT_EQ(explained().sentence,
            "not known: delivered or given up before 2024-05-01T12:00:02Z, or never recorded here");
}

size_t bytesOf(const Value& trail) {
  size_t bytes = 0;
  for (const Value& element : trail.array())
    bytes += kTrailElementBytes + element["ids"].string().size() + element["error"].string().size();
  return bytes;
}

TEST_F(Trail, TakesNoMoreBytesThanItMay) {
  kit::MutableArray many;
  for (int i = 0; i < 20'000; ++i)
    many.append(std::to_string(i));
  const Value ids(std::move(many));
  for (uint64_t number = 1; number <= 6; ++number) {
    add(trailBegin(number, after(2), ids.array()));
    EXPECT_EQ(isTrailTooLong(trail), bytesOf(trail) > kMaxTrailBytes);
    trail = shortenedTrail(trail);
    EXPECT_LE(bytesOf(trail), kMaxTrailBytes);
  }
  EXPECT_EQ(trail.size(), 4U);
}

TEST_F(Trail, CutsALongErrorBetweenTwoCharacters) {
  add(trailBegin(1, after(2), Array{kId}));
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kFailed, .error = std::string(kMaxTrailErrorBytes, 'e')}));
  EXPECT_EQ(explained().exchanges.at(0).error.size(), kMaxTrailErrorBytes);
  add(trailBegin(2, after(2), Array{kId}));
  const std::string error = std::string(kMaxTrailErrorBytes - 1, 'e') + "\xC3\xA9 and more";
  add(trailEnd({.number = 2, .outcome = TrailOutcome::kFailed, .error = error}));
  EXPECT_EQ(explained().exchanges.at(1).error, std::string(kMaxTrailErrorBytes - 1, 'e'));
  EXPECT_EQ(soundTrail(trail).dropped, 0U);
}

TEST_F(Trail, LeavesOutWhatIsDamagedAndKnowsTheRest) {
  const Value ids = trailBegin(1, after(2), Array{kId})["ids"];
  const std::vector<Value> damaged = {
      7,
      "text",
      Array{},
      Dictionary{},
      Dictionary{{"n", 5}, {"begun", "yesterday"}, {"ids", ids}},
      Dictionary{{"n", 5}, {"begun", after(1)}, {"ids", "?"}},
      Dictionary{{"n", 5}, {"begun", after(1)}, {"ids", "AAAA"}},
      Dictionary{{"n", -5}, {"begun", after(1)}, {"ids", ids}},
      Dictionary{{"n", INT64_MAX}, {"begun", after(1)}, {"ids", ids}},
      Dictionary{{"n", 0}, {"begun", after(1)}, {"ids", ids}},
      trailBegin(1, after(9), Array{"begins twice"}),
      Dictionary{{"n", 1}, {"outcome", "perhaps"}},
      Dictionary{{"n", 1}, {"outcome", "failed"}, {"status", 70'000}},
      Dictionary{{"n", 1}, {"outcome", "failed"}, {"left", 5}},
      Dictionary{{"n", 1}, {"outcome", "failed"}, {"error", std::string(kMaxTrailErrorBytes + 1, 'e')}},
      trailEnd({.number = 77, .outcome = TrailOutcome::kAccepted}),
      Dictionary{{"reason", "tooLarge"}, {"ids", ids}},
      Dictionary{{"n", INT64_MAX}, {"reason", "tooLarge"}, {"ended", after(3)}, {"ids", ids}},
      Dictionary{{"n", 5}, {"begun", after(1)}, {"ids", ids}, {"outcome", "accepted"}},
  };
  add(trailBegin(1, after(2), Array{kId}));
  for (const Value& each : damaged)
    add(each);
  add(trailEnd({.number = 1, .outcome = TrailOutcome::kAccepted}));
  EXPECT_EQ(soundTrail(trail).dropped, damaged.size());
  EXPECT_EQ(soundTrail(trail).trail.size(), 2U);
  EXPECT_EQ(explained().state, State::kDelivered);
  EXPECT_EQ(explained().exchanges.size(), 1U);
}

TEST_F(Trail, IsEmptyIfItIsNoListAtAll) {
  for (const Value& damaged : {Value("text"), Value(7), Value::null(), Value(Dictionary{{"n", 1}})}) {
    trail = damaged;
    EXPECT_EQ(soundTrail(trail).dropped, 1U);
    EXPECT_TRUE(soundTrail(trail).trail.isAbsent());
    EXPECT_EQ(explained().state, State::kUnknown);
  }
  EXPECT_EQ(soundTrail({}).dropped, 0U);
}

}  // namespace
}  // namespace morvik::runtime
