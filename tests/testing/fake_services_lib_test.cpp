#include "testing/fake_services_lib.h"

#include <gtest/gtest.h>

#include "services/MorvikADAFHTTPClient.h"
#include "testing/fake_crypto.h"
#include "testing/fake_util.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/sealed_payload.h"

namespace morvik::test {
namespace {

using Texts = std::vector<std::string>;

class FakeServicesTest : public ::testing::Test {
 protected:
  testing::MemoryStore memory;
  kit::ListLock lock;
  services::MorvikGVUserDefaults store{memory, lock};
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random;
  services::SealingTools tools{cipher, compressor, random};
  testing::FakeServicesLib fake{store, tools};
};

TEST_F(FakeServicesTest, AppendsRecordsWithIdsOfTheirOwnAndFlushes) {
  fake.addActivityGroupName("shop", "buy", "42", kit::Date{5});
  fake.addActivityGroupName("shop", kit::Value(), kit::Value(), kit::Date{6});
  const kit::Value stored = memory.committed()["fendoActivityInfos"];
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored.array()[0], kit::Value(kit::Dictionary{{"activityGroupName", "shop"},
                                                          {"activityName", "buy"},
                                                          {"activityParam", "42"},
                                                          {"activityCreatedAt", kit::Date{5}},
                                                          {"activityEventID", "event-1"}}));
  EXPECT_EQ(stored.array()[1],
            kit::Value(kit::Dictionary{
                {"activityGroupName", "shop"}, {"activityCreatedAt", kit::Date{6}}, {"activityEventID", "event-2"}}));
  EXPECT_EQ(memory.journalTexts(), (Texts{"fendoActivityInfos", "synchronize", "fendoActivityInfos", "synchronize"}));
  EXPECT_EQ(fake.calls(), (Texts{"addActivityGroupName shop buy", "addActivityGroupName shop (none)"}));
  EXPECT_EQ(fake.nextEventNumber(), 3u);
}

TEST_F(FakeServicesTest, LoadsTheForgetMeMirrorFromTheStore) {
  EXPECT_FALSE(fake.isGDPRForgetMe());
  store.setMorvikCoreUserInfo_isGDPRForgetMe(true);
  EXPECT_FALSE(fake.isGDPRForgetMe()) << "loaded once, at the start";
  EXPECT_TRUE(testing::FakeServicesLib(store, tools).isGDPRForgetMe());
  fake.setIsGDPRForgetMe(true);
  EXPECT_TRUE(fake.isGDPRForgetMe());
}

TEST_F(FakeServicesTest, MakesEveryCommonParameterAndTheTestsOwn) {
  fake.setCommonParameter("idfa", "mine");
  fake.setCommonParameter("puid", kit::Value());
  const kit::Value parameters = fake.makeCommonParameter("7.0");
  EXPECT_EQ(parameters.size(), 16u);
  EXPECT_EQ(parameters["appkey"], kit::Value("test-app"));
  EXPECT_EQ(parameters["sdk_version"], kit::Value("7.0"));
  EXPECT_EQ(parameters["os_type"], kit::Value("ios"));
  EXPECT_EQ(parameters["idfa"], kit::Value("mine"));
  EXPECT_EQ(parameters["carrier"], kit::Value("test carrier"));
  EXPECT_FALSE(parameters.dictionary().contains("puid"));
}

TEST_F(FakeServicesTest, SealsAnEnvelopeThatOpensWithItsKey) {
  const kit::Value payload = testing::json(R"({"a":1})");
  const kit::Value envelope = fake.makeJsonParameter(payload, "key");
  const kit::Request request{.body = services::formEncoded(envelope.dictionary())};
  EXPECT_EQ(testing::openEnvelope(tools, request, "key").payload, payload);
  EXPECT_TRUE(fake.makeJsonParameter(kit::Date{}, "key").isAbsent());
  EXPECT_EQ(fake.envelopeErrors().size(), 1u);
}

TEST_F(FakeServicesTest, RemembersWhatItWasTold) {
  EXPECT_EQ(fake.conversionResult(), std::nullopt);
  fake.setConversionResult(true);
  fake.setConversionResultCode(-5);
  fake.setIntervalSinceServerDate(1.5);
  fake.saveConversionInfoForCacheWithConversionArr(kit::Array{1, 2});
  fake.exchangeDidEnd({.url = "https://a.example/"}, {.succeeded = true, .json = 1});
  EXPECT_EQ(fake.conversionResult(), true);
  EXPECT_EQ(fake.conversionResultCode(), -5);
  EXPECT_DOUBLE_EQ(fake.intervalSinceServerDate(), 1.5);
  EXPECT_EQ(store.fendoConversionInfoForCaches(), kit::Value(kit::Array{1, 2}));
  ASSERT_EQ(fake.endedExchanges().size(), 1u);
  EXPECT_EQ(fake.endedExchanges()[0].url, "https://a.example/");
  EXPECT_TRUE(fake.endedExchanges()[0].result.succeeded);
  EXPECT_EQ(fake.calls(), (Texts{"setConversionResult 1", "setConversionResultCode -5", "setIntervalSinceServerDate",
                                 "saveConversionInfoForCacheWithConversionArr"}));
}

TEST_F(FakeServicesTest, HoldsItsDelegateWeaklyAndItsIdentifierAsTheTestSays) {
  auto delegate = std::make_shared<kit::SaveFendoUserInfoDelegate>();
  fake.setSaveFendoUserInfoDelegate(delegate);
  EXPECT_EQ(fake.saveFendoUserInfoDelegate(), delegate);
  delegate.reset();
  EXPECT_EQ(fake.saveFendoUserInfoDelegate(), nullptr);
  EXPECT_TRUE(fake.appleAdvertisingIdentifier());
  fake.setAppleAdvertisingIdentifier(std::nullopt);
  EXPECT_EQ(fake.appleAdvertisingIdentifier(), std::nullopt);
}

TEST_F(FakeServicesTest, NamesTheGroups) {
  EXPECT_EQ(fake.activityGroupName(0), "session");
  EXPECT_EQ(fake.activityGroupName(3), "group 3");
  EXPECT_EQ(fake.appKey(), "test-app");
  EXPECT_EQ(fake.hashKey(), "test-hash");
}

TEST(FakeUtil, ConvertsAndFormatsAsTheServicesDo) {
  testing::FakeUtil util;
  EXPECT_EQ(util.checkNilToBlankString(kit::Value::null()), kit::Value(""));
  EXPECT_TRUE(util.checkNilToNo("Yes"));
  EXPECT_EQ(util.checkIntegerNilToZero("12 apples"), 12);
  EXPECT_EQ(util.checkLongLongNilToZero(kit::Value()), 0);
  EXPECT_DOUBLE_EQ(util.checkDoubleNilToZero(1.5), 1.5);
  EXPECT_EQ(util.checkNilToZero(int64_t{1} << 32), 0);
  EXPECT_EQ(util.getKoreaDateFormateDate({}), "19700101090000");
  EXPECT_EQ(util.getUTCFormateDate({}), "19700101000000");
  EXPECT_DOUBLE_EQ(util.timeIntervalSinceServerDate(kit::Date::fromSeconds(100), 130.5), 30.5);
  EXPECT_TRUE(util.IDFA());
  util.setIDFA(std::nullopt);
  EXPECT_EQ(util.IDFA(), std::nullopt);
}

TEST_F(FakeServicesTest, KeepsConversionsAndThePremiumPostbackAndNotesTheCalls) {
  EXPECT_FALSE(fake.isPremiumPostback());
  fake.setIsPremiumPostback(true);
  fake.saveConversionInfoForCache(12);
  fake.saveConversionTimeInfoForCache("12", 1.5);
  EXPECT_TRUE(fake.isPremiumPostback());
  EXPECT_EQ(store.fendoConversionInfoForCaches(), kit::Value(kit::Array{12}));
  EXPECT_EQ(store.arrayForKey("host.conversionTimes").size(), 1u);
  EXPECT_EQ(fake.calls(), (Texts{"setIsPremiumPostback 1", "saveConversionInfoForCache 12",
                                 "saveConversionTimeInfoForCache 12 1.5"}));
}

TEST_F(FakeServicesTest, HoldsTheDelegatesOfRetainedConversionsWeakly) {
  auto object = std::make_shared<const kit::ModuleObject>();
  fake.setResetRetainedConversionCacheDeleate(object);
  fake.setSaveRetainedConversionKeyDelegate(object);
  EXPECT_EQ(fake.resetRetainedConversionCacheDeleate(), object);
  EXPECT_EQ(fake.saveRetainedConversionKeyDelegate(), object);
  object.reset();
  EXPECT_EQ(fake.resetRetainedConversionCacheDeleate(), nullptr);
  EXPECT_EQ(fake.saveRetainedConversionKeyDelegate(), nullptr);
}

TEST(FakeUtil, ReadsTheQueryOfAUrl) {
  EXPECT_EQ(testing::FakeUtil().getURLParmaters(kit::Url("app://x?ck=1%32")),
            kit::Value(kit::Dictionary{{"ck", "12"}}));
}

}  // namespace
}  // namespace morvik::test
