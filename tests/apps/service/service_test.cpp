#include "apps/service/service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "apps/service/base/files.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::commerceClicks;
using test::commonParameters;
using test::conversionPayload;
using test::crashReport;
using test::demographicsPayload;
using test::envelopeBody;
using test::erasureRequest;
using test::facebookClick;
using test::get;
using test::hexadecimalBody;
using test::iadPayload;
using test::inspection;
using test::kKeys;
using test::post;
using test::postConversion;
using test::postJson;
using test::postTracking;
using test::reEngagementPayload;
using test::TemporaryFolder;
using test::trackingPayload;

constexpr std::int64_t kNow = 1709251199999;
constexpr const char* kReEngagement = "/v1/reengagement-conversion";

HttpRequest postCommerce(const Json& clicks) {
  return postJson("/v1/commerce-conversion", jsonText(clicks));
}

class ServiceTest : public testing::Test {
 protected:
  HttpReply handle(const HttpRequest& request) { return service_.handle(request); }
  Json answer(const HttpRequest& request) { return Json::parse(handle(request).body); }
  Json inspected(const std::string& path) { return answer(inspection("GET", "/inspect/" + path)); }
  Json lastRequest() { return inspected("requests")["requests"].back(); }
  void misbehave(const std::string& behaviour) {
    ASSERT_EQ(200, handle(inspection("POST", "/inspect/behaviour", behaviour)).status);
  }

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  std::vector<std::string> lines_;
  Service service_{kKeys, AnswerData(), store_, [] { return kNow; },
                   [this](const std::string& line) { lines_.push_back(line); }};
};

TEST_F(ServiceTest, AConversionIsToldWhoReferredIt) {
  const Json told = answer(postConversion(conversionPayload()));
  EXPECT_EQ(kNow, told["BaseTime"]);
  EXPECT_EQ(true, told["Result"]);
  EXPECT_EQ(kResultCodeFine, told["ResultCode"]);
  EXPECT_EQ(Attribution().record(kFirstUserNo, kNow), told["Data"]);
}

TEST_F(ServiceTest, TheThreeAttributionEndpointsAnswerAlike) {
  const Json expected = answer(postConversion(conversionPayload()));
  EXPECT_EQ(expected, answer(postConversion(conversionPayload(), "/v1/thirdparty-conversion")));
  EXPECT_EQ(expected, answer(postConversion(iadPayload(), "/v1/iad-attribution")));
}

TEST_F(ServiceTest, AThirdPartyMaySendParametersOfItsOwn) {
  EXPECT_EQ(true, answer(postConversion({{"own", 1}}, "/v1/thirdparty-conversion"))["Result"]);
}

TEST_F(ServiceTest, AConversionShowsTheClickThatItCarries) {
  Json payload = conversionPayload();
  payload["deeplink_info"] = facebookClick();
  EXPECT_EQ(true, answer(postConversion(payload, "/v1/thirdparty-conversion"))["Result"]);
  EXPECT_EQ(facebookClick(), lastRequest()["payload"]["deeplink_info"]);
  payload["deeplink_info"]["is_first_launch"] = false;
  EXPECT_EQ("deeplink_info.is_first_launch does not belong there",
            answer(postConversion(payload, "/v1/thirdparty-conversion"))["error"]);
}

TEST_F(ServiceTest, AReportedConversionKeyIsListedUnlessTheListWasChosen) {
  Json payload = conversionPayload();
  payload["deeplink_info"] = facebookClick();
  payload["deeplink_info"]["conversion_key"] = 77;
  const auto listed = [&] {
    return answer(postConversion(payload, "/v1/thirdparty-conversion"))["Data"]["conversion_key_list"];
  };
  EXPECT_EQ(Json({2001, 2002, 77}), listed());
  payload["deeplink_info"]["conversion_key"] = 2002;
  EXPECT_EQ(Json({2001, 2002}), listed());
  handle(inspection("POST", "/inspect/attribution", R"({"conversion_key_list":[1,null]})"));
  EXPECT_EQ(Json::parse("[1,null]"), listed());
}

TEST_F(ServiceTest, AConversionWithoutParametersGetsNoRecord) {
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":false,"ResultCode":1})", handle(post("/v1/conversion", "")).body);
}

TEST_F(ServiceTest, ABatchIsAcceptedAndItsEventsAreCountedOnce) {
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":true})", handle(postTracking(trackingPayload({"a", "b"}))).body);
  handle(postTracking(trackingPayload({"b", "c"})));
  const Json events = inspected("events");
  EXPECT_EQ(3, events["distinct"]);
  EXPECT_EQ(4, events["arrivals"]);
}

TEST_F(ServiceTest, ABatchWithoutParametersIsRefused) {
  const HttpReply reply = handle(post("/v1/tracking", ""));
  EXPECT_EQ(400, reply.status);
  EXPECT_EQ(R"({"error":"the body is empty","where":"the request body","fix":"send the form parameters k and j"})",
            reply.body);
}

TEST_F(ServiceTest, WhatIsRefusedIsStoredWithTheReason) {
  Json payload = trackingPayload({"a"});
  payload.erase("puid");
  const HttpReply reply = handle(postTracking(payload));
  EXPECT_EQ(400, reply.status);
  const Json stored = lastRequest();
  EXPECT_EQ("puid is missing", stored["refusal"]["error"]);
  EXPECT_EQ(payload, stored["payload"]);
  EXPECT_EQ(reply.body, stored["answer"]["body"]);
  EXPECT_EQ(false, stored["counted"]);
  EXPECT_EQ(0, inspected("events")["distinct"]);
}

TEST_F(ServiceTest, APayloadSealedWithTheOtherKeyIsRefused) {
  HttpRequest request = postConversion(trackingPayload({"a"}), "/v1/tracking");
  EXPECT_EQ(403, handle(request).status);
  EXPECT_TRUE(lastRequest()["payload"].is_null());
  EXPECT_EQ(request.body, lastRequest()["body"]);
}

TEST_F(ServiceTest, AnUnknownPathIsToldWhatExists) {
  const HttpReply reply = handle(post("/v1/trackin", ""));
  EXPECT_EQ(404, reply.status);
  EXPECT_EQ(R"({"error":"there is nothing at this path","where":"the path","fix":"use one of: POST /v1/conversion, )"
            R"(POST /v1/thirdparty-conversion, POST /v1/iad-attribution, POST /v1/tracking, )"
            R"(POST /v1/reengagement-conversion, POST /v1/commerce-conversion, GET /{app key}/config.json, )"
            R"(POST /v1/crash, POST /v1/demographics, POST /v2/schedule, POST /v1/erasure, GET /inspect/requests"})",
            reply.body);
  EXPECT_EQ("", lastRequest()["endpoint"]);
}

TEST_F(ServiceTest, OfWhatWasSentToAnUnknownPathTheLengthIsKeptAndNotTheBody) {
  handle(post("/v1/trackin", std::string(100000, 'x')));
  EXPECT_EQ("", lastRequest()["body"]);
  EXPECT_EQ(100000, lastRequest()["body_bytes"]);
  EXPECT_EQ("/v1/trackin", lastRequest()["path"]);
  handle(post("/v1/tracking", "nonsense"));
  EXPECT_EQ("nonsense", lastRequest()["body"]);
}

TEST_F(ServiceTest, AnEndpointIsPostedTo) {
  HttpRequest request = postTracking(trackingPayload({"a"}));
  request.method = "GET";
  EXPECT_EQ(405, handle(request).status);
}

TEST_F(ServiceTest, AReEngagementIsToldItsClicksKey) {
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":true,"Data":{"conversion_result":{"conversion_key":77,)"
            R"("reengagement_data":"click 77","reengagement_datetime":20240229235959}}})",
            handle(postConversion(reEngagementPayload(77), kReEngagement)).body);
  const Json stored = lastRequest();
  EXPECT_EQ("reengagement-conversion", stored["endpoint"]);
  EXPECT_EQ(reEngagementPayload(77), stored["payload"]);
  EXPECT_EQ(true, stored["counted"]);
}

TEST_F(ServiceTest, AReEngagementThatDoesNotFitIsRefused) {
  EXPECT_EQ(400, handle(post(kReEngagement, "")).status);
  EXPECT_EQ(400, handle(post(kReEngagement, "nonsense")).status);
  EXPECT_EQ(403, handle(post(kReEngagement, envelopeBody(reEngagementPayload(7), kKeys.tracking_key))).status);
  Json payload = reEngagementPayload(77);
  payload["deeplink_info"]["conversion_key"] = "77";
  EXPECT_EQ("deeplink_info.conversion_key is not a 64-bit integer",
            answer(postConversion(payload, kReEngagement))["error"]);
  EXPECT_EQ(payload, lastRequest()["payload"]);
  EXPECT_EQ(false, lastRequest()["counted"]);
}

TEST_F(ServiceTest, AnAnswerToWhatDoesNotCountTellsTheDeviceToKeepIt) {
  misbehave(R"({"endpoint":"reengagement-conversion","kind":"delay","milliseconds":1,"count_events":false})");
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":false})",
            handle(postConversion(reEngagementPayload(77), kReEngagement)).body);
  EXPECT_EQ(false, lastRequest()["counted"]);
  misbehave(R"({"endpoint":"commerce-conversion","kind":"delay","milliseconds":1,"count_events":false})");
  EXPECT_EQ(R"({"errMsg":"the clicks were not counted"})", handle(postCommerce(commerceClicks({"one"}))).body);
  EXPECT_EQ(false, lastRequest()["counted"]);
  misbehave(R"({"endpoint":"crash","kind":"delay","milliseconds":1,"count_events":false})");
  EXPECT_EQ(R"({"code":1})", handle(postJson("/v1/crash", jsonText(Json::array({crashReport("fendo")})))).body);
  EXPECT_EQ(false, lastRequest()["counted"]);
  misbehave(R"({"endpoint":"demographics","kind":"delay","milliseconds":1,"count_events":false})");
  EXPECT_EQ(R"({"Result":false})", handle(post("/v1/demographics", hexadecimalBody(demographicsPayload()))).body);
  EXPECT_EQ(false, lastRequest()["counted"]);
}

TEST_F(ServiceTest, CommerceClicksAreTakenInWithoutAMessage) {
  EXPECT_EQ(R"({"errMsg":null})", handle(postCommerce(commerceClicks({"one", "two"}))).body);
  const Json stored = lastRequest();
  EXPECT_EQ("commerce-conversion", stored["endpoint"]);
  EXPECT_EQ(commerceClicks({"one", "two"}), stored["payload"]);
  EXPECT_EQ(true, stored["counted"]);
  EXPECT_EQ(R"({"errMsg":null})", handle(postCommerce(Json::array())).body);
}

TEST_F(ServiceTest, ABadCommerceClickIsToldInTheAnswerAndNoneOfTheListCounts) {
  Json clicks = commerceClicks({"one", "two"});
  clicks[1]["mtime"] = "now";
  const HttpReply reply = handle(postCommerce(clicks));
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ(R"({"errMsg":"[1].mtime is not a number"})", reply.body);
  const Json stored = lastRequest();
  EXPECT_EQ(clicks, stored["payload"]);
  EXPECT_EQ("[1].mtime is not a number", stored["refusal"]["error"]);
  EXPECT_EQ(false, stored["counted"]);
  EXPECT_NE(std::string::npos, lines_.back().find(" -> 200; refused: [1].mtime is not a number")) << lines_.back();
}

TEST_F(ServiceTest, ACommerceBodyThatIsNoListIsRefused) {
  EXPECT_EQ(R"({"error":"the body is empty","where":"the request body","fix":"send a JSON array"})",
            handle(postJson("/v1/commerce-conversion", "")).body);
  EXPECT_EQ(400, handle(postJson("/v1/commerce-conversion", "{}")).status);
  EXPECT_EQ(400, handle(postJson("/v1/commerce-conversion", "[")).status);
  EXPECT_EQ(415, handle(post("/v1/commerce-conversion", "[]")).status);
}

TEST_F(ServiceTest, TheConfigurationSaysWhetherPremiumPostbacksAreOn) {
  EXPECT_EQ(R"({"commerce":{"premium_postback":"false"}})", handle(get("/app-1/config.json")).body);
  EXPECT_EQ("configuration", lastRequest()["endpoint"]);
  const TemporaryFolder folder;
  Store store(folder.path());
  AnswerData data;
  data.premium_postback = true;
  Service service(
      kKeys, data, store, [] { return kNow; }, [](const std::string&) {});
  EXPECT_EQ(R"({"commerce":{"premium_postback":"true"}})", service.handle(get("/app-1/config.json")).body);
}

TEST_F(ServiceTest, TheConfigurationIsOfOneAppAndIsFetched) {
  EXPECT_EQ(403, handle(get("/app-2/config.json")).status);
  const HttpReply posted = handle(postJson("/app-1/config.json", "{}"));
  EXPECT_EQ(405, posted.status);
  EXPECT_EQ("use GET", Json::parse(posted.body)["fix"]);
}

TEST_F(ServiceTest, CrashReportsAreTakenInWithCodeZero) {
  const Json reports = {crashReport("fendo one"), crashReport("fendo \u00fc")};
  EXPECT_EQ(R"({"code":0})", handle(postJson("/v1/crash", jsonText(reports))).body);
  EXPECT_EQ("crash", lastRequest()["endpoint"]);
  EXPECT_EQ(reports, lastRequest()["payload"]);
  EXPECT_EQ(true, lastRequest()["counted"]);
  EXPECT_EQ(R"({"code":0})", handle(postJson("/v1/crash", "[]")).body);
}

TEST_F(ServiceTest, CrashReportsThatDoNotFitAreRefused) {
  Json other = crashReport("fendo");
  other["appkey"] = "app-2";
  EXPECT_EQ(403, handle(postJson("/v1/crash", jsonText(Json::array({other})))).status);
  EXPECT_EQ(false, lastRequest()["counted"]);
  EXPECT_EQ(400, handle(postJson("/v1/crash", "[{}]")).status);
  EXPECT_EQ(400, handle(postJson("/v1/crash", "")).status);
  EXPECT_EQ(400, handle(postJson("/v1/crash", "{}")).status);
  EXPECT_EQ(400, handle(postJson("/v1/crash", "[1e999]")).status);
  EXPECT_EQ(415, handle(post("/v1/crash", "[]")).status);
}

TEST_F(ServiceTest, DemographicsAreTakenInAndShown) {
  EXPECT_EQ(R"({"Result":true})", handle(post("/v1/demographics", hexadecimalBody(demographicsPayload()))).body);
  EXPECT_EQ("demographics", lastRequest()["endpoint"]);
  EXPECT_EQ(demographicsPayload(), lastRequest()["payload"]);
  EXPECT_EQ(true, lastRequest()["counted"]);
  EXPECT_EQ(R"({"Result":true})", handle(post("/v1/demographics", hexadecimalBody(Json::object()))).body);
  EXPECT_EQ(Json::object(), lastRequest()["payload"]);
}

TEST_F(ServiceTest, DemographicsThatDoNotFitAreRefused) {
  const std::string twice = kKeys.hash_key + kKeys.hash_key;
  EXPECT_EQ(403, handle(post("/v1/demographics", hexadecimalBody(demographicsPayload(), twice))).status);
  EXPECT_EQ(400, handle(post("/v1/demographics", hexadecimalBody({{"puid", "x"}}))).status);
  EXPECT_EQ(400, handle(post("/v1/demographics", "j=00")).status);
  EXPECT_EQ(400, handle(post("/v1/demographics", envelopeBody(demographicsPayload(), kKeys.tracking_key))).status);
  EXPECT_EQ(R"({"error":"the body is empty","where":"the request body","fix":"send the form parameter j"})",
            handle(post("/v1/demographics", "")).body);
}

TEST_F(ServiceTest, AScheduleIsSentOnceAndThenSaidToBeUnchanged) {
  const Json full = answer(post("/v2/schedule", "k=app-1&language=ko&checksum=init"));
  EXPECT_EQ(kNow, full["BaseTime"]);
  EXPECT_EQ(true, full["Result"]);
  EXPECT_EQ(kResultCodeFine, full["ResultCode"]);
  Schedule own;
  Json expected = own.current().members;
  expected["CheckSum"] = own.current().check_sum;
  EXPECT_EQ(expected, full["Data"]);
  const std::string check_sum = full["Data"]["CheckSum"];
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":true,"ResultCode":1001})",
            handle(post("/v2/schedule", "k=app-1&language=ko&checksum=" + check_sum)).body);
  EXPECT_EQ((Json{{"k", "app-1"}, {"language", "ko"}, {"checksum", check_sum}}), lastRequest()["payload"]);
  EXPECT_EQ(false, lastRequest()["counted"]);
}

TEST_F(ServiceTest, AScheduleRequestThatDoesNotFitIsRefused) {
  EXPECT_EQ(403, handle(post("/v2/schedule", "k=app-2&language=ko&checksum=init")).status);
  EXPECT_EQ("checksum is missing", answer(post("/v2/schedule", "k=app-1&language=ko"))["error"]);
  EXPECT_EQ(400, handle(post("/v2/schedule", "k=app-1&k=app-1")).status);
  EXPECT_EQ(400, handle(post("/v2/schedule", "")).status);
  EXPECT_EQ(400, handle(post("/v2/schedule", "nonsense")).status);
  EXPECT_EQ(415, handle(postJson("/v2/schedule", "{}")).status);
}

TEST_F(ServiceTest, AScheduleFileThatBrokeIsSaidAndRemembered) {
  const TemporaryFolder folder;
  replaceFile(folder.path("schedule"), "{\"CheckSum\":\"of the file\",\"a\":1}", kPublicMode);
  AnswerData data;
  data.schedule = Schedule(folder.path("schedule"));
  Store store(folder.path());
  Service service(
      kKeys, data, store, [] { return kNow; }, [](const std::string&) {});
  const HttpRequest request = post("/v2/schedule", "k=app-1&language=ko&checksum=init");
  const Json told = Json::parse(service.handle(request).body)["Data"];
  EXPECT_EQ(1, told["a"]);
  EXPECT_EQ(64U, told["CheckSum"].get<std::string>().size());
  replaceFile(folder.path("schedule"), "", kPublicMode);
  EXPECT_EQ(503, service.handle(request).status);
  const Json stored = Json::parse(service.handle(inspection("GET", "/inspect/requests")).body)["requests"].back();
  EXPECT_EQ("the schedule cannot be used: not JSON: byte 1 cannot be read", stored["refusal"]["error"]);
  EXPECT_EQ("init", stored["payload"]["checksum"]);
}

TEST_F(ServiceTest, AnErasureRequestIsTakenInByItsId) {
  EXPECT_EQ(R"({"subject_request_id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301"})",
            handle(postJson("/v1/erasure", erasureRequest().dump(2))).body);
  EXPECT_EQ("erasure", lastRequest()["endpoint"]);
  EXPECT_EQ(erasureRequest(), lastRequest()["payload"]);
  EXPECT_EQ(true, lastRequest()["counted"]);
}

TEST_F(ServiceTest, AnErasureRequestThatDoesNotFitIsRefused) {
  Json request = erasureRequest();
  request["extensions"]["erasure.morvik.example"]["appkey"] = "app-2";
  EXPECT_EQ(403, handle(postJson("/v1/erasure", jsonText(request))).status);
  request = erasureRequest();
  request["api_version"] = 1.0;
  EXPECT_EQ("api_version is not a string", answer(postJson("/v1/erasure", jsonText(request)))["error"]);
  EXPECT_EQ(false, lastRequest()["counted"]);
  EXPECT_EQ(400, handle(postJson("/v1/erasure", "[]")).status);
  EXPECT_EQ(400, handle(postJson("/v1/erasure", "{")).status);
  EXPECT_EQ(400, handle(postJson("/v1/erasure", "")).status);
  EXPECT_EQ(415, handle(post("/v1/erasure", jsonText(erasureRequest()))).status);
}

TEST_F(ServiceTest, EveryEndpointMisbehavesOnRequest) {
  for (const std::string& name : endpointNames()) {
    SCOPED_TRACE(name);
    const Endpoint& endpoint =
        *std::find_if(endpoints().begin(), endpoints().end(), [&](const Endpoint& each) { return each.name == name; });
    HttpRequest request = post(std::string(endpoint.path), "");
    request.method = endpoint.method;
    misbehave(R"({"endpoint":")" + name + R"(","kind":"status","status":599})");
    EXPECT_EQ(599, handle(request).status);
    EXPECT_NE(599, handle(request).status);
  }
}

TEST_F(ServiceTest, AMisbehavingAnswerIsStoredAndCountsOnlyWhereItShould) {
  misbehave(R"({"endpoint":"tracking","kind":"status","status":500})");
  EXPECT_EQ(500, handle(postTracking(trackingPayload({"a"}))).status);
  EXPECT_EQ(0, inspected("events")["distinct"]);
  EXPECT_EQ(500, lastRequest()["behaviour"]["status"]);
  misbehave(R"({"endpoint":"tracking","kind":"close_after"})");
  EXPECT_TRUE(handle(postTracking(trackingPayload({"a"}))).close_without_answer);
  EXPECT_EQ(1, inspected("events")["distinct"]);
  EXPECT_EQ(200, handle(postTracking(trackingPayload({"a"}))).status);
  EXPECT_EQ(2, inspected("events")["arrivals"]);
}

TEST_F(ServiceTest, AnAnswerThatDoesNotCountTheEventsDoesNotAcceptThemEither) {
  misbehave(R"({"endpoint":"tracking","kind":"delay","milliseconds":5,"count_events":false})");
  const HttpReply reply = handle(postTracking(trackingPayload({"a"})));
  EXPECT_EQ(std::chrono::milliseconds(5), reply.delay);
  EXPECT_EQ(R"({"BaseTime":1709251199999,"Result":false})", reply.body);
}

TEST_F(ServiceTest, MisbehaviourMeetsRefusedRequestsToo) {
  misbehave(R"({"endpoint":"tracking","kind":"not_object"})");
  EXPECT_EQ(200, handle(post("/v1/tracking", "nonsense")).status);
  EXPECT_EQ(400, handle(post("/v1/tracking", "nonsense")).status);
}

TEST_F(ServiceTest, MisbehaviourOfOneEndpointLeavesTheOthersAlone) {
  misbehave(R"({"endpoint":"conversion","kind":"status","status":500})");
  EXPECT_EQ(200, handle(postTracking(trackingPayload({"a"}))).status);
  EXPECT_EQ(500, handle(postConversion(conversionPayload())).status);
}

TEST_F(ServiceTest, ChangedAttributionDataAreAnsweredFromThenOn) {
  handle(inspection("POST", "/inspect/attribution", R"({"deeplink":"my://offer"})"));
  EXPECT_EQ("my://offer", answer(postConversion(conversionPayload()))["Data"]["deeplink"]);
}

TEST_F(ServiceTest, TwoInstallsHaveTwoNumbers) {
  Json other = conversionPayload();
  other["install_id"] = "another";
  const std::int64_t first = answer(postConversion(conversionPayload()))["Data"]["user_no"];
  const std::int64_t second = answer(postConversion(other))["Data"]["user_no"];
  EXPECT_EQ(first + 1, second);
  EXPECT_EQ(first, answer(postConversion(conversionPayload()))["Data"]["user_no"]);
}

TEST_F(ServiceTest, EveryRequestIsOneReadableLine) {
  handle(postTracking(trackingPayload({"a", ""})));
  handle(post("/v1/track\ning", ""));
  misbehave(R"({"endpoint":"tracking","kind":"close_before"})");
  handle(postTracking(trackingPayload({"a"})));
  ASSERT_EQ(3U, lines_.size());
  const std::string head = "2024-02-29T23:59:59.999Z #1 POST /v1/tracking ";
  EXPECT_EQ(head, lines_[0].substr(0, head.size()));
  const std::string tail = " -> 200; 1 new events, 0 seen before, 0 impressions, 1 events without id";
  EXPECT_EQ(tail, lines_[0].substr(lines_[0].size() - tail.size()));
  EXPECT_EQ("2024-02-29T23:59:59.999Z #2 POST /v1/track?ing 0 bytes -> 404; refused: there is nothing at this path",
            lines_[1]);
  const std::string closed = " -> connection closed; asked to misbehave: close_before";
  EXPECT_EQ(closed, lines_[2].substr(lines_[2].size() - closed.size()));
}

TEST_F(ServiceTest, ALongPathIsCutInTheLine) {
  handle(post("/" + std::string(5000, 'x'), ""));
  EXPECT_LT(lines_[0].size(), 400U);
}

TEST_F(ServiceTest, WhatARefusalQuotesStaysWithinItsLine) {
  Json report = crashReport("boom");
  report["x\n#9 all is well \x1B[2J" + std::string(5000, 'y')] = 1;
  EXPECT_EQ(400, handle(postJson("/v1/crash", jsonText(Json::array({report})))).status);
  ASSERT_EQ(1U, lines_.size());
  EXPECT_NE(std::string::npos, lines_[0].find("; refused: [0].x?#9 all is well ?[2Jyyy")) << lines_[0];
  EXPECT_EQ(std::string::npos, lines_[0].find_first_of("\n\x1B"));
  EXPECT_LT(lines_[0].size(), 400U);
}

TEST_F(ServiceTest, TheSecretKeysAreNeverShown) {
  handle(postTracking(trackingPayload({"a"})));
  handle(postConversion(conversionPayload(), "/v1/tracking"));
  std::string shown;
  for (const char* path : {"requests", "events", "behaviour", "attribution"})
    shown += jsonText(inspected(path));
  for (const std::string& line : lines_)
    shown += line;
  EXPECT_EQ(std::string::npos, shown.find(kKeys.hash_key));
  EXPECT_EQ(std::string::npos, shown.find(kKeys.tracking_key));
}

TEST_F(ServiceTest, RequestsFromSeveralThreadsAreAllCounted) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 10; ++i) {
        service_.handle(postTracking(trackingPayload({std::to_string(t) + "-" + std::to_string(i), "shared"})));
        service_.handle(inspection("GET", "/inspect/events"));
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(41, inspected("events")["distinct"]);
  EXPECT_EQ(80, inspected("events")["arrivals"]);
}

TEST(Service, WhoLooksDoesNotWaitForTheRequestOfADevice) {
  const TemporaryFolder folder;
  Store store(folder.path());
  std::promise<void> reached;
  std::promise<void> go_on;
  const std::shared_future<void> may_go_on = go_on.get_future().share();
  std::atomic<bool> is_held{false};
  const Clock clock = [&] {
    if (is_held.exchange(false)) {
      reached.set_value();
      may_go_on.wait();
    }
    return kNow;
  };
  Service service(kKeys, AnswerData(), store, clock, [](const std::string&) {});
  service.handle(postConversion(conversionPayload()));
  is_held = true;
  std::thread device([&] { service.handle(postTracking(trackingPayload({"a"}))); });
  reached.get_future().wait();
  for (const char* path : {"requests", "summaries", "events", "installs", "behaviour", "attribution", "ledger"})
    EXPECT_EQ(200, service.handle(inspection("GET", "/inspect/" + std::string(path))).status) << path;
  EXPECT_EQ(200, service.handle(inspection("POST", "/inspect/attribution", "{}")).status);
  EXPECT_EQ(1, store.newestRequest());
  go_on.set_value();
  device.join();
  EXPECT_EQ(2, store.newestRequest());
}

TEST(Service, ADiskThatRefusesIsSaidAndNothingIsAccepted) {
  const TemporaryFolder folder;
  { const Store store(folder.path()); }
  {
    // Simulates the effect of a full disk on an insertion.
    SQLite::Database database(folder.path("service.sqlite3"), SQLite::OPEN_READWRITE);
    database.exec("CREATE TRIGGER full BEFORE INSERT ON events BEGIN SELECT RAISE(FAIL, 'disk is full'); END");
  }
  Store store(folder.path());
  std::vector<std::string> lines;
  Service service(
      kKeys, AnswerData(), store, [] { return kNow; }, [&](const std::string& line) { lines.push_back(line); });
  const HttpReply reply = service.handle(postTracking(trackingPayload({"a"})));
  EXPECT_EQ(503, reply.status);
  EXPECT_EQ("the store cannot take this in: disk is full", Json::parse(reply.body)["error"]);
  EXPECT_EQ(std::vector<std::string>{"2024-02-29T23:59:59.999Z the store failed: disk is full"}, lines);
  EXPECT_EQ(200, service.handle(postConversion(conversionPayload())).status);
}

TEST_F(ServiceTest, ThePageAndTheInspectionAreForThoseWhoMayAsk) {
  EXPECT_EQ(200, handle(inspection("GET", "/")).status);
  for (const char* path : {"/", "/page/main.js", "/inspect/requests", "/inspect/stream"}) {
    HttpRequest request = inspection("GET", path);
    request.headers[0].second = "evil.example";
    EXPECT_EQ(403, handle(request).status) << path;
    request.headers[0].second = "localhost";
    request.from_loopback = false;
    EXPECT_EQ(403, handle(request).status) << path;
  }
  HttpRequest request = inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking","kind":"garbage"})");
  request.headers.emplace_back("Origin", "https://evil.example");
  EXPECT_EQ(403, handle(request).status);
  EXPECT_TRUE(inspected("behaviour")["behaviours"].empty());
}

TEST_F(ServiceTest, WhatIsServedToBrowsersKeepsToItself) {
  for (const char* path : {"/", "/inspect/summaries"}) {
    const HttpReply reply = handle(inspection("GET", path));
    for (const auto& header : adminHeaders())
      EXPECT_EQ(1, std::count(reply.headers.begin(), reply.headers.end(), header)) << path << header.first;
  }
}

TEST_F(ServiceTest, ARefusalKeepsToItselfToo) {
  HttpRequest stranger = inspection("GET", "/inspect/requests");
  stranger.headers[0].second = "evil.example";
  for (const HttpRequest& request : {stranger, inspection("GET", "/inspect/nothing"), inspection("POST", "/")}) {
    const HttpReply reply = handle(request);
    EXPECT_LE(400, reply.status);
    for (const auto& header : adminHeaders())
      EXPECT_EQ(1, std::count(reply.headers.begin(), reply.headers.end(), header)) << request.path << header.first;
  }
}

TEST_F(ServiceTest, APageOfAnotherSiteChangesNothingAtTheEndpointsEither) {
  misbehave(R"({"endpoint":"crash","kind":"garbage"})");
  for (const char* path : {"/v1/crash", "/v1/nothing"}) {
    HttpRequest request = postJson(path, "[]");
    request.headers.emplace_back("Sec-Fetch-Site", "cross-site");
    EXPECT_EQ(403, handle(request).status) << path;
  }
  EXPECT_TRUE(inspected("requests")["requests"].empty());
  EXPECT_EQ(1U, inspected("behaviour")["behaviours"].size());
}

TEST_F(ServiceTest, NoAnswerShowsTheHashKeyOrTheTrackingKey) {
  // Keys sent by mistake, in every place that holds text.
  for (const std::string& key : {kKeys.hash_key, kKeys.tracking_key}) {
    HttpRequest request = post("/v1/tracking", "k=" + key + "&j=" + key);
    request.headers.emplace_back("Authorization", key);
    request.headers.emplace_back("X-Key-" + key, key);
    handle(request);
    handle(post("/" + key, key));
    handle(get("/" + key + "/config.json"));
    Json payload = conversionPayload();
    payload["install_id"] = key;
    payload[key] = key;
    EXPECT_EQ(200, handle(postConversion(payload)).status);
    EXPECT_EQ(200, handle(postTracking(trackingPayload({key}))).status);
    EXPECT_EQ(200, handle(postCommerce(commerceClicks({key}))).status);
  }
  std::string all;
  for (const char* path : {"requests", "events", "summaries", "installs", "behaviour", "attribution", "forms"})
    all += handle(inspection("GET", "/inspect/" + std::string(path))).body;
  for (int id = 1; id <= 12; ++id) {
    HttpRequest request = inspection("GET", "/inspect/request");
    request.query = {{"id", std::to_string(id)}};
    all += handle(request).body;
  }
  HttpRequest stream = inspection("GET", "/inspect/stream");
  stream.query = {{"after", "0"}};
  all += *handle(stream).stream->next({});
  all += handle(inspection("GET", "/")).body;
  EXPECT_NE(std::string::npos, all.find("\"id\":12"));
  for (const std::string& line : lines_)
    all += line;
  for (const std::string& key : {kKeys.hash_key, kKeys.tracking_key})
    EXPECT_EQ(std::string::npos, all.find(key)) << all.substr(all.find(key) - 100, 200);
}

}  // namespace
}  // namespace morvik_service
