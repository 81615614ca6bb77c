// Every line that the core writes on its ways without an exception: its level, its operation, its text.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/describe.h"
#include "tests/MorvikCoreLib/clicks.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Answer;
using testing::at;
using testing::TestWorld;
using testing::WorldOptions;

struct Line {
  const char* what;
  /// Brings the line about.
  void (*provoke)(TestWorld& world);
  const char* level;
  const char* operation;
  const char* message;
};

const Value kSomething = Dictionary{{"j", "x"}};
const Value kLinkOnly = Dictionary{{"Result", true}, {"Data", Dictionary{{"deeplink", "app://x"}}}};

void track(TestWorld& world) {
  world.loop.perform([&] { world.core().tracking(kSomething); });
}
void convert(TestWorld& world) {
  world.loop.perform([&] { world.core().conversion(kSomething); });
}
void convertThirdParty(TestWorld& world) {
  world.loop.perform([&] { world.core().thirdPartyConversion(kSomething); });
}
void reportIAd(TestWorld& world) {
  world.loop.perform([&] { world.core().iAdAppAttributionTracking(kSomething); });
}
void startTwice(TestWorld& world) {
  world.becomeActive();
  world.becomeActive();
}
void keepSession(TestWorld& world) {
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(30);
  world.becomeActive();
}
void answerEverythingWithFalse(TestWorld& world) {
  world.transport.on("").always(Answer::json(Dictionary{{"Result", false}}));
}
void dropLink(TestWorld& world) {
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  world.transport.on("").always(Answer::json(kLinkOnly));
}

void click(TestWorld& world) {
  testing::open(world, "app://x?ck=12&cid=shoe");
}
void reEngage(TestWorld& world) {
  world.loop.perform([&] { world.core().reEngagementConversion(kSomething); });
}
void sendCommerceClicks(TestWorld& world) {
  world.userDefaults().setCommerceConversionInfos(Array{});
  world.loop.perform([&] { world.core().commerceConversion(); });
}
void askForPremiumPostback(TestWorld& world) {
  world.transport.on("config.json")
      .always(Answer::json(Dictionary{{"commerce", Dictionary{{"premium_postback", true}}}}));
  world.loop.perform([&] { world.core().getPremiumPostbackInfoss(); });
}

void sendCrashes(TestWorld& world) {
  world.userDefaults().setMorvikCoreUserInfo_Crash(Array{Dictionary{{"exception_reason", "fendo"}}});
  world.loop.perform([&] { world.core().sendCrashInfos(); });
}
void forget(TestWorld& world) {
  world.loop.perform([&] { world.core().gdprForgetMe(true); });
}
void sendDemos(TestWorld& world) {
  world.loop.perform([&] { world.core().sendUserDemoInfos(kSomething); });
}
void askForSchedule(TestWorld& world) {
  world.loop.perform([&] { world.core().getSchedule(kSomething); });
}

constexpr const char* kTrackingHandler = "-[MorvikCoreLib tracking:]_block_invoke";
constexpr const char* kConversionHandler = "-[MorvikCoreLib conversion:]_block_invoke";
constexpr const char* kThirdPartyHandler = "-[MorvikCoreLib thirdPartyConversion:]_block_invoke";
constexpr const char* kCrashHandler = "-[MorvikCoreLib sendCrashInfos]_block_invoke";
constexpr const char* kErasureHandler = "-[MorvikCoreLib gdprForgetMe:]_block_invoke";
constexpr const char* kDemosHandler = "-[MorvikCoreLib sendUserDemoInfos:]_block_invoke";
constexpr const char* kScheduleHandler = "-[MorvikCoreLib getSchedule:]_block_invoke";
constexpr const char* kIAdHandler = "-[MorvikCoreLib iAdAppAttributionTracking:]_block_invoke";
constexpr const char* kReEngagementHandler = "-[MorvikCoreLib reEngagementConversion:]_block_invoke";
constexpr const char* kCommerceHandler = "-[MorvikCoreLib commerceConversion]_block_invoke";
constexpr const char* kPremiumHandler = "-[MorvikCoreLib getPremiumPostbackInfoss]_block_invoke";

const std::vector<Line> kLines = {
    {"Version", [](TestWorld& world) { world.restart(); }, "DEBUG", "-[MorvikCoreLib init]",
     "MRVK_QA-MorvikCore.framework Version : 1.2.3, app key : test-app, hash key : test-hash"},
    {"AlreadyStarted", startTwice, "TRACE", "-[MorvikCoreLib startSession]",
     "MRVK_QA-[MorvikCoreLib Info] Already startSession be called, this process not be execute til endSession be "
     "called!!!"},
    {"KeysClearedAtStart",
     [](TestWorld& world) {
       world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
       world.becomeActive();
     },
     "TRACE", "-[MorvikCoreLib startSession]", "MRVK_QA-clear fendoActivityInfosSentEventKeys on startSession: []"},
    {"KeptSession", keepSession, "TRACE", "-[MorvikCoreLib startSession]",
     "MRVK_QA-[MorvikCoreLib]Keep Session on startSession : skip start activity "},
    {"BackgroundTimeIsOver",
     [](TestWorld& world) {
       world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
       world.enterBackground();
       world.loop.advance(31);
     },
     "DEBUG", "-[MorvikCoreLib enterBackground]_block_invoke", "MRVK_QA-UIBackgroundTaskInvalid..."},
    {"TrackingBlocked",
     [](TestWorld& world) {
       world.core().set_isTrackingCalled(true);
       EXPECT_TRUE(world.core().makeTrackingParameter(EndActivities::kSend).isAbsent());
     },
     "TRACE", "-[MorvikCoreLib makeTrackingParameter:]",
     "MRVK_QA-MorvikCoreLib tracking is blocked  because the tracking is working now, this activitis will be send "
     "again on endSession"},
    {"EndFiltered",
     [](TestWorld& world) {
       world.userDefaults().setFendoActivityInfos(Array{testing::activity("session", "end", at(1), "e1")});
       EXPECT_TRUE(world.core().makeTrackingParameter(EndActivities::kFilter).isDictionary());
     },
     "TRACE", "-[MorvikCoreLib makeTrackingParameter:]", "RVK_QA-MorvikCoreLib tracking filter activity eventId - e1"},
    {"TrackingAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       track(world);
     },
     "DEBUG", kTrackingHandler, "MRVK_QA-tracking_JSON: {\"Result\":false}"},
    {"TrackingStatus", track, "ERROR", kTrackingHandler, "MRVK_QA-Recieved an HTTP 0"},
    {"TrackingError", track, "ERROR", kTrackingHandler, "MRVK_QA-The error was: down"},
    {"KeysClearedAfterFailure", track, "TRACE", kTrackingHandler,
     "MRVK_QA-clear fendoActivityInfosSentEventKeys on request failure: (null)"},
    {"ConversionParameters", convert, "DEBUG", "-[MorvikCoreLib conversion:]",
     "MRVK_QA-conversion_parameterInfo : {\"j\":\"x\"}"},
    {"ConversionUrl", convert, "TRACE", "-[MorvikCoreLib conversion:]",
     "MRVK_QA-conversion_request.URL.absoluteString : https://conversion.morvik.example/v1/conversion"},
    {"ConversionAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       convert(world);
     },
     "DEBUG", kConversionHandler, "MRVK_QA-conversion_JSON: {\"Result\":false}"},
    {"LinkDropped",
     [](TestWorld& world) {
       dropLink(world);
       convert(world);
     },
     "CRITICAL", kConversionHandler, "IDFA not passed!"},
    {"ConversionStatus", convert, "ERROR", kConversionHandler, "MRVK_QA-Recieved an HTTP 0"},
    {"ConversionError", convert, "ERROR", kConversionHandler, "MRVK_QA-The error was: down"},
    {"ConversionRetry", convert, "TRACE", kConversionHandler, "MRVK_QA-MorvikCore reTry reGetReferral"},
    {"ThirdPartyParameters", convertThirdParty, "DEBUG", "-[MorvikCoreLib thirdPartyConversion:]",
     "MRVK_QA-thirdPartyConversion parameterInfo : {\"j\":\"x\"}"},
    {"ThirdPartyUrl", convertThirdParty, "TRACE", "-[MorvikCoreLib thirdPartyConversion:]",
     "MRVK_QA-thirdPartyConversion_request.URL.absoluteString : "
     "https://conversion.morvik.example/v1/thirdparty-conversion"},
    {"ThirdPartyAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       convertThirdParty(world);
     },
     "DEBUG", kThirdPartyHandler, "MRVK_QA-thirdPartyConversion_JSON: {\"Result\":false}"},
    {"ThirdPartyLinkDropped",
     [](TestWorld& world) {
       dropLink(world);
       convertThirdParty(world);
     },
     "CRITICAL", kThirdPartyHandler, "MRVK_QA-thirdPartyConversion_IDFA not passed!"},
    {"ThirdPartyStatus", convertThirdParty, "ERROR", kThirdPartyHandler,
     "MRVK_QA-thirdPartyConversion_Recieved an HTTP 0"},
    {"ThirdPartyError", convertThirdParty, "ERROR", kThirdPartyHandler,
     "MRVK_QA-thirdPartyConversion_The error was: down"},
    {"RecordSaved", [](TestWorld& world) { world.core().saveFendoUserInfo({}); }, "TRACE",
     "-[MorvikCoreLib saveFendoUserInfo:shardNum:referralKey:subReferralKey:refUSN:channelType:shardNo:referralData:"
     "reengagementConversionKey:reengagementData:reengagementDateTime:lastReferralKey:lastReferralData:"
     "lastReferralDatetime:installDatetime:installmDatetime:]",
     "MRVK_QA-fendoUserNo : 0, referralKey : 0, subReferralKey : 0, refUSN : , channelType : 0, shardNo : 0, "
     "referralData :  reengagementDateTime : 0"},
    {"NewerIAdCall",
     [](TestWorld& world) {
       world.ad_client.conversion_details.letCallsWait();
       world.loop.perform([&] { world.core().iAdConversion(); });
     },
     "DEBUG", "-[MorvikCoreLib iAdConversion]", "MRVK_QA-iOS 8 call exists"},
    {"OlderIAdCall",
     [](TestWorld& world) {
       world.ad_client.installation_attribution.letCallsWait();
       world.loop.perform([&] { world.core().iAdConversion(); });
     },
     "DEBUG", "-[MorvikCoreLib iAdConversion]", "MRVK_QA-iOS 7.1 call exists"},
    {"IAdAnswer",
     [](TestWorld& world) {
       world.ad_client.conversion_details.answerEveryCall(std::nullopt, at(0));
       world.loop.perform([&] { world.core().iAdConversion(); });
     },
     "DEBUG", "-[MorvikCoreLib iAdConversion]_block_invoke", "MRVK_QA-iAdOriginatedInstallation : 1"},
    {"IAdParameters", reportIAd, "DEBUG", "-[MorvikCoreLib iAdAppAttributionTracking:]",
     "MRVK_QA-iAdAppAttributionTracking_parameterInfo : {\"j\":\"x\"}"},
    {"IAdAttribution",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       reportIAd(world);
     },
     "DEBUG", kIAdHandler, "MRVK_QA-iAdAppAttributionTracking_JSON: {\"Result\":false}"},
    {"IAdStatus", reportIAd, "ERROR", kIAdHandler, "MRVK_QA-iAdAppAttributionTracking_Recieved an HTTP 0"},
    {"IAdError", reportIAd, "ERROR", kIAdHandler, "MRVK_QA-iAdAppAttributionTracking_The error was: down"},
    {"OpenedUrl", click, "TRACE", "-[MorvikCoreLib passOpenURL:]",
     "MRVK_QA-P.O. URL : app://x?ck=12&cid=shoe, getURLParamaters : {\"ck\":\"12\",\"cid\":\"shoe\"}"},
    {"OpenedUrlWithoutQuery", [](TestWorld& world) { testing::open(world, "app://x"); }, "TRACE",
     "-[MorvikCoreLib passOpenURL:]", "MRVK_QA-P.O. URL : app://x, getURLParamaters : (null)"},
    {"CommerceClicks", click, "TRACE", "-[MorvikCoreLib passOpenURL:]",
     "MRVK_QA-commerceConversionInfos : [{\"clickId\":\"shoe\",\"idfa\":\"00000000-0000-4000-8000-0000000000AD\","
     "\"mtime\":1709251200000}]"},
    {"ReEngagementUrl", click, "TRACE", "-[MorvikCoreLib passOpenURL:]",
     "MRVK_QA-ReEngagement_URL : app://x?ck=12&cid=shoe"},
    {"DeepLinkConversionUrl",
     [](TestWorld& world) { testing::open(world, "app://x?ck=1&isFacebookCpi=1&mrvk_deeplink_cvr=1&sn=1"); }, "TRACE",
     "-[MorvikCoreLib passOpenURL:]",
     "MRVK_QA-ReEngagement_URL : app://x?ck=1&isFacebookCpi=1&mrvk_deeplink_cvr=1&sn=1"},
    {"ReEngagementParameters", reEngage, "DEBUG", "-[MorvikCoreLib reEngagementConversion:]",
     "MRVK_QA-reEngagementConversion_parameterInfo : {\"j\":\"x\"}"},
    {"ReEngagementAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       reEngage(world);
     },
     "DEBUG", kReEngagementHandler, "MRVK_QA-reEngagementConversion_JSON: {\"Result\":false}"},
    {"ReEngagementStatus", reEngage, "ERROR", kReEngagementHandler,
     "MRVK_QA-reEngagementConversion_Recieved an HTTP 0"},
    {"ReEngagementError", reEngage, "ERROR", kReEngagementHandler,
     "MRVK_QA-reEngagementConversion_The error was: down"},
    {"CommerceUnsendable", [](TestWorld& world) { world.core().commerceConversion(); }, "ERROR",
     "-[MorvikCoreLib commerceConversion]",
     "MRVK_QA-commerceConversion_error : The value cannot be written as JSON: an absent value has no JSON form: leave the entry out, or use null."},
    {"CommerceUrl", sendCommerceClicks, "TRACE", "-[MorvikCoreLib commerceConversion]",
     "MRVK_QA-commerceConversion_request.URL.absoluteString : https://commerce.morvik.example/v1/commerce-conversion"},
    {"CommerceAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       sendCommerceClicks(world);
     },
     "TRACE", kCommerceHandler, "MRVK_QA-commerceConversion_JSON: {\"Result\":false}"},
    {"CommerceMessage",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       sendCommerceClicks(world);
     },
     "TRACE", kCommerceHandler, "MRVK_QA-commerceConversion_errMsg : (null)"},
    {"CommerceFailure", sendCommerceClicks, "ERROR", kCommerceHandler,
     "MRVK_QA-commerceConversion_request : POST https://commerce.morvik.example/v1/commerce-conversion, "
     "response : (null)"},
    {"CommerceStatus", sendCommerceClicks, "ERROR", kCommerceHandler, "MRVK_QA-commerceConversion_Recieved an HTTP 0"},
    {"CommerceError", sendCommerceClicks, "ERROR", kCommerceHandler, "MRVK_QA-commerceConversion_The error was: down"},
    {"PremiumAnswer", askForPremiumPostback, "DEBUG", kPremiumHandler,
     "Conversion JSON: {\"commerce\":{\"premium_postback\":true}}"},
    {"PremiumGranted", askForPremiumPostback, "TRACE", kPremiumHandler, "MRVK_QA-set the Premium Postback is : 1]"},
    {"PremiumNotGranted",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       world.loop.perform([&] { world.core().getPremiumPostbackInfoss(); });
     },
     "TRACE", kPremiumHandler, "MRVK_QA-set the Premium Postback is : 0]"},
    {"CrashParameters", sendCrashes, "DEBUG", "-[MorvikCoreLib sendCrashInfos]",
     "MRVK_QA-sendCrashInfos parameterInfo : [{\"exception_reason\":\"fendo\"}]"},
    {"CrashBudget",
     [](TestWorld& world) {
       world.userDefaults().setMorvikCoreUserInfo_Crash(Array{std::string(100'001, 'x')});
       world.loop.perform([&] { world.core().sendCrashInfos(); });
     },
     "DEBUG", "-[MorvikCoreLib sendCrashInfos]",
     "MRVK_QA-overflow of limited stringByte, so the remanent crash infos not gonna send to server in this time"},
    {"CrashAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       sendCrashes(world);
     },
     "TRACE", kCrashHandler, "MRVK_QA-[MorvikCoreLib] sendCrashInfos result  : {\"Result\":false}]"},
    {"CrashStatus", sendCrashes, "ERROR", kCrashHandler, "MRVK_QA-Recieved an HTTP 0"},
    {"CrashError", sendCrashes, "ERROR", kCrashHandler, "MRVK_QA-The error was: down"},
    {"WishKnown",
     [](TestWorld& world) {
       world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
       world.core().gdprForgetMe(false);
     },
     "WARNING", "-[MorvikCoreLib gdprForgetMe:]", "MRVK_QA-[MorvikCore GDPR] already Synced And Set. Return.."},
    {"ErasureUrl", forget, "TRACE", "-[MorvikCoreLib gdprForgetMe:]",
     "MRVK_QA-[MorvikCore GDPR] URL.absoluteString : https://erasure.morvik.example/v1/erasure"},
    {"ErasureBody",
     [](TestWorld& world) {
       // The id is that of the first sixteen bytes of the world's seed.
       world.util.setKnowsISODates(false);
       world.util.setIDFA(std::nullopt);
       EXPECT_TRUE(world.core().makeGdprParameter(ErasureForm::kPlain).isDictionary());
     },
     "TRACE", "-[MorvikCoreLib makeGdprParameter:]",
     "MRVK_QA-[MorvikCore GDPR] made jsonDict "
     "{\"subject_request_id\":\"C15C0289-EC2D-4A91-A7EC-8E65A18DEBBE\",\"subject_request_type\":\"erasure\","
     "\"subject_identities\":[{\"identity_type\":\"ios_advertising_id\"}],"
     "\"extensions\":{\"erasure.morvik.example\":{\"appkey\":\"test-app\",\"type\":\"classic\"}}}"},
    {"ErasureAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       forget(world);
     },
     "DEBUG", kErasureHandler, "MRVK_QA-[MorvikCore GDPR] {\"Result\":false}"},
    {"ErasureAccepted",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       forget(world);
     },
     "TRACE", kErasureHandler, "MRVK_QA-[MorvikCore GDPR] Recieved an HTTP 200"},
    {"ErasureStatus", forget, "ERROR", kErasureHandler, "MRVK_QA-[MorvikCore GDPR] Recieved an HTTP 0"},
    {"ErasureError", forget, "ERROR", kErasureHandler, "MRVK_QA-[MorvikCore GDPR] The error was: down"},
    {"DemographicsPayload",
     [](TestWorld& world) {
       world.core().setAge(27);
       EXPECT_TRUE(world.core().makeDemoInfoParameter().isDictionary());
     },
     "TRACE", "-[MorvikCoreLib makeDemoInfoParameter]",
     "MRVK_QA-Demo jsonDict : "
     "{\"puid\":\"hashed-puid\",\"user_demo_info\":[{\"demo_key\":\"age\",\"demo_value\":27}]}"},
    {"DemographicsWithoutJson",
     [](TestWorld& world) {
       world.json.refuseToWrite("no JSON");
       EXPECT_TRUE(world.core().makeDemoInfoParameter().isAbsent());
     },
     "TRACE", "-[MorvikCoreLib makeDemoInfoParameter]", "MRVK_QA-error : no JSON"},
    {"DemographicsParameters", sendDemos, "DEBUG", "-[MorvikCoreLib sendUserDemoInfos:]",
     "MRVK_QA-sendUserDemoInfos parameterInfo : {\"j\":\"x\"}"},
    {"DemographicsAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       sendDemos(world);
     },
     "DEBUG", kDemosHandler, "MRVK_QA-JSON: {\"Result\":false}"},
    {"DemographicsStatus", sendDemos, "ERROR", kDemosHandler, "MRVK_QA-Recieved an HTTP 0"},
    {"DemographicsError", sendDemos, "ERROR", kDemosHandler, "MRVK_QA-The error was: down"},
    {"ScheduleParameters", askForSchedule, "DEBUG", "-[MorvikCoreLib getSchedule:]",
     "MRVK_QA-getSchedule_parameterInfo : {\"j\":\"x\"}"},
    {"ScheduleAnswer",
     [](TestWorld& world) {
       answerEverythingWithFalse(world);
       askForSchedule(world);
     },
     "TRACE", kScheduleHandler, "MRVK_QA-getSchedule_JSON: {\"Result\":false}"},
    {"ScheduleUnchanged",
     [](TestWorld& world) {
       world.transport.on("").then(Answer::json(Dictionary{{"Result", true}, {"ResultCode", 1001}}));
       askForSchedule(world);
     },
     "TRACE", kScheduleHandler, "MRVK_QA-getSchedule_offline JSON: (null)"},
    {"ScheduleStatus", askForSchedule, "ERROR", kScheduleHandler, "MRVK_QA-getSchedule_Recieved an HTTP 0"},
    {"ScheduleError", askForSchedule, "ERROR", kScheduleHandler, "MRVK_QA-getSchedule_The error was: down"},
};

class LogLines : public ::testing::TestWithParam<Line> {
 protected:
  static kit::LogLevel level() {
    for (const auto& [name, level] : {std::pair{"CRITICAL", kit::lcl_vCritical},
                                      {"ERROR", kit::lcl_vError},
                                      {"WARNING", kit::lcl_vWarning},
                                      {"DEBUG", kit::lcl_vDebug},
                                      {"TRACE", kit::lcl_vTrace}}) {
      if (std::string_view(GetParam().level) == name)
        return level;
    }
    ADD_FAILURE() << "no such level: " << GetParam().level;
    return kit::lcl_vOff;
  }
  /// How often the line is written at that level of the log.
  static size_t written(kit::LogLevel log_level) {
    WorldOptions options = WorldOptions::attributed();
    options.log_level = log_level;
    TestWorld world(options);
    world.log.clear();
    world.transport.setDefaultAnswer(Answer::error("down"));
    GetParam().provoke(world);
    for (const auto& line : world.log.lines()) {
      if (line.message != GetParam().message)
        continue;
      EXPECT_TRUE(line.prefix.has_value());
      if (!line.prefix)
        continue;
      EXPECT_EQ(line.prefix->level, GetParam().level);
      EXPECT_EQ(line.prefix->component, "Kesmo");
      EXPECT_EQ(line.prefix->operation, GetParam().operation);
    }
    return world.log.count(GetParam().message);
  }
};

TEST_P(LogLines, AreWrittenAtTheirLevelAndNotBelowIt) {
  EXPECT_EQ(written(level()), 1U);
  EXPECT_EQ(written(static_cast<kit::LogLevel>(level() - 1)), 0U);
}

INSTANTIATE_TEST_SUITE_P(Core, LogLines, ::testing::ValuesIn(kLines), [](const auto& row) { return row.param.what; });

// Two lines hold a whole payload.

struct PayloadLine {
  const char* what;
  void (*provoke)(TestWorld& world);
  const char* operation;
  const char* head;
};

class PayloadLines : public ::testing::TestWithParam<PayloadLine> {};

TEST_P(PayloadLines, HoldWhatIsSentAndAreTraces) {
  for (const kit::LogLevel level : {kit::lcl_vTrace, kit::lcl_vDebug}) {
    WorldOptions options = WorldOptions::attributed();
    options.log_level = level;
    TestWorld world(options);
    world.transport.setDefaultAnswer(Answer::silence());
    world.userDefaults().setReEngagementInfos(Array{testing::clickOf(12)});
    GetParam().provoke(world);
    const Value sent = world.payloads(testing::kReEngagement).at(0);
    const auto line = world.log.find(GetParam().head + services::describe(sent));
    ASSERT_EQ(line.has_value(), level == kit::lcl_vTrace);
    if (!line)
      continue;
    EXPECT_EQ(line->prefix->level, "TRACE");
    EXPECT_EQ(line->prefix->component, "Kesmo");
    EXPECT_EQ(line->prefix->file, "deeplinks.cpp");
    EXPECT_EQ(line->prefix->operation, GetParam().operation);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Core, PayloadLines,
    ::testing::Values(PayloadLine{"FreshClick", [](TestWorld& world) { testing::open(world, "app://x?ck=1"); },
                                  "-[MorvikCoreLib makeReEngagementConversionParameter:]",
                                  "MRVK_QA-makeReEngagementConversionParameter_jsonDict : "},
                      PayloadLine{"FailedClick",
                                  [](TestWorld& world) {
                                    world.loop.perform(
                                        [&] { world.core().makeFailureReEngagementConversionParameter(); });
                                  },
                                  "-[MorvikCoreLib makeFailureReEngagementConversionParameter]",
                                  "MRVK_QA-makeFailureReEngagementConversionParameter_failed Past jsonDict info: "}),
    [](const auto& row) { return row.param.what; });

}  // namespace
}  // namespace morvik
