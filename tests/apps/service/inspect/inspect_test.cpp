#include "apps/service/inspect/inspect.h"

#include <gtest/gtest.h>

#include "apps/service/base/refusal.h"
#include "apps/service/inspect/inspect_query.h"
#include "apps/service/inspect/inspect_stream.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::inspection;
using test::refusalOf;
using test::TemporaryFolder;

class InspectTest : public testing::Test {
 protected:
  HttpReply ask(const HttpRequest& request) {
    return inspect(request, {store_, behaviours_, attribution_, ledgers_, feed_, mutex_, watchers_, rules_});
  }
  Refusal refused(const HttpRequest& request) {
    return refusalOf([&] { ask(request); });
  }

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Behaviours behaviours_;
  Attribution attribution_;
  Ledgers ledgers_{[] { return std::int64_t{0}; }};
  Feed feed_;
  std::mutex mutex_;
  Watchers watchers_;
  AdminRules rules_;
};

TEST(Inspect, ClaimsItsOwnPathsOnly) {
  for (const char* path : {"/inspect", "/inspect/", "/inspect/requests"}) {
    EXPECT_TRUE(isInspection(inspection("GET", path))) << path;
  }
  for (const char* path : {"/", "/inspector", "/v1/inspect"}) {
    EXPECT_FALSE(isInspection(inspection("GET", path))) << path;
  }
}

TEST_F(InspectTest, ShowsAnEmptyStore) {
  EXPECT_EQ(R"({"requests":[],"complete":true,"next_after":0})", ask(inspection("GET", "/inspect/requests")).body);
  EXPECT_EQ(R"({"events":[],"distinct":0,"arrivals":0,"complete":true,"next_after":0})",
            ask(inspection("GET", "/inspect/events")).body);
}

TEST_F(InspectTest, PagesByTheQuery) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  request.query = {{"after", "7"}, {"limit", "1"}};
  EXPECT_EQ(R"({"requests":[],"complete":true,"next_after":7})", ask(request).body);
}

TEST_F(InspectTest, ABadQueryIsRefused) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  for (const char* value : {"", "x", "-1", "1x", "99999999999999999999"}) {
    request.query = {{"after", value}};
    EXPECT_STREQ("\"after\" is not a whole number of 0 or more", refused(request).what()) << value;
  }
  request.query = {{"since", "1"}};
  EXPECT_STREQ("the query parameter \"since\" is not known", refused(request).what());
}

TEST_F(InspectTest, QueuesShowsAndClearsBehaviours) {
  const std::string one = R"({"endpoint":"tracking","count":3,"kind":"status","status":500,"count_events":false})";
  EXPECT_EQ("{\"behaviours\":[" + one + "]}", ask(inspection("POST", "/inspect/behaviour", one)).body);
  EXPECT_EQ("{\"behaviours\":[" + one + "]}", ask(inspection("GET", "/inspect/behaviour")).body);
  EXPECT_EQ(R"({"behaviours":[]})", ask(inspection("DELETE", "/inspect/behaviour")).body);
}

TEST_F(InspectTest, ABadBehaviourIsRefusedAndNotQueued) {
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/behaviour", "{")).status());
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking"})")).status());
  EXPECT_TRUE(behaviours_.list().empty());
}

TEST_F(InspectTest, ShowsAndChangesTheAttributionData) {
  EXPECT_EQ(R"({"attribution":{}})", ask(inspection("GET", "/inspect/attribution")).body);
  EXPECT_EQ(R"({"attribution":{"deeplink":"x"}})",
            ask(inspection("POST", "/inspect/attribution", R"({"deeplink":"x"})")).body);
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/attribution", "7")).status());
}

TEST_F(InspectTest, TakesLedgersAndShowsAllOrOneWithWhatArrived) {
  EXPECT_EQ(R"({"ledgers":[]})", ask(inspection("GET", "/inspect/ledger")).body);
  const std::uint64_t before = feed_.version();
  EXPECT_EQ(R"({"told":1})", ask(inspection("POST", "/inspect/ledger", test::ledger("one").dump())).body);
  EXPECT_EQ(R"({"told":2})", ask(inspection("POST", "/inspect/ledger", test::ledger("two").dump())).body);
  EXPECT_EQ(before + 2, feed_.version());
  Json shown = Json::parse(ask(inspection("GET", "/inspect/ledger")).body)["ledgers"];
  ASSERT_EQ(2U, shown.size());
  EXPECT_EQ("two", shown[0]["install"]);
  EXPECT_FALSE(shown[0]["accounts"][0].contains("arrived"));

  RequestRecord record;
  record.endpoint = "tracking";
  record.payload = test::trackingPayload({"e", "f"});
  (*record.payload)["install_id"] = "one";
  record.counting = Counting::kEvents;
  record.counted = true;
  Counts counts;
  store_.add(record, counts);
  HttpRequest request = inspection("GET", "/inspect/ledger");
  request.query = {{"install", "one"}};
  shown = Json::parse(ask(request).body)["ledgers"];
  ASSERT_EQ(1U, shown.size());
  EXPECT_EQ(2, shown[0]["accounts"][0]["arrived"]);
  EXPECT_EQ("impressions", shown[0]["accounts"][1]["kind"]);
  request.query = {{"install", "three"}};
  EXPECT_EQ(R"({"ledgers":[]})", ask(request).body);
}

TEST_F(InspectTest, OfAKindThatTheServiceDoesNotKnowNothingArrived) {
  Json ledger = test::ledger("i");
  ledger["accounts"][1]["kind"] = "wishes";
  ask(inspection("POST", "/inspect/ledger", ledger.dump()));
  HttpRequest request = inspection("GET", "/inspect/ledger");
  request.query = {{"install", "i"}};
  EXPECT_TRUE(Json::parse(ask(request).body)["ledgers"][0]["accounts"][1]["arrived"].is_null());
}

TEST_F(InspectTest, ALedgerThatIsNoneIsRefusedAndNotKept) {
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/ledger", "{}")).status());
  HttpRequest request = inspection("POST", "/inspect/ledger", test::ledger("i").dump());
  request.query = {{"install", "i"}};
  EXPECT_EQ(400, refused(request).status());
  request.query = {};
  request.headers[1].second = "text/plain";
  EXPECT_EQ(415, refused(request).status());
  request.body_too_large = true;
  EXPECT_EQ(413, refused(request).status());
  EXPECT_EQ(0U, ledgers_.size());
}

TEST_F(InspectTest, ABodyThatIsNotDeclaredAsJsonIsRefused) {
  for (const char* type : {"text/plain", "application/x-www-form-urlencoded"}) {
    HttpRequest request = inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking","kind":"garbage"})");
    request.headers[1].second = type;
    EXPECT_EQ(415, refused(request).status());
    request.path = "/inspect/attribution";
    EXPECT_EQ(415, refused(request).status());
  }
  EXPECT_TRUE(behaviours_.list().empty());
}

TEST_F(InspectTest, OneBehaviourMayBeTakenOutOfTheQueue) {
  for (const char* endpoint : {"tracking", "crash"})
    ask(inspection("POST", "/inspect/behaviour", Json{{"endpoint", endpoint}, {"kind", "garbage"}}.dump()));
  HttpRequest request = inspection("DELETE", "/inspect/behaviour");
  request.query = {{"endpoint", "tracking"}, {"kind", "garbage"}};
  const Json left = Json::parse(ask(request).body)["behaviours"];
  ASSERT_EQ(1U, left.size());
  EXPECT_EQ("crash", left[0]["endpoint"]);
}

TEST_F(InspectTest, ANameThatDoesNotExistTakesNothingOutAndIsSaid) {
  ask(inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking","kind":"garbage"})"));
  HttpRequest request = inspection("DELETE", "/inspect/behaviour");
  request.query = {{"endpoint", "trackng"}};
  EXPECT_STREQ("\"endpoint\" is not a known endpoint", refused(request).what());
  EXPECT_EQ(0U, refused(request).fix().find("give one of: conversion, "));
  request.query = {{"kind", "rubbish"}};
  EXPECT_STREQ("\"kind\" is not a known kind", refused(request).what());
  EXPECT_EQ(1U, behaviours_.list().size());
}

TEST_F(InspectTest, ChangedBehavioursAreTold) {
  const std::uint64_t before = feed_.version();
  ask(inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking","kind":"garbage"})"));
  EXPECT_EQ(before + 1, feed_.version());
  ask(inspection("DELETE", "/inspect/behaviour"));
  EXPECT_EQ(before + 2, feed_.version());
}

TEST_F(InspectTest, ARequestIsShownWithTheRulesItBroke) {
  RequestRecord record;
  record.endpoint = "tracking";
  record.request = test::post("/v1/tracking", "k=a");
  record.payload = test::trackingPayload({"odd"});
  Counts counts;
  store_.add(record, counts);
  HttpRequest request = inspection("GET", "/inspect/request");
  request.query = {{"id", "1"}};
  const Json shown = Json::parse(ask(request).body);
  EXPECT_EQ("odd", shown["payload"]["activity_info"][0]["event_id"]);
  EXPECT_EQ("\"odd\" is not a lower-case UUID of version 7", shown["rules"][0]["what"]);
  request.query = {{"id", "2"}};
  EXPECT_EQ(404, refused(request).status());
}

TEST_F(InspectTest, OfAHugeRequestTheBeginningIsShown) {
  constexpr std::size_t kShown = std::size_t{256} * 1024;
  RequestRecord record;
  record.request = test::post("/v1/crash", std::string(kShown + 1, 'x'));
  record.payload = Json(std::string(kShown, 'x'));
  Counts counts;
  store_.add(record, counts);
  HttpRequest request = inspection("GET", "/inspect/request");
  request.query = {{"id", "1"}};
  const Json shown = Json::parse(ask(request).body);
  EXPECT_EQ(kShown, shown["body"].get<std::string>().size());
  EXPECT_EQ(kShown + 1, shown["body_bytes"]);
  EXPECT_TRUE(shown["payload"].is_null());
  EXPECT_EQ(kShown, shown["payload_start"].get<std::string>().size());
  EXPECT_EQ(kShown + 2, shown["payload_bytes"]);
}

TEST_F(InspectTest, ListsAndTimelinesAreServed) {
  EXPECT_EQ(R"({"requests":[],"next_before":0,"complete":true})", ask(inspection("GET", "/inspect/summaries")).body);
  EXPECT_EQ(R"({"installs":[],"complete":true})", ask(inspection("GET", "/inspect/installs")).body);
  HttpRequest request = inspection("GET", "/inspect/timeline");
  request.query = {{"install", "i"}};
  EXPECT_EQ(R"({"sessions":[],"activities":[],"marks":[],"complete":true,"install":"i"})", ask(request).body);
  const Json forms = Json::parse(ask(inspection("GET", "/inspect/forms")).body);
  EXPECT_EQ("conversion", forms["endpoints"][0]);
  EXPECT_EQ("status", forms["kinds"][0]["kind"]);
}

TEST_F(InspectTest, AnEventIsExplainedByItsRequests) {
  RequestRecord record;
  record.endpoint = "tracking";
  record.payload = test::trackingPayload({"a"});
  record.time_milliseconds = 1000;
  record.counting = Counting::kEvents;
  record.refusal = Json{{"error", "the key is wrong"}};
  record.reply.status = 403;
  Counts counts;
  store_.add(record, counts);
  record.refusal = std::nullopt;
  record.counted = true;
  record.reply.status = 200;
  record.time_milliseconds = 2000;
  store_.add(record, counts);
  record.time_milliseconds = 3000;
  store_.add(record, counts);
  HttpRequest request = inspection("GET", "/inspect/event");
  request.query = {{"id", "a"}};
  const Json shown = Json::parse(ask(request).body);
  EXPECT_EQ(
      "was not counted with request 1 of 1970-01-01T00:00:01.000Z (answer 403: the key is wrong); arrived first with "
      "request 2 of 1970-01-01T00:00:02.000Z (answer 200); arrived again with request 3 of 1970-01-01T00:00:03.000Z "
      "(answer 200)",
      shown["sentence"]);
  EXPECT_EQ(2, shown["arrivals"]);
  request.query = {{"id", "b"}};
  EXPECT_EQ("has not arrived", Json::parse(ask(request).body)["sentence"]);
}

TEST_F(InspectTest, AnEventIsAskedForByItsId) {
  HttpRequest request = inspection("GET", "/inspect/event");
  EXPECT_EQ(400, refused(request).status());
  request.query = {{"id", std::string(kMaxSearchBytes, 'x')}};
  EXPECT_EQ(200, ask(request).status);
  request.query = {{"id", std::string(kMaxSearchBytes + 1, 'x')}};
  EXPECT_EQ(400, refused(request).status());
  request.query = {{"identifier", "a"}};
  EXPECT_EQ(400, refused(request).status());
}

TEST_F(InspectTest, ATimelineThatLooksAtSomeRequestsOnlySaysSo) {
  RequestRecord record;
  record.endpoint = "conversion";
  record.payload = Json{{"install_id", "i"}};
  Counts counts;
  HttpRequest request = inspection("GET", "/inspect/timeline");
  request.query = {{"install", "i"}};
  for (std::int64_t i = 0; i < kMaxTimelineRequests; ++i)
    store_.add(record, counts);
  EXPECT_EQ(true, Json::parse(ask(request).body)["complete"]);
  store_.add(record, counts);
  EXPECT_EQ(false, Json::parse(ask(request).body)["complete"]);
}

TEST_F(InspectTest, AStreamBeginsWhereTheWatcherSays) {
  Counts counts;
  store_.add({}, counts);
  store_.add({}, counts);
  const auto first = [&](const HttpRequest& request) {
    const HttpReply reply = ask(request);
    EXPECT_EQ("text/event-stream; charset=utf-8", reply.content_type);
    return *reply.stream->next({});
  };
  HttpRequest request = inspection("GET", "/inspect/stream");
  EXPECT_EQ(std::string::npos, first(request).find("event: request"));
  request.query = {{"after", "0"}};
  EXPECT_NE(std::string::npos, first(request).find("id: 1\n"));
  request.headers.emplace_back("Last-Event-ID", "1");
  EXPECT_EQ(std::string::npos, first(request).find("id: 1\n"));
  EXPECT_NE(std::string::npos, first(request).find("id: 2\n"));
  request.headers.back().second = "x";
  EXPECT_EQ(400, refused(request).status());
}

TEST_F(InspectTest, AListingMayWait) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  request.query = {{"wait_milliseconds", "1"}};
  EXPECT_EQ(R"({"requests":[],"complete":true,"next_after":0})", ask(request).stream->next({}));
}

TEST_F(InspectTest, ABodyThatWasTooLargeIsRefused) {
  HttpRequest request = inspection("POST", "/inspect/behaviour");
  request.body_too_large = true;
  EXPECT_EQ(413, refused(request).status());
}

TEST_F(InspectTest, UnknownPathsAndMethodsAreToldWhatExists) {
  const Refusal path = refused(inspection("GET", "/inspect/everything"));
  EXPECT_EQ(404, path.status());
  EXPECT_EQ(
      "use one of: GET /inspect/requests, GET /inspect/summaries, GET /inspect/request, GET /inspect/installs, "
      "GET /inspect/timeline, GET /inspect/stream, GET /inspect/forms, GET /inspect/events, GET /inspect/event, "
      "GET /inspect/behaviour, POST /inspect/behaviour, DELETE /inspect/behaviour, GET /inspect/attribution, POST /inspect/attribution, GET /inspect/ledger, "
      "POST /inspect/ledger",
      path.fix());
  const Refusal method = refused(inspection("PUT", "/inspect/behaviour"));
  EXPECT_EQ(405, method.status());
  EXPECT_EQ("use GET or POST or DELETE", method.fix());
}

}  // namespace
}  // namespace morvik_service
