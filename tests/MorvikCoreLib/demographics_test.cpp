// Age, gender and user id: kept, sent, settled.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/describe.h"
#include "testing/sealed_payload.h"
#include "tests/MorvikCoreLib/odd_values.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Answer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::WorldOptions;

constexpr const char* kDemographics = "v1/demographics";

Value demo(const char* key, const Value& value) {
  return Dictionary{{"demo_key", key}, {"demo_value", value}};
}

class Demographics : public ::testing::Test {
 protected:
  Demographics() { world.transport.setDefaultAnswer(Answer::silence()); }

  void setAll() {
    world.loop.perform([&] {
      world.core().setAge(27);
      world.core().setGender(MorvikCoreGenderMale);
      world.core().setUserId("user-7");
    });
  }
  void send() {
    world.loop.perform([&] { world.core().sendUserDemoInfos(world.core().makeDemoInfoParameter()); });
  }
  /// Sends all three; the service answers this.
  void answerWith(const Value& json) {
    setAll();
    world.transport.on(kDemographics).then(Answer::json(json));
    send();
  }
  bool isAnythingPending() { return world.core().fetchDemos().size() > 0; }

  TestWorld world{WorldOptions::attributed()};
};

// ------------------------------------------------------------------------------------------------------ what is kept

TEST_F(Demographics, KeepEachValueTwiceAndFlushNothing) {
  world.store.clearJournal();
  setAll();
  EXPECT_THAT(world.store.journalTexts(),
              ElementsAre("fendoUserDemoInfo_age", "fendoUserDemoInfoForComplete_age", "fendoUserDemoInfo_gender",
                          "fendoUserDemoInfoForComplete_gender", "fendoUserDemoInfo_userId",
                          "fendoUserDemoInfoForComplete_userId", "end of turn"));
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_age(), 27);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_age(), 27);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_gender(), 2);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_gender(), 2);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_userId(), "user-7");
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_userId(), "user-7");
}

TEST_F(Demographics, WithNothingSetAreAnEmptyListAndNoRequestIsMade) {
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{}));
  world.becomeActive();
  world.enterBackground();
  EXPECT_THAT(world.requests(kDemographics), IsEmpty());
}

TEST_F(Demographics, ListThePendingOnesInTheirFixedOrder) {
  setAll();
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{demo("age", 27), demo("gender", 2), demo("userId", "user-7")}));
  world.userDefaults().setFendoUserDemoInfo_gender(-1);
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{demo("age", 27), demo("userId", "user-7")}));
}

TEST_F(Demographics, AnAgeAloneIsTheOnlyEntryOfThePayload) {
  world.core().setAge(27);
  send();
  const Value payload = world.payloads(kDemographics).at(0);
  EXPECT_EQ(payload, Value(Dictionary{{"puid", "hashed-puid"}, {"user_demo_info", Array{demo("age", 27)}}}));
  EXPECT_THAT(testing::keys(payload), ElementsAre("puid", "user_demo_info"));
  EXPECT_THAT(testing::keys(payload["user_demo_info"].array()[0]), ElementsAre("demo_key", "demo_value"));
}

TEST_F(Demographics, AGenderIs1Or2AndAnyOtherValueIsStoredAndSentUnchanged) {
  for (const int32_t gender : {int32_t{MorvikCoreGenderFemale}, int32_t{MorvikCoreGenderMale}, 0, 7, -2, 2147483647}) {
    world.core().setGender(gender);
    EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_gender(), gender);
    send();
    EXPECT_EQ(world.payloads(kDemographics).back()["user_demo_info"], Value(Array{demo("gender", gender)}));
  }
  EXPECT_EQ(MorvikCoreGenderFemale, 1);
  EXPECT_EQ(MorvikCoreGenderMale, 2);
}

TEST_F(Demographics, OfMinusOneAreNotPending) {
  world.core().setAge(-1);
  world.core().setGender(-1);
  EXPECT_FALSE(isAnythingPending());
}

TEST_F(Demographics, AValueSetAgainBeforeTheUploadReplacesTheEarlierOne) {
  world.core().setUserId("first");
  world.core().setUserId("second");
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{demo("userId", "second")}));
  world.core().setUserId(std::nullopt);
  EXPECT_FALSE(isAnythingPending());
  world.core().setUserId("");
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{demo("userId", "")}));
}

// ------------------------------------------------------------------------------------------------------- the payload

TEST_F(Demographics, AreSealedWithTheTrackingKeyInHexadecimalAndNotDeflated) {
  world.core().setUserId(std::string(500, 'x'));
  send();
  const auto fields = testing::formFields(world.requests(kDemographics).at(0).body);
  ASSERT_EQ(fields.size(), 1U);
  const std::string& text = fields.at("j");
  EXPECT_EQ(text.substr(0, 4), "0100") << "version 1, not deflated";
  EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
  const std::string json =
      services::describe(Dictionary{{"puid", "hashed-puid"}, {"user_demo_info", world.core().fetchDemos()}});
  EXPECT_EQ(text.size(), 2 * (2 + kit::kNonceBytes + json.size() + kit::kTagBytes));
}

TEST_F(Demographics, WithoutAHashedIdentifierTheyAreAnEmptyObject) {
  setAll();
  world.puid.setHashedPUID(std::nullopt);
  send();
  EXPECT_EQ(world.payloads(kDemographics).at(0), Value(Dictionary{}));
  EXPECT_TRUE(world.log.has("MRVK_QA-Demo jsonDict : {}"));
}

TEST_F(Demographics, ThatCannotBeSerialisedAreSentWithoutParameters) {
  setAll();
  world.log.clear();
  world.json.refuseToWrite("no JSON today");
  send();
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib makeDemoInfoParameter]"),
              ElementsAre("MRVK_QA-Demo jsonDict : {\"puid\":\"hashed-puid\",\"user_demo_info\":[{\"demo_key\":\"age\","
                          "\"demo_value\":27},{\"demo_key\":\"gender\",\"demo_value\":2},{\"demo_key\":\"userId\","
                          "\"demo_value\":\"user-7\"}]}",
                          "MRVK_QA-error : no JSON today"));
  ASSERT_EQ(world.requests(kDemographics).size(), 1U);
  EXPECT_EQ(world.requests(kDemographics)[0].body, "");
  EXPECT_TRUE(isAnythingPending());
}

// ------------------------------------------------------------------------------------------------------- the answers

TEST_F(Demographics, AreNoLongerPendingOnceTheyAreAccepted) {
  answerWith(Dictionary{{"Result", true}});
  EXPECT_FALSE(isAnythingPending());
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_age(), -1);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_gender(), -1);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfo_userId(), std::nullopt);
}

TEST_F(Demographics, WhosePayloadCannotBeMadeAreClearedOnceTheirEmptyRequestIsAccepted) {
  const auto refuse = [this](const std::optional<std::string>& to_write, const std::optional<std::string>& to_seal) {
    world.json.refuseToWrite(to_write);
    world.cipher.refuseToEncrypt(to_seal);
  };
  for (const bool is_written : {false, true}) {
    refuse(is_written ? std::nullopt : std::optional<std::string>("no JSON today"), "no cipher today");
    answerWith(Dictionary{{"Result", true}});
    EXPECT_TRUE(world.log.has(is_written ? "MRVK_QA-error : no cipher today" : "MRVK_QA-error : no JSON today"));
    EXPECT_EQ(world.requests(kDemographics).back().body, "");
    EXPECT_FALSE(isAnythingPending());
  }
  EXPECT_EQ(world.requests(kDemographics).size(), 2U);
}

TEST_F(Demographics, KeepTheCompleteCopiesWhenThePendingOnesGo) {
  setAll();
  world.store.clearJournal();
  world.loop.perform([&] { world.core().deleteDemos(); });
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoUserDemoInfo_age", "fendoUserDemoInfo_gender",
                                                      "fendoUserDemoInfo_userId", "end of turn"));
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_age(), 27);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_gender(), 2);
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_userId(), "user-7");
}

TEST_F(Demographics, OfAStoreThatRecoveredWhileTheAnswerWasOnItsWayStayPendingWhereTheyWereNotSent) {
  world.loop.perform([&] {
    world.core().setAge(27);
    world.core().setUserId("user-7");
  });
  world.transport.on(kDemographics).then(Answer::json(Dictionary{{"Result", true}}).after(1));
  send();
  world.loop.perform([&] {
    world.core().setGender(MorvikCoreGenderMale);
    world.core().setUserId("user-8");
    world.core().storeRecovered();
  });
  world.loop.advance(2);
  EXPECT_EQ(world.core().fetchDemos(), Value(Array{demo("gender", 2), demo("userId", "user-8")}));
}

TEST_F(Demographics, StayPendingAfterAnAnswerWhoseResultIsMissingOrFalse) {
  for (const Value& answer :
       {Value(Dictionary{}), Value(Dictionary{{"Result", false}}), Value(Dictionary{{"Result", Value::null()}}),
        Value(Dictionary{{"Result", Array{true}}}), Value(Dictionary{{"Result", "no"}})}) {
    answerWith(answer);
    EXPECT_EQ(world.core().fetchDemos().size(), 3U) << services::describe(answer);
  }
}

TEST_F(Demographics, AreClearedByAResultOfAnyTrueKind) {
  for (const Value& truth : {Value(true), Value(1), Value("Y"), Value("true"), Value("1")}) {
    answerWith(Dictionary{{"Result", truth}});
    EXPECT_FALSE(isAnythingPending()) << services::describe(truth);
  }
}

TEST_F(Demographics, TakeAnyAnswerWithoutAnException) {
  for (const Value& odd : testing::oddValues())
    answerWith(Dictionary{{"Result", odd}, {"Data", odd}});
  for (const char* body : {"", "null", "[]", "5", "{", "<html>"}) {
    setAll();
    world.transport.on(kDemographics).then(Answer::body(200, body));
    send();
    EXPECT_EQ(world.core().fetchDemos().size(), 3U) << body;
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(Demographics, StayPendingAfterAFailure) {
  setAll();
  world.log.clear();
  world.transport.on(kDemographics).then(Answer::json(500, Dictionary{{"Result", true}}));
  send();
  EXPECT_TRUE(isAnythingPending());
  EXPECT_THAT(
      world.log.messagesOf("-[MorvikCoreLib sendUserDemoInfos:]_block_invoke"),
      ElementsAre("MRVK_QA-Recieved an HTTP 500", "MRVK_QA-The error was: The server answered with status 500."));
}

TEST_F(Demographics, SetWhileAnUploadIsInFlightGoWithItsSuccess) {
  setAll();
  world.transport.on(kDemographics).then(Answer::json(Dictionary{{"Result", true}}).after(1));
  send();
  world.core().setAge(28);
  world.loop.advance(2);
  EXPECT_FALSE(isAnythingPending());
  EXPECT_EQ(world.userDefaults().fendoUserDemoInfoForComplete_age(), 28);
}

TEST_F(Demographics, AreNeitherSentNorLoggedUnderForgetMe) {
  setAll();
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  world.loop.perform([&] { world.core().sendUserDemoInfos(Dictionary{{"j", "x"}}); });
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_TRUE(isAnythingPending());
}

TEST_F(Demographics, AreSentAtSessionStartAndSessionEndWhileTheyArePending) {
  setAll();
  world.becomeActive();
  EXPECT_EQ(world.requests(kDemographics).size(), 1U);
  world.enterBackground();
  EXPECT_EQ(world.requests(kDemographics).size(), 2U);
  world.loop.advance(100);
  world.transport.on(kDemographics).always(Answer::json(Dictionary{{"Result", true}}));
  world.becomeActive();
  EXPECT_EQ(world.requests(kDemographics).size(), 3U);
  world.enterBackground();
  EXPECT_EQ(world.requests(kDemographics).size(), 3U);
}

TEST_F(Demographics, AreNotSentWithoutATrackingKeyEvenWhenTheyArePending) {
  setAll();
  world.sharedState().kAESSuperKeyForTracking = "";
  world.becomeActive();
  world.enterBackground();
  EXPECT_THAT(world.requests(kDemographics), IsEmpty());
  EXPECT_TRUE(isAnythingPending());
}

TEST_F(Demographics, FollowTheBatchAndComeBeforeTheDateOfTheStart) {
  setAll();
  world.faulty.puid.faults.throwAlways("getAESHashedPUID", testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.requests("v1/tracking").size(), 1U);
  EXPECT_FALSE(world.core()._startSessoinDate().has_value());
  EXPECT_EQ(world.log.countContaining("Exception from startSession!"), 1U);
}

TEST_F(Demographics, FollowTheStampOfTheEndAndComeBeforeTheFailedClicks) {
  setAll();
  world.becomeActive();
  world.userDefaults().setReEngagementInfos(Array{Dictionary{{"conversion_key", 12}}});
  world.faulty.puid.faults.throwAlways("getAESHashedPUID", testing::Fault::number(1));
  world.enterBackground();
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_endSessoinDate().has_value());
  EXPECT_THAT(world.requests("v1/reengagement-conversion"), IsEmpty());
  EXPECT_EQ(world.log.countContaining("Exception from endSession!"), 1U);
}

TEST_F(Demographics, SurviveTheProcessFromTheEndOfTheTurnOn) {
  setAll();
  world.restart();
  EXPECT_EQ(world.core().fetchDemos().size(), 3U);
}

// ------------------------------------------------------------------------------------------------------- impressions

TEST_F(Demographics, ClearingTheImpressionsLeavesAnEmptyListAndAnAbsentOneAbsent) {
  world.core().deleteImpressionInfo();
  EXPECT_TRUE(world.userDefaults().fendoImpressionInfos().isAbsent());
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"campaignKey", 1}}});
  world.store.commitTurn();
  world.store.clearJournal();
  world.core().deleteImpressionInfo();
  EXPECT_EQ(world.userDefaults().fendoImpressionInfos(), Value(Array{}));
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoImpressionInfos", "synchronize"));
}

}  // namespace
}  // namespace morvik
