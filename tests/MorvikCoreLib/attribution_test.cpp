// Conversion requests, the referral record, Search Ads and iAd.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "services/describe.h"
#include "services/endpoints.h"
#include "tests/MorvikCoreLib/odd_values.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activities;
using testing::Answer;
using testing::at;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::keys;
using testing::TestWorld;
using testing::WorldOptions;

/// An answer's "Data" with every field of the record.
Dictionary fullData() {
  return {{"user_no", 11},
          {"shard_no", 12},
          {"referralKey", 13},
          {"subreferralKey", 14},
          {"refusn", "ref-usn"},
          {"channel_type", 15},
          {"referral_data", "ref-data"},
          {"reengagement_conversion_key", 16},
          {"reengagement_data", "re-data"},
          {"reengagement_datetime", 17},
          {"last_referral_key", 18},
          {"last_referral_data", "last-data"},
          {"last_referral_datetime", "last-time"},
          {"install_datetime", "20240229123456"},
          {"conversion_key_list", Array{101, 102}},
          {"deeplink", "app://welcome"}};
}

Value with(const Value& dictionary, const char* key, const Value& value) {
  kit::MutableDictionary changed(dictionary);
  changed.set(key, value);
  return Value(std::move(changed));
}

class Attribution : public ::testing::Test {
 protected:
  explicit Attribution(WorldOptions options = {}) : world(std::move(options)) {}

  void convert() {
    world.loop.perform([this] { world.core().conversion(world.core().makeConversionParameter()); });
  }
  void convertThirdParty() {
    world.loop.perform([this] { world.core().thirdPartyConversion(world.core().makeConversionParameter()); });
  }
  /// One conversion with this answer.
  void answerWith(const Value& json) {
    world.transport.on("v1/conversion").then(Answer::json(json));
    convert();
  }
  void answerWithData(const Value& data) { answerWith(Dictionary{{"Result", true}, {"Data", data}}); }

  TestWorld world;
};

class ConversionPayload : public Attribution {
 protected:
  Value payload() {
    world.transport.clearRequests();
    world.transport.on("v1/conversion").then(Answer::silence());
    convert();
    return world.payloads("v1/conversion").at(0);
  }
};

TEST_F(ConversionPayload, IsTheCommonParametersOneStartActivityAndTheSearchAdsAnswer) {
  const Value sent = payload();
  const Value common(world.services().makeCommonParameter("1.2.3"));
  for (const kit::Entry& entry : common.dictionary())
    EXPECT_EQ(sent[entry.key.string()], entry.value) << entry.key.string();
  EXPECT_EQ(sent.size(), common.size() + 2);
  EXPECT_EQ(sent["activity_info"], Value(Array{Dictionary{{"group", "session"},
                                                          {"activity", "start"},
                                                          {"param", ""},
                                                          {"created_at", "20240301000000"},
                                                          {"prev_group", ""},
                                                          {"prev_activity", ""}}}));
  EXPECT_EQ(sent["searchads_response"], Value(""));
}

TEST_F(ConversionPayload, CreatedAtIsTheServersTimeInUtcAndNeverCached) {
  world.services().setIntervalSinceServerDate(-1);
  EXPECT_EQ(payload()["activity_info"].array()[0]["created_at"], Value("20240229235959"));
  world.loop.advance(3);
  EXPECT_EQ(payload()["activity_info"].array()[0]["created_at"], Value("20240301000002"));
}

TEST_F(ConversionPayload, FacebookDataIsMergedAtTheTopAndWinsOverCommonParameters) {
  world.core().setFB_DeepLinkData(Dictionary{{"fb", "data"}, {"country", "elsewhere"}});
  const Value sent = payload();
  EXPECT_EQ(sent["fb"], Value("data"));
  EXPECT_EQ(sent["country"], Value("elsewhere"));
}

TEST_F(ConversionPayload, CarriesTheSearchAdsDetails) {
  const Value details = Dictionary{{"iad-campaign-id", "5"}};
  world.ad_client.attribution_details.answerEveryCall(Dictionary{{"Version3.1", details}}, std::nullopt);
  world.loop.perform([&] { world.core().searchAds(); });
  EXPECT_EQ(payload()["searchads_response"], details);
}

TEST_F(ConversionPayload, IsLoggedBeforeItIsSealed) {
  const Value sent = payload();
  const auto line = world.log.find("MRVK_QA-jsonDict : " + services::describe(sent));
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "DEBUG");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib makeConversionParameter]");
  EXPECT_EQ(line->prefix->file, "attribution.cpp");
}

TEST_F(Attribution, ConversionLogsParametersAndUrl) {
  world.loop.perform([&] { world.core().conversion(Dictionary{{"j", "x"}}); });
  EXPECT_EQ(world.log.find("MRVK_QA-conversion_parameterInfo : {\"j\":\"x\"}")->prefix->level, "DEBUG");
  EXPECT_EQ(world.log
                .find("MRVK_QA-conversion_request.URL.absoluteString : "
                      "https://conversion.morvik.example/v1/conversion")
                ->prefix->level,
            "TRACE");
}

TEST_F(Attribution, ThirdPartyConversionLogsItsOwnWords) {
  world.transport.on("thirdparty").then(Answer::json(Dictionary{{"Result", false}}));
  world.loop.perform([&] { world.core().thirdPartyConversion(Dictionary{{"j", "x"}}); });
  const auto line = world.log.find("MRVK_QA-thirdPartyConversion parameterInfo : {\"j\":\"x\"}");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib thirdPartyConversion:]");
  EXPECT_TRUE(
      world.log.has("MRVK_QA-thirdPartyConversion_request.URL.absoluteString : "
                    "https://conversion.morvik.example/v1/thirdparty-conversion"));
  EXPECT_TRUE(world.log.has("MRVK_QA-thirdPartyConversion_JSON: {\"Result\":false}"));
}

TEST_F(Attribution, AbsentParametersAreSentAsAnEmptyBody) {
  world.loop.perform([&] { world.core().conversion(Value()); });
  ASSERT_EQ(world.requests("v1/conversion").size(), 1U);
  EXPECT_EQ(world.requests("v1/conversion")[0].body, "");
  EXPECT_TRUE(world.log.has("MRVK_QA-conversion_parameterInfo : (null)"));
}

TEST_F(Attribution, UnderForgetMeNothingIsSentOrLogged) {
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  world.loop.perform([&] {
    world.core().conversion(Value());
    world.core().thirdPartyConversion(Value());
    world.core().iAdAppAttributionTracking(Value());
    world.core().searchAds();
  });
  EXPECT_THAT(world.transport.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Attribution, AResultThatIsFalseSetsResultCodeAndClockAndNothingElse) {
  world.loop.setWallClock(kit::Date::fromSeconds(1'699'999'000));
  answerWith(
      Dictionary{{"Result", false}, {"ResultCode", 4}, {"BaseTime", int64_t{1'700'000'000'000}}, {"Data", fullData()}});
  EXPECT_EQ(world.services().conversionResult(), false);
  EXPECT_EQ(world.services().conversionResultCode(), 4);
  EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 1000.0);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), -1);
  EXPECT_TRUE(world.userDefaults().fendoConversionInfoForCaches().isAbsent());
  EXPECT_THAT(world.app.calls(), IsEmpty());
}

TEST_F(Attribution, WithoutBaseTimeTheClockOffsetStays) {
  world.services().setIntervalSinceServerDate(5);
  answerWith(Dictionary{{"Result", true}});
  EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 5);
  EXPECT_EQ(world.services().conversionResult(), true);
  EXPECT_EQ(world.services().conversionResultCode(), 0);
}

TEST_F(Attribution, ABaseTimeThatIsTextIsTheNumberItBeginsWith) {
  answerWith(Dictionary{{"Result", false}, {"BaseTime", int64_t{1'700'000'000'000}}});
  const double offset = world.services().intervalSinceServerDate();
  world.services().setIntervalSinceServerDate(5);
  answerWith(Dictionary{{"Result", false}, {"BaseTime", "1700000000000ms"}});
  EXPECT_NEAR(world.services().intervalSinceServerDate(), offset, 5);
}

TEST_F(Attribution, AnAnswerWithoutDataSavesZerosAndBlanksAndPushes) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  answerWith(Dictionary{{"Result", true}});
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_fendoUserNo(), 0);
  EXPECT_EQ(stored.fendoUserInfo_referralKey(), 0);
  EXPECT_EQ(stored.fendoUserInfo_refUSN(), "");
  EXPECT_EQ(stored.fendoUserInfo_install_datetime(), "");
  EXPECT_EQ(stored.fendoUserInfo_install_mdatetime(), 0);
  EXPECT_EQ(world.requests("v1/tracking").size(), 1U);
  EXPECT_THAT(world.app.calls(), ElementsAre("didSaveFendoUserInfo: 0, 0, 0, , 0", "didSaveConversionKey: 0, 0"));
}

TEST_F(Attribution, EveryFieldOfTheRecordReachesItsProperty) {
  answerWithData(fullData());
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_fendoUserNo(), 11);
  EXPECT_EQ(stored.fendoUserInfo_shardNum(), 0);
  EXPECT_EQ(stored.fendoUserInfo_referralKey(), 13);
  EXPECT_EQ(stored.fendoUserInfo_subReferralKey(), 14);
  EXPECT_EQ(stored.fendoUserInfo_refUSN(), "ref-usn");
  EXPECT_EQ(stored.fendoUserInfo_channelType(), 15);
  EXPECT_EQ(stored.fendoUserInfo_shardNo(), 12);
  EXPECT_EQ(stored.fendoUserInfo_updated_at(), at(0));
  EXPECT_EQ(stored.fendoUserInfo_referral_data(), "ref-data");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_conversion_key(), 16);
  EXPECT_EQ(stored.fendoUserInfo_reengagement_data(), "re-data");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_datetime(), 17);
  EXPECT_EQ(stored.fendoUserInfo_last_referral_key(), 18);
  EXPECT_EQ(stored.fendoUserInfo_last_referral_data(), "last-data");
  EXPECT_EQ(stored.fendoUserInfo_last_referral_datetime(), "last-time");
  EXPECT_EQ(stored.fendoUserInfo_install_datetime(), "20240229123456");
  EXPECT_EQ(stored.fendoUserInfo_install_mdatetime(), 1'709'210'096);
}

TEST_F(Attribution, EveryFieldOfTheRecordIsOverwrittenAlsoByZeroAndBlank) {
  answerWith(Dictionary{{"Result", true}, {"Data.shard_no", 77}, {"Data", fullData()}});
  world.loop.advance(1);
  world.core().saveFendoUserInfo({});
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_fendoUserNo(), 0);
  EXPECT_EQ(stored.fendoUserInfo_shardNum(), 0);
  EXPECT_EQ(stored.fendoUserInfo_referralKey(), 0);
  EXPECT_EQ(stored.fendoUserInfo_subReferralKey(), 0);
  EXPECT_EQ(stored.fendoUserInfo_refUSN(), "");
  EXPECT_EQ(stored.fendoUserInfo_channelType(), 0);
  EXPECT_EQ(stored.fendoUserInfo_shardNo(), 0);
  EXPECT_EQ(stored.fendoUserInfo_updated_at(), at(1));
  EXPECT_EQ(stored.fendoUserInfo_referral_data(), "");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_conversion_key(), 0);
  EXPECT_EQ(stored.fendoUserInfo_reengagement_data(), "");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_datetime(), 0);
  EXPECT_EQ(stored.fendoUserInfo_last_referral_key(), 0);
  EXPECT_EQ(stored.fendoUserInfo_last_referral_data(), "");
  EXPECT_EQ(stored.fendoUserInfo_last_referral_datetime(), "");
  EXPECT_EQ(stored.fendoUserInfo_install_datetime(), "");
  EXPECT_EQ(stored.fendoUserInfo_install_mdatetime(), 0);
}

TEST_F(Attribution, TheTwoShardNumbersAreReadFromTwoPlaces) {
  answerWith(Dictionary{{"Result", true}, {"Data.shard_no", 77}, {"Data", fullData()}});
  EXPECT_EQ(world.userDefaults().fendoUserInfo_shardNum(), 77);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_shardNo(), 12);
}

TEST_F(Attribution, TheInstallTimeIsReadInTheDevicesZone) {
  WorldOptions options;
  options.calendar = std::make_shared<testing::FixedOffsetCalendar>(9 * 3600);
  TestWorld seoul(options);
  seoul.transport.on("v1/conversion").then(Answer::json(Dictionary{{"Result", true}, {"Data", fullData()}}));
  seoul.loop.perform([&] { seoul.core().conversion(Value()); });
  EXPECT_EQ(seoul.userDefaults().fendoUserInfo_install_mdatetime(), 1'709'210'096 - 9 * 3600);
}

TEST_F(Attribution, AnInstallTimeThatCannotBeReadIsZero) {
  for (const char* text : {"2024022912345", "202402291234567", "20240230123456", "2024022912345x", "yesterday"}) {
    answerWithData(with(Value(fullData()), "install_datetime", text));
    EXPECT_EQ(world.userDefaults().fendoUserInfo_install_mdatetime(), 0) << text;
    EXPECT_EQ(world.userDefaults().fendoUserInfo_install_datetime(), text);
  }
}

TEST_F(Attribution, AnAttributedInstallIsNotOverwrittenByAKeyOfZeroButKeysAndLinkAreTaken) {
  world.userDefaults().setFendoUserInfo_referralKey(5);
  answerWithData(with(Value(fullData()), "referralKey", 0));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 5);
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{101, 102}));
  EXPECT_THAT(world.app.calls(), ElementsAre("didReceiveDeeplink: app://welcome"));
}

TEST_F(Attribution, AnAttributedInstallIsOverwrittenByAPositiveKey) {
  world.userDefaults().setFendoUserInfo_referralKey(5);
  answerWithData(fullData());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 13);
}

TEST_F(Attribution, AStoredKeyOfZeroIsOverwrittenByAnything) {
  world.userDefaults().setFendoUserInfo_referralKey(0);
  answerWithData(with(Value(fullData()), "referralKey", -3));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), -3);
}

TEST_F(Attribution, TheConversionKeysAreReplacedAlsoByNone) {
  world.userDefaults().setFendoConversionInfoForCaches(Array{9});
  answerWithData(fullData());
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{101, 102}));
  answerWithData(with(Value(fullData()), "conversion_key_list", Value()));
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{}));
  answerWithData(with(Value(fullData()), "conversion_key_list", "no list"));
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{}));
}

TEST_F(Attribution, TheRecordIsSavedThenPushedThenKeysAndAtLastTheLink) {
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.store.clearJournal();
  answerWithData(fullData());
  const auto journal = world.store.journalTexts();
  const auto place = [&](const char* key) { return std::find(journal.begin(), journal.end(), key) - journal.begin(); };
  EXPECT_LT(place("fendoUserInfo_install_mdatetime"), place("fendoActivityInfosSentEventKeys"));
  EXPECT_LT(place("fendoActivityInfosSentEventKeys"), place("fendoConversionInfoForCaches"));
  EXPECT_THAT(world.app.calls(), ElementsAre("didSaveFendoUserInfo: 11, 13, 14, ref-usn, 15",
                                             "didSaveConversionKey: 13, 14", "didReceiveDeeplink: app://welcome"));
}

TEST_F(Attribution, TheLinkIsPassedWhenTheKeysAreSaved) {
  world.userDefaults().setFendoConversionInfoForCaches(Array{9});
  Value keys_at_the_link;
  world.app.of_facade->didReceiveDeeplink = [&](const std::string&) {
    keys_at_the_link = world.userDefaults().fendoConversionInfoForCaches();
  };
  answerWithData(fullData());
  EXPECT_EQ(keys_at_the_link, Value(Array{101, 102}));
}

TEST_F(Attribution, ADeepLinkWithoutAdvertisingIdentifierIsDroppedWithALine) {
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  answerWithData(fullData());
  EXPECT_THAT(world.app.calls(),
              ElementsAre("didSaveFendoUserInfo: 11, 13, 14, ref-usn, 15", "didSaveConversionKey: 13, 14"));
  const auto line = world.log.find("IDFA not passed!");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "CRITICAL");
}

TEST_F(Attribution, ADelegateThatDoesNotRespondIsSkipped) {
  world.app.of_facade->didReceiveDeeplink = nullptr;
  answerWithData(fullData());
  EXPECT_THAT(world.app.calls(),
              ElementsAre("didSaveFendoUserInfo: 11, 13, 14, ref-usn, 15", "didSaveConversionKey: 13, 14"));
}

TEST_F(Attribution, TheAnswerIsLogged) {
  answerWith(Dictionary{{"Result", false}});
  const auto line = world.log.find("MRVK_QA-conversion_JSON: {\"Result\":false}");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "DEBUG");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib conversion:]_block_invoke");
}

TEST_F(Attribution, TenFailuresInARowMakeNineRetriesTenSecondsApart) {
  world.transport.on("v1/conversion").always(Answer::error("down"));
  convert();
  world.loop.advance(1000);
  const auto sent = world.transport.sent();
  ASSERT_EQ(sent.size(), 10U);
  for (size_t i = 1; i < sent.size(); ++i)
    EXPECT_NEAR(sent[i].monotonic_seconds - sent[i - 1].monotonic_seconds, 10.0, 0.001);
  EXPECT_EQ(world.core().failedGetReferralCnt(), 10);
  EXPECT_EQ(world.log.count("MRVK_QA-MorvikCore reTry reGetReferral"), 9U);
  EXPECT_EQ(world.log.find("MRVK_QA-MorvikCore reTry reGetReferral")->prefix->level, "TRACE");
}

TEST_F(Attribution, AFailureIsLoggedInTwoLines) {
  world.transport.on("v1/conversion").then(Answer::body(503, "")).always(Answer::silence());
  convert();
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib conversion:]_block_invoke"),
              ElementsAre("MRVK_QA-Recieved an HTTP 503", "MRVK_QA-The error was: The server answered with status 503.",
                          "MRVK_QA-MorvikCore reTry reGetReferral"));
}

TEST_F(Attribution, ARetryCarriesThePayloadOfTheFailure) {
  world.transport.on("v1/conversion").then(Answer::error("down").after(2)).then(Answer::silence());
  convert();
  world.loop.advance(12.5);
  EXPECT_EQ(world.payloads("v1/conversion").at(1)["activity_info"].array()[0]["created_at"], Value("20240301000002"));
}

TEST_F(Attribution, AnyAnswerResetsTheCounter) {
  world.transport.on("v1/conversion").times(3, Answer::error("down")).then(Answer::json(Dictionary{{"Result", false}}));
  convert();
  world.loop.advance(100);
  EXPECT_EQ(world.requests("v1/conversion").size(), 4U);
  EXPECT_EQ(world.core().failedGetReferralCnt(), 0);
}

TEST_F(Attribution, ForgetMeEndsTheChainOfRetries) {
  world.transport.on("v1/conversion").always(Answer::error("down"));
  convert();
  world.services().setIsGDPRForgetMe(true);
  world.loop.advance(1000);
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
}

// --------------------------------------------------------------------------------------------- third-party conversions

TEST_F(Attribution, AThirdPartyFailureIsLoggedAndNeverRetried) {
  world.transport.on("thirdparty").always(Answer::body(500, ""));
  convertThirdParty();
  world.loop.advance(100);
  EXPECT_EQ(world.requests("thirdparty").size(), 1U);
  EXPECT_EQ(world.core().failedGetReferralCnt(), 0);
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib thirdPartyConversion:]_block_invoke"),
              ElementsAre("MRVK_QA-thirdPartyConversion_Recieved an HTTP 500",
                          "MRVK_QA-thirdPartyConversion_The error was: The server answered with status 500."));
}

TEST_F(Attribution, AThirdPartyAnswerIsTakenButNeitherPushesNorResetsTheCounter) {
  world.transport.on("v1/conversion").then(Answer::error("down")).always(Answer::silence());
  convert();
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.transport.on("thirdparty").then(Answer::json(Dictionary{{"Result", true}, {"Data", fullData()}}));
  convertThirdParty();
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 13);
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{101, 102}));
  EXPECT_EQ(world.core().failedGetReferralCnt(), 1);
  EXPECT_THAT(world.requests("v1/tracking"), IsEmpty());
}

TEST_F(Attribution, AThirdPartyDeepLinkWithoutIdentifierHasALineOfItsOwn) {
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  world.transport.on("thirdparty").then(Answer::json(Dictionary{{"Result", true}, {"Data", fullData()}}));
  convertThirdParty();
  const auto line = world.log.find("MRVK_QA-thirdPartyConversion_IDFA not passed!");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "CRITICAL");
}

ReferralRecord someRecord() {
  ReferralRecord record;
  record.fendoUserNo = std::numeric_limits<int64_t>::max();
  record.referralKey = 3;
  record.subReferralKey = -1;
  record.refUSN = "usn";
  record.channelType = -2;
  record.shardNo = 4;
  record.referralData = "data";
  record.reengagementDateTime = 5;
  return record;
}

TEST_F(Attribution, SavingLogsTheRecord) {
  world.core().saveFendoUserInfo(someRecord());
  const auto line = world.log.find(
      "MRVK_QA-fendoUserNo : 9223372036854775807, referralKey : 3, subReferralKey : -1, refUSN : usn, "
      "channelType : -2, shardNo : 4, referralData : data reengagementDateTime : 5");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "TRACE");
  EXPECT_EQ(line->prefix->operation,
            "-[MorvikCoreLib saveFendoUserInfo:shardNum:referralKey:subReferralKey:refUSN:channelType:shardNo:"
            "referralData:reengagementConversionKey:reengagementData:reengagementDateTime:lastReferralKey:"
            "lastReferralData:lastReferralDatetime:installDatetime:installmDatetime:]");
}

TEST_F(Attribution, SavingWritesInItsOrderAndDoesNotFlush) {
  world.store.clearJournal();
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_THAT(world.store.journalTexts(),
              ElementsAre("fendoUserInfo_fendoUserNo", "fendoUserInfo_shardNum", "fendoUserInfo_referralKey",
                          "fendoUserInfo_subReferralKey", "fendoUserInfo_refUSN", "fendoUserInfo_channelType",
                          "fendoUserInfo_shardNo", "fendoUserInfo_updated_at", "fendoUserInfo_referral_data",
                          "fendoUserInfo_reengagement_conversion_key", "fendoUserInfo_reengagement_data",
                          "fendoUserInfo_reengagement_datetime", "fendoUserInfo_last_referral_key",
                          "fendoUserInfo_last_referral_data", "fendoUserInfo_last_referral_datetime",
                          "fendoUserInfo_install_datetime", "fendoUserInfo_install_mdatetime"));
}

TEST_F(Attribution, SavingTellsTheServicesDelegateAndThenTheApps) {
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_THAT(world.app.calls(),
              ElementsAre("didSaveFendoUserInfo: 9223372036854775807, 3, -1, usn, -2", "didSaveConversionKey: 3, -1"));
}

TEST_F(Attribution, ASubReferralKeyReachesTheAppAsText) {
  ReferralRecord record = someRecord();
  record.subReferralKey = 12;
  std::string seen;
  world.app.of_facade->didSaveConversionKey = [&](int64_t, const std::string& key) { seen = key; };
  world.core().saveFendoUserInfo(record);
  EXPECT_EQ(seen, "12");
}

TEST_F(Attribution, ADelegateWithoutTheSlotIsSkippedAndTheOtherStillCalled) {
  world.app.of_services->didSaveFendoUserInfo = nullptr;
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_THAT(world.app.calls(), ElementsAre("didSaveConversionKey: 3, -1"));
  world.app.of_facade->didSaveConversionKey = nullptr;
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_EQ(world.app.calls().size(), 1U);
}

TEST_F(Attribution, DelegatesThatAreGoneAreSkipped) {
  world.app.of_services.reset();
  world.app.of_facade.reset();
  answerWithData(fullData());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 13);
}

TEST_F(Attribution, UpdatedAtChangesWithEachSave) {
  world.core().saveFendoUserInfo(someRecord());
  world.loop.advance(1);
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_updated_at(), at(1));
}

TEST_F(Attribution, AThrowStopsTheRemainingWritesAndKeepsTheOnesMade) {
  world.faulty.key_value_store.faults.throwAt("set", 4, testing::Fault::number(3));
  world.core().saveFendoUserInfo(someRecord());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 3);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_subReferralKey(), 0);
  EXPECT_THAT(world.app.calls(), IsEmpty());
}

class SearchAds : public Attribution {
 protected:
  explicit SearchAds(WorldOptions options = {}) : Attribution(std::move(options)) {
    world.transport.on("v1/conversion").always(Answer::silence());
  }
  void ask(const Value& details, const std::optional<kit::Error>& error = std::nullopt) {
    world.ad_client.attribution_details.answerEveryCall(details, error);
    world.loop.perform([&] { world.core().searchAds(); });
  }
};

TEST_F(SearchAds, AreAskedForFromSystemVersionTenOn) {
  world.ad_client.attribution_details.letCallsWait();
  for (const auto& [version, calls] : std::vector<std::pair<std::string, size_t>>{
           {"9.3", 0}, {"", 0}, {"nonsense", 0}, {"10.0", 1}, {"10", 2}, {"15.1.2", 3}}) {
    world.device.set({.system_version = version});
    world.core().searchAds();
    EXPECT_EQ(world.ad_client.attribution_details.calls(), calls) << version;
  }
}

TEST_F(SearchAds, AreNotAskedForUnderForgetMeWhereTheyAreOffered) {
  world.ad_client.attribution_details.letCallsWait();
  world.services().setIsGDPRForgetMe(true);
  world.core().searchAds();
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 0U);
  world.services().setIsGDPRForgetMe(false);
  world.core().searchAds();
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 1U);
}

TEST_F(SearchAds, HeldDetailsSendAConversionAtASessionStartOnlyWithoutAStoredReferralKey) {
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}});
  world.ad_client.attribution_details.letCallsWait();
  const size_t calls = world.ad_client.attribution_details.calls();
  world.transport.clearRequests();
  const auto conversionsOfASession = [this](int64_t stored_key) {
    world.userDefaults().setFendoUserInfo_referralKey(stored_key);
    world.becomeActive();
    const size_t sent = world.requests("v1/conversion").size();
    world.enterBackground();
    world.loop.advance(100);
    world.transport.clearRequests();
    return sent;
  };
  EXPECT_EQ(conversionsOfASession(-1), 1U);
  for (const int64_t key : {int64_t{0}, int64_t{13}})
    EXPECT_EQ(conversionsOfASession(key), 0U) << key;
  EXPECT_EQ(world.ad_client.attribution_details.calls(), calls) << "held details are not asked for again";
}

TEST_F(SearchAds, AreNotAskedForWhereNotOffered) {
  world.core().searchAds();
  EXPECT_EQ(world.ad_client.attribution_details.calls(), 0U);
  WorldOptions options;
  options.has_ad_client = false;
  TestWorld without(options);
  without.becomeActive();
  without.loop.advance(100);
  EXPECT_THAT(without.requests(services::kConversionPath), IsEmpty());
}

TEST_F(SearchAds, TheLastEntryThatIsThereWinsAndEachIsLoggedPastTheLevel) {
  world.sharedState().log_levels._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vOff;
  world.log.clear();
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}, {"b", Dictionary{{"x", 2}}}, {"c", Value::null()}});
  EXPECT_EQ(world.core().searchAdsAttributionDetails(), Value(Dictionary{{"x", 2}}));
  EXPECT_THAT(world.log.messages(),
              ElementsAre("SearchAds Attribution Dictionary: {\"x\":1}", "SearchAds Attribution Dictionary: {\"x\":2}",
                          "SearchAds Attribution searchAdsAttributionDetails: {\"x\":2}"));
  for (const auto& line : world.log.lines())
    EXPECT_FALSE(line.prefix.has_value()) << line.text;
}

TEST_F(SearchAds, DetailsThatComeWithAnErrorAreIgnoredButLoggedAndTheConversionIsSent) {
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}}, kit::Error{"no luck"});
  EXPECT_TRUE(world.core().searchAdsAttributionDetails().isAbsent());
  EXPECT_TRUE(world.log.has("SearchAds Attribution searchAdsAttributionDetails: (null)"));
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
  EXPECT_EQ(world.payloads("v1/conversion").at(0)["searchads_response"], Value(""));
}

TEST_F(SearchAds, AnErrorLaterOnKeepsTheDetailsAndTheConversionCarriesThem) {
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}});
  ask(Dictionary{{"a", Dictionary{{"x", 2}}}}, kit::Error{"no luck"});
  EXPECT_EQ(world.log.count("SearchAds Attribution searchAdsAttributionDetails: {\"x\":1}"), 2U);
  EXPECT_THAT(world.log.messages(), ::testing::Not(::testing::Contains("SearchAds Attribution Dictionary: {\"x\":2}")));
  ASSERT_EQ(world.requests("v1/conversion").size(), 2U);
  EXPECT_EQ(world.payloads("v1/conversion").at(1)["searchads_response"], Value(Dictionary{{"x", 1}}));
}

TEST_F(SearchAds, NoDetailsAndNoErrorStillSendTheConversion) {
  ask(Value());
  EXPECT_EQ(world.requests("v1/conversion").size(), 1U);
}

TEST_F(SearchAds, OnlyAStoredReferralKeyOfMinusOneSendsTheConversion) {
  for (const int64_t key : {int64_t{0}, int64_t{5}, int64_t{-2}}) {
    world.userDefaults().setFendoUserInfo_referralKey(key);
    ask(Value());
    EXPECT_THAT(world.requests("v1/conversion"), IsEmpty()) << key;
  }
}

TEST_F(SearchAds, LaterDetailsReplaceEarlierOnesAndNoneKeepsThem) {
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}});
  ask(Dictionary{{"a", Dictionary{{"x", 2}}}});
  ask(Value());
  EXPECT_EQ(world.core().searchAdsAttributionDetails(), Value(Dictionary{{"x", 2}}));
}

TEST_F(SearchAds, DetailsLiveInMemoryOnly) {
  ask(Dictionary{{"a", Dictionary{{"x", 1}}}});
  world.restart();
  EXPECT_TRUE(world.core().searchAdsAttributionDetails().isAbsent());
}

class IAd : public Attribution {
 protected:
  void ask() {
    world.loop.perform([this] { world.core().iAdConversion(); });
  }
  std::vector<kit::Request> sent() { return world.requests("v1/iad-attribution"); }
};

TEST_F(IAd, WithoutAnImpressionDateNothingIsSent) {
  world.ad_client.conversion_details.answerEveryCall(at(0), std::nullopt);
  ask();
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_EQ(world.log.find("MRVK_QA-iOS 8 call exists")->prefix->level, "DEBUG");
  EXPECT_EQ(world.log.find("MRVK_QA-iAdOriginatedInstallation : 0")->prefix->level, "DEBUG");
}

TEST_F(IAd, WithBothDatesTheBodyHasBothInKoreanTime) {
  world.ad_client.conversion_details.answerEveryCall(at(0), at(60));
  ask();
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_EQ(world.payload(sent()[0])["iAd"],
            Value(Dictionary{{"appPurchaseDate", "20240301090000"}, {"iAdImpressionDate", "20240301090100"}}));
  EXPECT_TRUE(world.log.has("MRVK_QA-iAdOriginatedInstallation : 1"));
}

TEST_F(IAd, WithAnImpressionDateAloneTheCommonParametersAreSent) {
  world.ad_client.conversion_details.answerEveryCall(std::nullopt, at(60));
  ask();
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_EQ(world.payload(sent()[0]), Value(world.services().makeCommonParameter("1.2.3")));
}

TEST_F(IAd, TheOlderCallIsUsedWhereTheNewerIsNotOffered) {
  world.ad_client.installation_attribution.answerEveryCall(true);
  ask();
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_TRUE(world.payload(sent()[0])["iAd"].isAbsent());
  EXPECT_EQ(world.log.find("MRVK_QA-iOS 7.1 call exists")->prefix->level, "DEBUG");
}

TEST_F(IAd, TheNewerCallGoesFirst) {
  world.ad_client.installation_attribution.answerEveryCall(true);
  world.ad_client.conversion_details.letCallsWait();
  ask();
  EXPECT_EQ(world.ad_client.installation_attribution.calls(), 0U);
  EXPECT_EQ(world.ad_client.conversion_details.calls(), 1U);
}

TEST_F(IAd, AnOlderCallThatAnswersNoSendsNothing) {
  world.ad_client.installation_attribution.answerEveryCall(false);
  ask();
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(IAd, WithNeitherCallNothingHappens) {
  world.log.clear();
  ask();
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(IAd, AnswersOverwriteTheRecordAlsoWithoutAKeyAndDoNothingElse) {
  world.userDefaults().setFendoUserInfo_referralKey(5);
  world.userDefaults().setFendoActivityInfos(activities(1));
  world.services().setIntervalSinceServerDate(3);
  kit::MutableDictionary data{Value(fullData())};
  data.set("referralKey", 0);
  data.set("install_datetime", "unreadable");
  world.transport.on("iad").then(
      Answer::json(Dictionary{{"Result", true}, {"BaseTime", 1}, {"ResultCode", 9}, {"Data", Value(std::move(data))}}));
  world.ad_client.installation_attribution.answerEveryCall(true);
  ask();
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 0);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_install_mdatetime(), -1);
  EXPECT_EQ(world.userDefaults().fendoConversionInfoForCaches(), Value(Array{101, 102}));
  EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 3);
  EXPECT_FALSE(world.services().conversionResultCode().has_value());
  EXPECT_THAT(world.requests("v1/tracking"), IsEmpty());
  EXPECT_THAT(world.app.calls(),
              ElementsAre("didSaveFendoUserInfo: 11, 0, 14, ref-usn, 15", "didSaveConversionKey: 0, 14"));
  EXPECT_EQ(world.log.countContaining("MRVK_QA-iAdAppAttributionTracking_JSON: "), 1U);
}

TEST_F(IAd, AReadableInstallTimeIsStored) {
  world.transport.on("iad").then(Answer::json(Dictionary{{"Result", true}, {"Data", fullData()}}));
  world.ad_client.installation_attribution.answerEveryCall(true);
  ask();
  EXPECT_EQ(world.userDefaults().fendoUserInfo_install_mdatetime(), 1'709'210'096);
}

TEST_F(IAd, AResultThatIsFalseSavesNothing) {
  world.transport.on("iad").then(Answer::json(Dictionary{{"Result", false}, {"Data", fullData()}}));
  world.ad_client.installation_attribution.answerEveryCall(true);
  ask();
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), -1);
  EXPECT_TRUE(world.userDefaults().fendoConversionInfoForCaches().isAbsent());
  EXPECT_TRUE(world.log.has("MRVK_QA-iAdAppAttributionTracking_JSON: " +
                            services::describe(Dictionary{{"Result", false}, {"Data", fullData()}})));
}

TEST_F(IAd, AFailureIsLoggedAndNeverRetried) {
  world.transport.on("iad").always(Answer::error("down"));
  world.loop.perform([&] { world.core().iAdAppAttributionTracking(Dictionary{{"j", "x"}}); });
  world.loop.advance(100);
  EXPECT_EQ(sent().size(), 1U);
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib iAdAppAttributionTracking:]"),
              ElementsAre("MRVK_QA-iAdAppAttributionTracking_parameterInfo : {\"j\":\"x\"}"));
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib iAdAppAttributionTracking:]_block_invoke"),
              ElementsAre("MRVK_QA-iAdAppAttributionTracking_Recieved an HTTP 0",
                          "MRVK_QA-iAdAppAttributionTracking_The error was: down"));
}

TEST_F(Attribution, AnyValueInAnyFieldLeavesADefinedState) {
  const Value full = Dictionary{{"Result", true}, {"ResultCode", 1}, {"BaseTime", 1}, {"Data", fullData()}};
  for (const Value& odd : testing::oddValues()) {
    for (const std::string& key : keys(full))
      answerWith(with(full, key.c_str(), odd));
    for (const std::string& key : keys(full["Data"]))
      answerWithData(with(full["Data"], key.c_str(), odd));
  }
  EXPECT_EQ(world.log.countContaining("Exception from"), 0U);
  answerWithData(fullData());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_referralKey(), 13);
}

TEST_F(Attribution, NumbersAndTextsStandInForEachOther) {
  kit::MutableDictionary data{Value(fullData())};
  data.set("user_no", "42 and more");
  data.set("referralKey", 7.9);
  data.set("subreferralKey", true);
  data.set("refusn", 5);
  data.set("channel_type", int64_t{4'294'967'297});
  data.set("referral_data", true);
  data.set("shard_no", Array{1});
  answerWithData(Value(std::move(data)));
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_fendoUserNo(), 42);
  EXPECT_EQ(stored.fendoUserInfo_referralKey(), 7);
  EXPECT_EQ(stored.fendoUserInfo_subReferralKey(), 1);
  EXPECT_EQ(stored.fendoUserInfo_refUSN(), "5");
  EXPECT_EQ(stored.fendoUserInfo_channelType(), 1);
  EXPECT_EQ(stored.fendoUserInfo_referral_data(), "1");
  EXPECT_EQ(stored.fendoUserInfo_shardNo(), 0);
}

TEST_F(Attribution, AnswersThatAreNoObjectAreFailures) {
  for (const char* body : {"", "null", "[]", "5", "\"text\"", "{", "<html>", "{}x"}) {
    TestWorld single;
    single.transport.on("v1/conversion").then(Answer::body(200, body)).always(Answer::silence());
    single.loop.perform([&] { single.core().conversion(Value()); });
    EXPECT_EQ(single.core().failedGetReferralCnt(), 1) << body;
    EXPECT_TRUE(single.log.has("MRVK_QA-Recieved an HTTP 200")) << body;
  }
}

}  // namespace
}  // namespace morvik
