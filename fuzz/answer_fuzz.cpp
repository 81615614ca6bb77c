// Any bytes as a server's answer to each request of the kit. The first byte selects the request ('a' is the first of
// the table below), the second the status ('0' is 200), the rest is the body. Checks what the answer changes, and that
// the kit works on afterwards: with healthy answers each later event is delivered once.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "fuzz/checks.h"
#include "services/endpoints.h"
#include "services/requests.h"
#include "testing/json_reader.h"
#include "testing/world.h"

namespace {

namespace services = morvik::services;
using morvik::fuzz::hasThrown;
using morvik::fuzz::require;
using morvik::kit::Dictionary;
using morvik::kit::Url;
using morvik::kit::Value;
using morvik::testing::Answer;
using morvik::testing::EndedExchange;
using morvik::testing::TestWorld;
using morvik::testing::WorldOptions;

constexpr const char* kTrackingProbe = "before the answer";
constexpr const char* kHealthyCheckSum = "healthy";
constexpr int64_t kFormerReferralKey = 7;
constexpr int64_t kNoReferralKey = -1;
constexpr int kScheduleUnchanged = 1001;

/// Successful ones first, since they lead furthest.
constexpr std::array<int, 16> kStatuses = {200, 201, 204, 299, 300, 199, 100, 304, 400, 401, 404, 413, 500, 503, 0, -1};

/// One request: what makes it leave, how its handler is recognized in the log, and what its answer must change.
struct Scenario {
  const char* path;
  const char* handler;
  /// What the handler logs first for an answer, and what it logs for a failure; null if it logs nothing.
  const char* success_text;
  const char* failure_text;
  WorldOptions (*options)();
  void (*act)(TestWorld& world);
  /// `json` is the answer's if the request succeeded, and absent if it failed.
  void (*check)(TestWorld& world, const Value& json);
};

WorldOptions freshInstall() {
  return {};
}

bool saysYes(const TestWorld& world, const Value& json) {
  return world.util.checkNilToNo(json["Result"]);
}

int64_t referralKeyIn(const TestWorld& world, const Value& json) {
  return world.util.checkIntegerNilToZero(json["Data"]["referralKey"]);
}

void requireReferralKey(TestWorld& world, int64_t referral_key) {
  require(world.userDefaults().fendoUserInfo_referralKey() == referral_key,
          "a referral record that is not the one due");
}

/// The flags of the wish to be forgotten, in the store and in the mirror that the gate reads.
void requireWish(TestWorld& world, bool forget_me, bool synced) {
  const auto store = world.userDefaults();
  require(store.MorvikCoreUserInfo_isGDPRForgetMe() == forget_me, "a stored wish that is not the one due");
  require(world.services().isGDPRForgetMe() == forget_me, "a mirrored wish that is not the one due");
  require(store.MorvikCoreUserInfo_isGDPRForgetMeServerSynced() == synced, "a stored answer that is not the one due");
  require(world.services().isGDPRForgetMeServerSynced() == synced, "a mirrored answer that is not the one due");
}

size_t storedTimes(TestWorld& world, std::string_view activity) {
  const morvik::kit::Array stored = world.userDefaults().fendoActivityInfos().array();
  return static_cast<size_t>(std::count_if(stored.begin(), stored.end(), [activity](const Value& record) {
    return record["activityName"].string() == activity;
  }));
}

size_t deliveredTimes(const TestWorld& world, std::string_view activity) {
  size_t times = 0;
  for (const Value& batch : world.payloads(services::kTrackingPath)) {
    for (const Value& entry : batch["activity_info"].array())
      times += entry["activity"].string() == activity ? 1U : 0U;
  }
  return times;
}

bool wasCalled(const TestWorld& world, const std::string& call) {
  const auto calls = world.modules.calls();
  return std::find(calls.begin(), calls.end(), call) != calls.end();
}

// ------------------------------------------------------------------------------------------- what each answer changes

void checkConversion(TestWorld& world, const Value& json) {
  requireReferralKey(world, saysYes(world, json) ? referralKeyIn(world, json) : kNoReferralKey);
}

void checkThirdParty(TestWorld& world, const Value& json) {
  const bool overwrites = saysYes(world, json) && referralKeyIn(world, json) > 0;
  requireReferralKey(world, overwrites ? referralKeyIn(world, json) : kFormerReferralKey);
}

void checkIAd(TestWorld& world, const Value& json) {
  requireReferralKey(world, saysYes(world, json) ? referralKeyIn(world, json) : kFormerReferralKey);
}

void checkTracking(TestWorld& world, const Value& json) {
  const size_t left = saysYes(world, json) ? 0 : 1;
  require(storedTimes(world, kTrackingProbe) == left, "an event trimmed without acceptance, or the reverse");
  require(world.userDefaults().fendoImpressionInfos().size() == left, "impressions that did not go with the events");
  require(!world.core()._isTrackingCalled(), "a tracking slot that nobody gave back");
}

void checkReEngagement(TestWorld& world, const Value& json) {
  const auto store = world.userDefaults();
  require(store.reEngagementInfos().size() == (json.isAbsent() ? 1 : 0), "a failed click too many or few");
  const int64_t key = world.util.checkIntegerNilToZero(json["Data"]["conversion_result"]["conversion_key"]);
  if (saysYes(world, json)) {
    require(store.fendoUserInfo_reengagement_conversion_key() == (key == 0 ? -1 : key), "a result of another key");
    require(wasCalled(world, "FendoLib saveRetainedConversionKey: " + std::to_string(key)), "a key not passed on");
  }
}

void checkCommerce(TestWorld& world, const Value& json) {
  const size_t left = !json.isAbsent() && json["errMsg"].isNil() ? 0 : 1;
  require(world.userDefaults().commerceConversionInfos().size() == left, "commerce clicks cleared, or the reverse");
}

void checkConfiguration(TestWorld& world, const Value& json) {
  // Its text counts: a negative number does not mean yes.
  const Value text = world.util.checkNilToBlankString(json["commerce"]["premium_postback"]);
  const bool granted = world.util.checkNilToNo(text);
  const auto kept = world.userDefaults().commercePremiumPostBack();
  if (json.isAbsent())
    require(!kept.has_value(), "a premium postback that no answer spoke of");
  else
    require(kept == (granted ? "true" : "false"), "a premium postback that the answer does not say");
  require(world.services().isPremiumPostback() == granted, "a premium postback that is another in the mirror");
}

void checkCrash(TestWorld& world, const Value& json) {
  const bool accepted = !json.isAbsent() && world.util.checkIntegerNilToZero(json["code"]) == 0;
  require(world.userDefaults().MorvikCoreUserInfo_Crash().size() == (accepted ? 0 : 2),
          "crash reports dropped without acceptance, or the reverse");
}

void checkDemographics(TestWorld& world, const Value& json) {
  require(world.core().fetchDemos().size() == (saysYes(world, json) ? 0 : 3), "demographics cleared, or the reverse");
}

/// An unchanged schedule that is not held is requested once more, and that answer is a healthy one.
void checkSchedule(TestWorld& world, const Value& json) {
  const std::string& check_sum = world.core()._checkSum();
  const Value held = world.core()._lastJSON();
  const size_t requests = world.requests(services::kGetScheduleVer2Path).size();
  if (json.isAbsent()) {
    require(check_sum == "init" && held.isAbsent() && requests == 1, "a schedule that never came");
  } else if (saysYes(world, json) && world.util.checkIntegerNilToZero(json["ResultCode"]) == kScheduleUnchanged) {
    require(check_sum == kHealthyCheckSum && requests == 2, "a schedule that was not asked for once more");
  } else {
    const Value sum = world.util.checkNilToBlankString(json["Data"]["CheckSum"]);
    require(sum.string() == check_sum && held == json && requests == 1, "a schedule that is not the answer");
  }
}

void checkWish(TestWorld& world, const Value& json) {
  requireWish(world, true, !json.isAbsent());
}

/// An accepted withdrawal marks the user as forgotten.
void checkWithdrawal(TestWorld& world, const Value& json) {
  requireWish(world, !json.isAbsent(), !json.isAbsent());
}

// ------------------------------------------------------------------------------------------- what lets a request leave

void startASession(TestWorld& world) {
  world.becomeActive();
}

void followAFacebookReferral(TestWorld& world) {
  world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url("app://x?ck=3&sub_referral=s")); });
}

void comeFromAnIAd(TestWorld& world) {
  world.ad_client.conversion_details.answerEveryCall(world.loop.now(), world.loop.now());
  world.becomeActive();
}

void push(TestWorld& world) {
  world.userDefaults().setFendoImpressionInfos(morvik::kit::Array{Dictionary{{"createdAt", world.loop.now()}}});
  world.recordEvent("shop", kTrackingProbe);
  world.loop.perform([&] { world.core().pushTracking(); });
}

void openAClick(TestWorld& world) {
  world.loop.perform([&] { world.core().passOpenURL(Url("app://x?ck=5&sn=2&mrvk_eng=1")); });
}

void openACommerceClick(TestWorld& world) {
  world.loop.perform([&] { world.core().passOpenURL(Url("app://x?cid=shoe")); });
}

void crashAndStart(TestWorld& world) {
  for (const char* reason : {"fendo one", "fendo two"})
    world.core().makeCrashParameter({.reason = reason, .call_stack_symbols = {"0 app"}, .moment = {}});
  world.becomeActive();
}

void tellOfTheUserAndStart(TestWorld& world) {
  world.core().setAge(27);
  world.core().setGender(morvik::MorvikCoreGenderFemale);
  world.core().setUserId("user");
  world.becomeActive();
}

void askToBeForgotten(TestWorld& world) {
  world.loop.perform([&] { world.core().gdprForgetMe(true); });
}

void takeTheWishBack(TestWorld& world) {
  world.loop.perform([&] { world.core().gdprForgetMe(false); });
}

constexpr std::array<Scenario, 12> kScenarios = {{
    {services::kConversionPath, "-[MorvikCoreLib conversion:]_block_invoke",
     "MRVK_QA-conversion_JSON: ", "MRVK_QA-The error was: ", freshInstall, startASession, checkConversion},
    {services::kThirdPartyConversionPath, "-[MorvikCoreLib thirdPartyConversion:]_block_invoke",
     "MRVK_QA-thirdPartyConversion_JSON: ", "MRVK_QA-thirdPartyConversion_The error was: ", WorldOptions::attributed,
     followAFacebookReferral, checkThirdParty},
    {services::kIADAttributionPath, "-[MorvikCoreLib iAdAppAttributionTracking:]_block_invoke",
     "MRVK_QA-iAdAppAttributionTracking_JSON: ", "MRVK_QA-iAdAppAttributionTracking_The error was: ",
     WorldOptions::attributed, comeFromAnIAd, checkIAd},
    {services::kTrackingPath, "-[MorvikCoreLib tracking:]_block_invoke",
     "MRVK_QA-tracking_JSON: ", "MRVK_QA-The error was: ", WorldOptions::attributed, push, checkTracking},
    {services::kReEngagementConversionPath, "-[MorvikCoreLib reEngagementConversion:]_block_invoke",
     "MRVK_QA-reEngagementConversion_JSON: ", "MRVK_QA-reEngagementConversion_The error was: ",
     WorldOptions::attributed, openAClick, checkReEngagement},
    {services::kCommerceConversionPath, "-[MorvikCoreLib commerceConversion]_block_invoke",
     "MRVK_QA-commerceConversion_JSON: ", "MRVK_QA-commerceConversion_The error was: ", WorldOptions::attributed,
     openACommerceClick, checkCommerce},
    {services::kAppConfigFileName, "-[MorvikCoreLib getPremiumPostbackInfoss]_block_invoke",
     "Conversion JSON: ", nullptr, WorldOptions::attributed, startASession, checkConfiguration},
    {services::kCrashReportPath, "-[MorvikCoreLib sendCrashInfos]_block_invoke",
     "MRVK_QA-[MorvikCoreLib] sendCrashInfos result  : ", "MRVK_QA-The error was: ", WorldOptions::attributed,
     crashAndStart, checkCrash},
    {services::kSetDemographicPath, "-[MorvikCoreLib sendUserDemoInfos:]_block_invoke",
     "MRVK_QA-JSON: ", "MRVK_QA-The error was: ", WorldOptions::attributed, tellOfTheUserAndStart, checkDemographics},
    {services::kGetScheduleVer2Path, "-[MorvikCoreLib getSchedule:]_block_invoke", "MRVK_QA-getSchedule_JSON: ",
     "MRVK_QA-getSchedule_The error was: ", WorldOptions::attributed, startASession, checkSchedule},
    {services::kGdprReqUrlPath, "-[MorvikCoreLib gdprForgetMe:]_block_invoke", "MRVK_QA-[MorvikCore GDPR] {",
     "MRVK_QA-[MorvikCore GDPR] The error was: ", WorldOptions::attributed, askToBeForgotten, checkWish},
    {services::kGdprReqUrlPath, "-[MorvikCoreLib gdprForgetMe:]_block_invoke", "MRVK_QA-[MorvikCore GDPR] {",
     "MRVK_QA-[MorvikCore GDPR] The error was: ", WorldOptions::attributed, takeTheWishBack, checkWithdrawal},
}};

// ------------------------------------------------------------------------------------------------------- the life

struct Input {
  const Scenario& scenario;
  int status;
  std::string body;
};

Input inputOf(const std::uint8_t* data, std::size_t size) {
  const size_t scenario = (data[0] + 256U - 'a') % 256U % kScenarios.size();
  const size_t status = (data[1] + 256U - '0') % 256U % kStatuses.size();
  return {kScenarios[scenario], kStatuses[status], std::string(data + 2, data + size)};
}

/// The answer's JSON if the request must succeed; else absent.
Value jsonOfASuccess(const Input& input) {
  if (input.status < 200 || input.status > 299)
    return {};
  const auto read = morvik::testing::readJson(input.body);
  const auto* json = std::get_if<Value>(&read);
  return json != nullptr && json->isDictionary() ? *json : Value();
}

void letTheServiceBeHealthy(TestWorld& world) {
  world.serviceAccepts();
  world.transport.setDefaultAnswer(Answer::json(Dictionary{{"Result", true}}));
  world.transport.on(services::kGetScheduleVer2Path)
      .always(Answer::json(Dictionary{{"Result", true}, {"Data", Dictionary{{"CheckSum", kHealthyCheckSum}}}}));
  world.transport.on(services::kReEngagementConversionPath)
      .always(Answer::json(Dictionary{
          {"Result", true},
          {"Data", Dictionary{{"conversion_result", Dictionary{{"conversion_key", 5}}}}},
      }));
}

size_t linesOf(const TestWorld& world, const Scenario& scenario, std::string_view text) {
  const auto lines = world.log.messagesOf(scenario.handler);
  return static_cast<size_t>(
      std::count_if(lines.begin(), lines.end(), [text](const std::string& line) { return line.starts_with(text); }));
}

/// Each request that left ended once, and told its own handler once.
void requireOneEndForEachRequest(TestWorld& world, const Scenario& scenario) {
  require(world.transport.unanswered() == 0, "a request without an end");
  const auto ended = world.services().endedExchanges();
  require(world.requests().size() == ended.size(), "a request that ended twice or never");
  size_t succeeded = 0;
  size_t failed = 0;
  for (const EndedExchange& exchange : ended) {
    if (exchange.url.find(scenario.path) != std::string::npos)
      ++(exchange.result.succeeded ? succeeded : failed);
  }
  require(linesOf(world, scenario, scenario.success_text) == succeeded, "a success told twice or never");
  if (scenario.failure_text != nullptr)
    require(linesOf(world, scenario, scenario.failure_text) == failed, "a failure told twice or never");
}

void endTheSession(TestWorld& world) {
  world.enterBackground();
  world.loop.advance(120);
}

void live(TestWorld& world, const char* activity) {
  world.becomeActive();
  world.recordEvent("shop", activity);
  endTheSession(world);
}

/// An install whose user number the service removed is not asked about again while it has a referral key.
bool isNeverToBeTracked(TestWorld& world) {
  return world.userDefaults().fendoUserInfo_fendoUserNo() == -1 &&
         world.userDefaults().fendoUserInfo_referralKey() != kNoReferralKey;
}

/// Two sessions: an install that lost its referral record gets it in the first, and delivers in the second.
void requireLifeToGoOn(TestWorld& world, const char* activity) {
  const size_t requests = world.requests().size();
  live(world, activity);
  live(world, "and later");
  const bool is_forgotten = world.core().isGdprForgetMe();
  if (is_forgotten)
    require(world.requests().size() == requests, "a request that the user's wish forbids");
  const size_t stored = is_forgotten || isNeverToBeTracked(world) ? 1 : 0;
  require(storedTimes(world, activity) == stored, "an event that was delivered and is still stored, or got lost");
  require(deliveredTimes(world, activity) == 1 - stored, "an event that was not delivered once");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2)
    return 0;
  const Input input = inputOf(data, size);
  const Scenario& scenario = input.scenario;
  TestWorld world(scenario.options());
  for (const char* module : {"Fendo", "FendoLib", "QuintPush"})
    world.modules.add(module);
  letTheServiceBeHealthy(world);
  // Later than every other answer, so that later changes come from this one.
  world.transport.on(scenario.path).then(Answer::body(input.status, input.body).after(1));
  scenario.act(world);
  require(world.requests(scenario.path).size() == 1, "a request that did not leave once");
  world.loop.advance(1);
  scenario.check(world, jsonOfASuccess(input));
  endTheSession(world);

  requireLifeToGoOn(world, "after the answer");
  requireOneEndForEachRequest(world, scenario);
  world.restart();
  requireLifeToGoOn(world, "in the next process");
  require(!hasThrown(world), "an exception that a guard had to catch");
  return 0;
}
