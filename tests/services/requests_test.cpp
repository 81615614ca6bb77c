#include "services/requests.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/describe.h"
#include "testing/fake_crypto.h"
#include "testing/fake_services_lib.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::HttpHeader;
using kit::Value;
using testing::Answer;

const kit::Endpoints kBases{.kFendoCampaignBaseLiveUrl = "https://a.example/",
                            .kCrashReportBaseLiveUrl = "https://crash.example/"};
const HttpHeader kFormHeader = {"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"};

TEST(PostRequest, IsAFormWithTheCommonTimeOut) {
  const kit::Request request =
      postRequest(kBases, Endpoint::kGetSchedule, Dictionary{{"k", "a"}}, AcceptEncoding::kUnset).request();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://a.example/v2/schedule");
  EXPECT_EQ(request.body, "k=a");
  EXPECT_EQ(request.headers, std::vector<HttpHeader>{kFormHeader});
  EXPECT_EQ(request.timeout_seconds, 15.0);
}

TEST(PostRequest, AsksForGzipWhereThatIsSet) {
  const kit::Request request =
      postRequest(kBases, Endpoint::kGetSchedule, Dictionary{{"k", "a"}}, AcceptEncoding::kGzip).request();
  EXPECT_EQ(request.headers, (std::vector<HttpHeader>{kFormHeader, {"Accept-Encoding", "gzip"}}));
}

TEST(PostRequest, HasAnEmptyBodyWithoutParameters) {
  const kit::Request request = postRequest(kBases, Endpoint::kGetSchedule, Value(), AcceptEncoding::kGzip).request();
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.headers, (std::vector<HttpHeader>{{"Accept-Encoding", "gzip"}}));
  EXPECT_EQ(request.timeout_seconds, 15.0);
}

TEST(JsonPostRequest, CarriesTheParametersAsJsonText) {
  const kit::Request request =
      jsonPostRequest(kBases, Endpoint::kCrashReport, kit::Array{Dictionary{{"a", 1}}}).request();
  EXPECT_EQ(request.url, "https://crash.example/v1/crash");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, R"([{"a":1}])");
  EXPECT_EQ(request.headers, (std::vector<kit::HttpHeader>{{"Content-Type", "application/json; charset=utf-8"}}));
  EXPECT_EQ(request.timeout_seconds, 15.0);
  EXPECT_EQ(jsonPostRequest(kBases, Endpoint::kCrashReport, kit::Array{}).request().body, "[]");
  EXPECT_EQ(jsonPostRequest(kBases, Endpoint::kCrashReport, Value()).request().body, "");
}

class RunningRequest : public ::testing::Test {
 protected:
  void runWith(const Answer& answer) {
    transport.on("v2/schedule").then(answer);
    loop.perform([this] {
      run(
          {transport, codec, services}, postRequest(kBases, Endpoint::kGetSchedule, Value(), AcceptEncoding::kGzip),
          [this](const Value& json) { heard.push_back("success " + describe(json)); },
          [this](const std::optional<kit::Response>& response, const kit::Error& error) {
            heard.push_back("failure " + std::to_string(statusCode(response)) + ' ' + error.message);
          });
      EXPECT_TRUE(heard.empty());
    });
    loop.advance(100);
  }
  testing::VirtualLoop loop;
  testing::MemoryStore store;
  kit::ListLock lock;
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  testing::FakeServicesLib services{MorvikGVUserDefaults(store, lock), {cipher, compressor, random}};
  testing::ScriptedTransport transport{loop};
  testing::PlainJsonCodec codec;
  std::vector<std::string> heard;
};

TEST_F(RunningRequest, HandsTheJsonToTheSuccessHandler) {
  runWith(Answer::json(Dictionary{{"Result", true}}));
  EXPECT_EQ(heard, std::vector<std::string>{"success {\"Result\":true}"});
}

TEST_F(RunningRequest, HandsResponseAndErrorToTheFailureHandler) {
  runWith(Answer::json(404, Dictionary{}));
  EXPECT_EQ(heard, std::vector<std::string>{"failure 404 The server answered with status 404."});
}

TEST_F(RunningRequest, FailsWithStatus0WithoutAResponse) {
  runWith(Answer::error("no route"));
  EXPECT_EQ(heard, std::vector<std::string>{"failure 0 no route"});
}

TEST_F(RunningRequest, IsStoppedByForgetMe) {
  services.setIsGDPRForgetMe(true);
  runWith(Answer::json(Dictionary{}));
  EXPECT_TRUE(heard.empty());
  EXPECT_TRUE(transport.requests().empty());
}

}  // namespace
}  // namespace morvik::services
