#include "testing/simulated_service.h"

#include <gtest/gtest.h>

#include "services/MorvikADAFHTTPClient.h"
#include "services/json_writer.h"
#include "services/text_codes.h"
#include "testing/fake_crypto.h"
#include "testing/json_reader.h"
#include "testing/virtual_loop.h"
#include "testing/world.h"

namespace morvik::test {
namespace {

using kit::Value;
using testing::json;
using testing::ServedRequest;
using testing::ServiceEndpoint;
using testing::SimulatedService;

class SimulatedServiceTest : public ::testing::Test {
 protected:
  static kit::Request requestTo(const std::string& path, std::string body) {
    return {.method = "POST", .url = "https://service.example/" + path, .body = std::move(body)};
  }
  kit::Request sealed(const std::string& path, const Value& payload, const std::string& key,
                      const std::string& app_key = "app") {
    const auto envelope = services::makeEnvelope(tools, app_key, payload, key);
    return requestTo(path, services::formEncoded(std::get<Value>(envelope).dictionary()));
  }
  kit::Request batch(const std::string& payload) { return sealed("v1/tracking", json(payload), "tracking"); }
  kit::Request conversion(const std::string& install_id) {
    return sealed("v1/conversion", kit::Dictionary{{"install_id", install_id}}, "hashhash");
  }
  std::string sealedText(std::string_view plain) {
    return std::get<std::string>(services::seal(tools, "tracking", plain, services::Compression::kNever));
  }
  /// The answer that the device gets: status and body.
  std::string answerTo(const kit::Request& request) { return sent(service.serve(request), request); }
  std::string answerWithoutCounting(const kit::Request& request) {
    return sent(service.answer(service.receive(request, SimulatedService::Counting::kNo)), request);
  }
  std::string sent(testing::Answer answer, const kit::Request& request) {
    transport.on(request.url).then(std::move(answer));
    std::string text;
    loop.perform([&] {
      transport.start(request, [&text](const kit::TransportOutcome& outcome) {
        text = std::to_string(outcome.response->status_code) + " " + outcome.response->body;
      });
    });
    return text;
  }

  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  services::SealingTools tools{cipher, compressor, random};
  testing::VirtualLoop loop;
  testing::ScriptedTransport transport{loop};
  SimulatedService service{tools, {"app", "hash", "tracking"}, [this] { return loop.now(); }};
};

TEST_F(SimulatedServiceTest, CountsEachEventOnceByItsId) {
  EXPECT_EQ(answerTo(batch(R"({"activity_info":[{"event_id":"a"},{"event_id":"b"}],"impression_info":[]})")),
            R"(200 {"BaseTime":1709251200000,"Result":true})");
  const ServedRequest again =
      service.receive(batch(R"({"activity_info":[{"event_id":"b"},{"event_id":"c"}],"impression_info":[]})"));
  EXPECT_EQ(again.events_new, 1u);
  EXPECT_EQ(again.events_again, 1u);
  EXPECT_EQ(service.arrivalsOf("a"), 1u);
  EXPECT_EQ(service.arrivalsOf("b"), 2u);
  EXPECT_EQ(service.arrivalsOf("d"), 0u);
  EXPECT_EQ(service.distinctEvents(), 3u);
  EXPECT_EQ(service.eventArrivals(), 4u);
  ASSERT_EQ(service.events().size(), 3u);
  EXPECT_EQ(service.events()[2]["event_id"], Value("c"));
}

TEST_F(SimulatedServiceTest, AcceptsOnlyWhatItCounted) {
  EXPECT_EQ(answerWithoutCounting(batch(R"({"activity_info":[{"event_id":"a"}],"impression_info":[]})")),
            R"(200 {"BaseTime":1709251200000,"Result":false})");
  EXPECT_EQ(service.distinctEvents(), 0u);
  EXPECT_EQ(answerWithoutCounting(conversion("i")), R"(200 {"BaseTime":1709251200000,"Result":false,"ResultCode":0})");
  EXPECT_EQ(answerWithoutCounting(
                sealed("v1/reengagement-conversion", json(R"({"deeplink_info":{"conversion_key":5}})"), "hashhash")),
            R"(200 {"BaseTime":1709251200000,"Result":false})");
  EXPECT_EQ(answerWithoutCounting(requestTo("v1/commerce-conversion", "[]")),
            R"(200 {"errMsg":"the clicks were not counted"})");
  EXPECT_EQ(answerWithoutCounting(requestTo("v1/crash", "[]")), R"(200 {"code":1})");
  EXPECT_EQ(answerWithoutCounting(requestTo("v1/demographics", "j=" + services::hexText(sealedText("{}")))),
            R"(200 {"Result":false})");
  EXPECT_EQ(answerWithoutCounting(requestTo("v1/erasure", "{}")), R"(503 {"error":"the request was not counted"})");
  EXPECT_EQ(answerWithoutCounting(requestTo("v2/schedule", "k=app&language=ko&checksum=init")),
            R"(200 {"BaseTime":1709251200000,"Result":false})");
  EXPECT_FALSE(service.requests().front().counted);
}

TEST_F(SimulatedServiceTest, AttributesEachInstallUnderANumberOfItsOwn) {
  EXPECT_EQ(answerTo(conversion("one")),
            R"(200 {"BaseTime":1709251200000,"Result":true,"ResultCode":0,"Data":{"user_no":100001,"shard_no":1,)"
            R"("referralKey":7,"subreferralKey":12,"refusn":"partner-7","channel_type":1,"referral_data":"",)"
            R"("reengagement_conversion_key":0,"reengagement_data":"","reengagement_datetime":0,)"
            R"("last_referral_key":7,"last_referral_data":"","last_referral_datetime":"20240301000000",)"
            R"("install_datetime":"20240301000000","conversion_key_list":[2001,2002],"deeplink":""}})");
  EXPECT_NE(answerTo(conversion("two")).find(R"("user_no":100002)"), std::string::npos);
  loop.advance(60);
  const std::string again = answerTo(conversion("one"));
  EXPECT_NE(again.find(R"("user_no":100001)"), std::string::npos);
  EXPECT_NE(again.find(R"("install_datetime":"20240301000000")"), std::string::npos);
  EXPECT_EQ(service.installs(), 2u);
}

TEST_F(SimulatedServiceTest, LaysChosenMembersOverTheReferralRecord) {
  service.setAttribution({{"referralKey", -1}, {"deeplink", "app://offer"}});
  const std::string answer = answerTo(conversion("one"));
  EXPECT_NE(answer.find(R"("referralKey":-1,"subreferralKey":12)"), std::string::npos);
  EXPECT_NE(answer.find(R"("deeplink":"app://offer"})"), std::string::npos);
}

TEST_F(SimulatedServiceTest, AnswersAConversionWithoutParametersWithItsCode) {
  EXPECT_EQ(answerTo(requestTo("v1/conversion", "")),
            R"(200 {"BaseTime":1709251200000,"Result":false,"ResultCode":1})");
  EXPECT_TRUE(service.requests().front().payload.isAbsent());
}

TEST_F(SimulatedServiceTest, TakesAClickByItsKey) {
  EXPECT_EQ(
      answerTo(sealed("v1/reengagement-conversion", json(R"({"deeplink_info":{"conversion_key":5}})"), "hashhash")),
      R"(200 {"BaseTime":1709251200000,"Result":true,"Data":{"conversion_result":{"conversion_key":5,)"
      R"("reengagement_data":"click 5","reengagement_datetime":20240301000000}}})");
}

TEST_F(SimulatedServiceTest, TakesPlainRequests) {
  EXPECT_EQ(answerTo(requestTo("v1/commerce-conversion", R"([{"clickId":"c"}])")), R"(200 {"errMsg":null})");
  EXPECT_EQ(answerTo(requestTo("v1/crash", "[]")), R"(200 {"code":0})");
  EXPECT_EQ(answerTo(requestTo("v1/erasure", R"({"subject_request_id":"ID"})")), R"(200 {"subject_request_id":"ID"})");
  EXPECT_EQ(answerTo(requestTo("v1/demographics", "j=" + services::hexText(sealedText(R"({"puid":"p"})")))),
            R"(200 {"Result":true})");
  ASSERT_EQ(service.requests(ServiceEndpoint::kCommerce).size(), 1u);
  EXPECT_EQ(service.requests(ServiceEndpoint::kCommerce)[0].payload, json(R"([{"clickId":"c"}])"));
  EXPECT_EQ(service.requests(ServiceEndpoint::kDemographics)[0].payload, json(R"({"puid":"p"})"));
  EXPECT_EQ(service.requestCount(), 4u);
  EXPECT_EQ(service.refusedCount(), 0u);
}

TEST_F(SimulatedServiceTest, SaysWhetherPremiumPostbacksAreOn) {
  EXPECT_EQ(answerTo(requestTo("app/config.json", "")), R"(200 {"commerce":{"premium_postback":"false"}})");
  service.setPremiumPostback(true);
  EXPECT_EQ(answerTo(requestTo("app/config.json", "")), R"(200 {"commerce":{"premium_postback":"true"}})");
}

TEST_F(SimulatedServiceTest, SendsAScheduleOnce) {
  service.setSchedule({{"spaces", kit::Array{1}}}, "sum");
  EXPECT_EQ(answerTo(requestTo("v2/schedule", "k=app&language=ko&checksum=init")),
            R"(200 {"BaseTime":1709251200000,"Result":true,"ResultCode":0,"Data":{"spaces":[1],"CheckSum":"sum"}})");
  EXPECT_EQ(answerTo(requestTo("v2/schedule", "k=app&language=ko&checksum=sum")),
            R"(200 {"BaseTime":1709251200000,"Result":true,"ResultCode":1001})");
}

TEST_F(SimulatedServiceTest, RefusesWhatItCannotRead) {
  EXPECT_EQ(answerTo(sealed("v1/tracking", json("{}"), "another key")),
            R"(400 {"error":"envelope: fake cipher: the key is wrong or the sealed text was changed"})");
  EXPECT_EQ(answerTo(sealed("v1/tracking", json("{}"), "tracking", "other")),
            R"(403 {"error":"the app key is another one: \"other\""})");
  EXPECT_EQ(answerTo(requestTo("v1/tracking", "")), R"(400 {"error":"the body is empty"})");
  EXPECT_EQ(answerTo(requestTo("v3/tracking", "k=1")),
            R"(404 {"error":"no endpoint has this path: https://service.example/v3/tracking"})");
  EXPECT_EQ(answerTo(batch(R"({"activity_info":[{}],"impression_info":[]})")),
            R"(400 {"error":"event_id of an activity is missing or of another kind"})");
  EXPECT_EQ(answerTo(batch(R"({"activity_info":[]})")),
            R"(400 {"error":"impression_info is missing or of another kind"})");
  EXPECT_EQ(answerTo(requestTo("v1/crash", "{}")),
            R"(400 {"error":"the array of the body is missing or of another kind"})");
  EXPECT_EQ(answerTo(requestTo("v2/schedule", "k=app&language=ko")),
            R"(400 {"error":"checksum is missing or of another kind"})");
  EXPECT_EQ(service.refusedCount(), 8u);
  EXPECT_FALSE(service.requests().back().counted);
  EXPECT_EQ(service.distinctEvents(), 0u);
}

TEST_F(SimulatedServiceTest, KeepsItsCountsWhenItForgetsRequests) {
  SimulatedService small(
      tools, {"app", "hash", "tracking"}, [this] { return loop.now(); }, 1);
  small.serve(batch(R"({"activity_info":[{"event_id":"a"},{"event_id":"b"}],"impression_info":[]})"));
  small.serve(requestTo("v1/crash", "[]"));
  EXPECT_EQ(small.requests().size(), 1u);
  EXPECT_EQ(small.events().size(), 1u);
  EXPECT_EQ(small.requestCount(), 2u);
  EXPECT_EQ(small.distinctEvents(), 2u);
}

// A device on the fakes, with this service.
TEST(SimulatedServiceOfADevice, AttributesTheInstallAndTakesItsEvents) {
  testing::TestWorld world;
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  SimulatedService service({cipher, compressor, random}, {"test-app", "test-hash", "test-tracking"},
                           [&] { return world.loop.now(); });
  world.transport.on("").alwaysBy(service.reply());
  world.ad_client.attribution_details.answerEveryCall({}, std::nullopt);
  world.becomeActive();
  world.recordEvent("shop", "purchase");
  world.enterBackground();
  world.loop.advance(1);
  EXPECT_EQ(service.installs(), 1u);
  EXPECT_EQ(service.refusedCount(), 0u);
  EXPECT_GE(service.distinctEvents(), 1u);
  EXPECT_EQ(service.distinctEvents(), service.eventArrivals());
}

}  // namespace
}  // namespace morvik::test
