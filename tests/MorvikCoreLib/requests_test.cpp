// The table of requests: where each goes and what it carries.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Dictionary;
using kit::HttpHeader;
using kit::Value;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::WorldOptions;

struct RequestCase {
  const char* name;
  void (*start)(MorvikCoreLib&, const Value&);
  const char* url;
  const char* method;
  std::vector<HttpHeader> headers;
  std::optional<double> timeout_seconds;
  const char* body = "k=app&j=a%2Bb";
};

const std::vector<HttpHeader> kFormAndGzip = {{"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"},
                                              {"Accept-Encoding", "gzip"}};

const std::vector<HttpHeader> kForm = {{"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"}};

const std::vector<RequestCase> kRequests = {
    {"tracking", [](MorvikCoreLib& core, const Value& parameters) { core.tracking(parameters); },
     "https://tracking.morvik.example/v1/tracking", "POST", kFormAndGzip, 15.0},
    {"conversion", [](MorvikCoreLib& core, const Value& parameters) { core.conversion(parameters); },
     "https://conversion.morvik.example/v1/conversion", "POST", kFormAndGzip, 15.0},
    {"thirdPartyConversion",
     [](MorvikCoreLib& core, const Value& parameters) { core.thirdPartyConversion(parameters); },
     "https://conversion.morvik.example/v1/thirdparty-conversion", "POST", kFormAndGzip, 15.0},
    {"iAdAttribution", [](MorvikCoreLib& core, const Value& parameters) { core.iAdAppAttributionTracking(parameters); },
     "https://conversion.morvik.example/v1/iad-attribution", "POST", kFormAndGzip, 15.0},
    {"reEngagementConversion",
     [](MorvikCoreLib& core, const Value& parameters) { core.reEngagementConversion(parameters); },
     "https://conversion.morvik.example/v1/reengagement-conversion", "POST", kFormAndGzip, 15.0},
    {"commerceConversion",
     [](MorvikCoreLib& core, const Value&) { core.commerceConversion(); },
     "https://commerce.morvik.example/v1/commerce-conversion",
     "POST",
     {{"Accept-Encoding", "gzip"}, {"Content-Type", "application/json"}},
     15.0,
     R"([{"clickId":"a+b"}])"},
    {"appConfiguration",
     [](MorvikCoreLib& core, const Value&) { core.getPremiumPostbackInfoss(); },
     "https://config.morvik.example/test-app/config.json",
     "GET",
     {{"Accept", "application/json"}, {"Content-Type", "application/json; charset=UTF-8"}},
     std::nullopt,
     ""},
    {"demographics", [](MorvikCoreLib& core, const Value& parameters) { core.sendUserDemoInfos(parameters); },
     "https://tracking.morvik.example/v1/demographics", "POST", kForm, 15.0},
    {"schedule", [](MorvikCoreLib& core, const Value& parameters) { core.getSchedule(parameters); },
     "https://campaign.morvik.example/v2/schedule", "POST", kForm, 15.0},
    {"crashReports",
     [](MorvikCoreLib& core, const Value&) { core.sendCrashInfos(); },
     "https://crash.morvik.example/v1/crash",
     "POST",
     {{"Content-Type", "application/json; charset=utf-8"}},
     15.0,
     R"([{"exception_reason":"a+b"}])"},
};

class Requests : public ::testing::TestWithParam<RequestCase> {
 protected:
  Requests() {
    world.userDefaults().setCommerceConversionInfos(kit::Array{Dictionary{{"clickId", "a+b"}}});
    world.userDefaults().setMorvikCoreUserInfo_Crash(kit::Array{Dictionary{{"exception_reason", "a+b"}}});
  }
  void start() {
    world.loop.perform([this] { GetParam().start(world.core(), Dictionary{{"k", "app"}, {"j", "a+b"}}); });
  }
  TestWorld world{WorldOptions::attributed()};
};

TEST_P(Requests, GoWhereAndHowTheTableSays) {
  start();
  const auto sent = world.transport.requests();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].url, GetParam().url);
  EXPECT_EQ(sent[0].method, GetParam().method);
  EXPECT_EQ(sent[0].headers, GetParam().headers);
  EXPECT_EQ(sent[0].timeout_seconds, GetParam().timeout_seconds);
  EXPECT_EQ(sent[0].body, GetParam().body);
  EXPECT_EQ(sent[0].max_answer_bytes, 4U * 1024 * 1024);
}

TEST_P(Requests, AreNotMadeAndLeaveNoLineUnderForgetMe) {
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  start();
  EXPECT_THAT(world.transport.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_P(Requests, LogNothingAtLevelZero) {
  world.sharedState().log_levels._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vOff;
  world.log.clear();
  world.transport.goOffline();
  start();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Table, Requests, ::testing::ValuesIn(kRequests),
                         [](const auto& row) { return row.param.name; });

TEST(RequestBases, AreTheHostAppsOwnWhereItSetsThem) {
  WorldOptions options = WorldOptions::attributed();
  options.endpoints.kFendoTrackingBaseLiveUrl = "https://data.example/here/";
  TestWorld world(options);
  world.loop.perform([&] { world.core().tracking(Dictionary{{"j", "x"}}); });
  EXPECT_EQ(world.transport.requests().at(0).url, "https://data.example/here/v1/tracking");
}

TEST(ErasureRequest, LeavesUnderForgetMeAndLogsNothingAtLevelZero) {
  TestWorld world(WorldOptions::attributed());
  world.services().setIsGDPRForgetMe(true);
  world.sharedState().log_levels._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vOff;
  world.log.clear();
  world.transport.goOffline();
  world.loop.perform([&] { world.core().gdprForgetMe(true); });
  ASSERT_EQ(world.requests().size(), 1U);
  EXPECT_EQ(world.requests()[0].headers,
            (std::vector<HttpHeader>{{"Accept-Encoding", "application/json"}, {"Content-Type", "application/json"}}));
  EXPECT_EQ(world.requests()[0].timeout_seconds, 15.0);
  EXPECT_EQ(world.requests()[0].max_answer_bytes, 4U * 1024 * 1024);
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST(RequestBases, OfCrashScheduleAndErasureAreTheHostAppsOwnToo) {
  WorldOptions options = WorldOptions::attributed();
  options.endpoints.kCrashReportBaseLiveUrl = "https://data.example/crashes/";
  options.endpoints.kFendoCampaignBaseLiveUrl = "https://data.example/campaigns/";
  options.endpoints.kGdprReqUrl = "https://data.example/privacy/";
  TestWorld world(options);
  world.loop.perform([&] {
    world.core().sendCrashInfos();
    world.core().getSchedule(Value());
    world.core().gdprForgetMe(true);
  });
  EXPECT_EQ(world.transport.requests().at(0).url, "https://data.example/crashes/v1/crash");
  EXPECT_EQ(world.transport.requests().at(1).url, "https://data.example/campaigns/v2/schedule");
  EXPECT_EQ(world.transport.requests().at(2).url, "https://data.example/privacy/v1/erasure");
}

TEST(RequestBases, OfCommerceAndConfigurationAreTheHostAppsOwnToo) {
  WorldOptions options = WorldOptions::attributed();
  options.endpoints.kCommerceBaseLiveUrl = "https://data.example/shop/";
  options.endpoints.KAppConfigBaseLiveUrl = "https://data.example/config/";
  options.store["commerceConversionInfos"] = kit::Array{};
  TestWorld world(options);
  world.loop.perform([&] {
    world.core().commerceConversion();
    world.core().getPremiumPostbackInfoss();
  });
  EXPECT_EQ(world.transport.requests().at(0).url, "https://data.example/shop/v1/commerce-conversion");
  EXPECT_EQ(world.transport.requests().at(1).url, "https://data.example/config/test-app/config.json");
}

}  // namespace
}  // namespace morvik
