#include "apps/service/inspect/timeline.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

Json entry(const char* group, const char* activity, const char* created_at, const std::string& id) {
  return {{"group", group}, {"activity", activity}, {"param", "p"}, {"created_at", created_at}, {"event_id", id}};
}

Json request(std::int64_t id, const char* endpoint, const Json& payload) {
  return {{"id", id}, {"time_ms", 1000 * id}, {"endpoint", endpoint}, {"payload", payload}, {"counted", true}};
}

Json batch(std::int64_t id, const std::vector<Json>& entries) {
  return request(id, "tracking", {{"activity_info", Json(entries)}});
}

TEST(Timeline, SessionsAreBuiltFromTheirStartsAndEnds) {
  const Json told = timelineOf(
      {batch(2, {entry("session", "end", "19700101090010", "b"), entry("session", "start", "19700101090010", "c")}),
       batch(1, {entry("session", "start", "19700101090001", "a")})});
  EXPECT_EQ(R"([{"start":1000,"end":10000},{"start":10000,"end":null}])", jsonText(told["sessions"]));
  EXPECT_TRUE(told["activities"].empty());
  EXPECT_EQ(true, told["complete"]);
}

TEST(Timeline, AnEndWithoutAStartAndAStartThatNothingEndsStandAlone) {
  const Json told = timelineOf(
      {batch(1, {entry("session", "end", "19700101090001", "a"), entry("session", "start", "19700101090002", "b"),
                 entry("session", "start", "19700101090003", "c"), entry("session", "end", "19700101090004", "d")})});
  EXPECT_EQ(R"([{"start":2000,"end":null},{"start":3000,"end":4000}])", jsonText(told["sessions"]));
}

TEST(Timeline, AnActivityThatArrivedTwiceStandsOnce) {
  const Json once = entry("shop", "view", "19700101090001", "a");
  const Json told = timelineOf({batch(2, {once}), batch(1, {once})});
  EXPECT_EQ(R"([{"time":1000,"group":"shop","activity":"view","param":"p","event_id":"a","request":2}])",
            jsonText(told["activities"]));
}

TEST(Timeline, TheOtherRequestsAreMarks) {
  const Json told = timelineOf({request(4, "erasure", {{"subject_request_id", "S"}}), request(3, "schedule", Json()),
                                request(2, "reengagement-conversion", {{"deeplink_info", {{"deeplink_uri", "a://b"}}}}),
                                request(1, "conversion", Json::object())});
  EXPECT_EQ(R"([{"time":1000,"kind":"attribution","text":"","request":1},)"
            R"({"time":2000,"kind":"deep link","text":"a://b","request":2},)"
            R"({"time":4000,"kind":"erasure","text":"S","request":4}])",
            jsonText(told["marks"]));
}

TEST(Timeline, ACrashStandsWhereItHappenedAndOnce) {
  const Json report = {{"local_kst_time", "1970-01-01 09:00:07"}, {"exception_reason", "boom"}};
  const Json told =
      timelineOf({request(9, "crash", Json::array({report, report})), request(8, "crash", Json::array({report}))});
  EXPECT_EQ(R"([{"time":7000,"kind":"crash","text":"boom","request":9}])", jsonText(told["marks"]));
}

TEST(Timeline, PayloadsOfAnyShapeArePassedOver) {
  for (const char* payload : {"null", "7", "[]", "[7]", "{}", R"({"activity_info":[7,{},[]]})"}) {
    for (const char* endpoint : {"tracking", "crash", "conversion"})
      EXPECT_TRUE(timelineOf({request(1, endpoint, Json::parse(payload))})["activities"].empty()) << payload;
  }
}

TEST(Timeline, BeyondItsLimitTheOldestActivitiesAreLeftOut) {
  std::vector<Json> many;
  for (std::size_t i = 0; i < kMaxTimelineActivities; ++i)
    many.push_back(entry("shop", "view", "19700101090001", std::to_string(i)));
  EXPECT_EQ(true, timelineOf({batch(1, many)})["complete"]);
  const Json told = timelineOf({batch(2, many), batch(1, {entry("shop", "view", "19700101090000", "old")})});
  EXPECT_EQ(false, told["complete"]);
  EXPECT_EQ(kMaxTimelineActivities, told["activities"].size());
  EXPECT_EQ("0", told["activities"][0]["event_id"]);
}

}  // namespace
}  // namespace morvik_service
