// Opened URLs, re-engagement clicks and their failures, and the Facebook referral.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "services/describe.h"
#include "services/json_writer.h"
#include "tests/MorvikCoreLib/clicks.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Kind;
using kit::Url;
using kit::Value;
using testing::acceptanceOf;
using testing::Answer;
using testing::arrayOf;
using testing::clickOf;
using testing::countOf;
using ::testing::ElementsAre;
using testing::Fault;
using ::testing::IsEmpty;
using testing::kCommerce;
using testing::keys;
using testing::keysOf;
using testing::kReEngagement;
using testing::kThirdParty;
using testing::linkOf;
using testing::sentClicks;
using testing::TestWorld;
using testing::WorldOptions;

constexpr const char* kFendoLib = "FendoLib";
constexpr const char* kIdentifier = "00000000-0000-4000-8000-0000000000AD";

/// An attributed install with the tracking module, and a service that has not answered yet.
class DeepLinks : public ::testing::Test {
 protected:
  explicit DeepLinks(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {
    world.modules.add(kFendoLib);
    world.transport.setDefaultAnswer(Answer::silence());
    world.store.commitTurn();
    world.store.clearJournal();
    world.log.clear();
  }

  void open(const std::string& url) { testing::open(world, url); }
  size_t reEngagements() { return world.requests(kReEngagement).size(); }
  size_t commerceRequests() { return world.requests(kCommerce).size(); }
  std::vector<std::string> clickIds() {
    return testing::texts(world.userDefaults().commerceConversionInfos(), "clickId");
  }
  Value clicks() { return world.userDefaults().reEngagementInfos(); }
  Value counts() { return world.userDefaults().reEngagementConversionFailedCnt(); }
  void expectNothingHappened() {
    EXPECT_THAT(world.requests(), IsEmpty());
    EXPECT_THAT(world.store.journalTexts(), IsEmpty());
    EXPECT_THAT(world.modules.calls(), IsEmpty());
    EXPECT_THAT(world.services().calls(), IsEmpty());
  }

  TestWorld world;
};

// --------------------------------------------------------------------------------------------------------- opened URLs

TEST_F(DeepLinks, AnEngagementClickIsAReEngagementAlsoWithFacebooksFlag) {
  // On the way of the advertising identifier it would be left alone: there is none.
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  open("app://x?ck=12&mrvk_eng=true&isFacebookCpi=true");
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib resetRetainedConversionCache: "
                                                 "{\"ck\":\"12\",\"mrvk_eng\":\"true\",\"isFacebookCpi\":\"true\"}"));
}

TEST_F(DeepLinks, AFacebookInstallClickIsSentOnlyAsADeepLinkConversionWithASessionNumber) {
  open("app://x?ck=12&isFacebookCpi=true");
  open("app://x?ck=12&isFacebookCpi=true&mrvk_deeplink_cvr=true");
  open("app://x?ck=12&isFacebookCpi=true&sn=3");
  expectNothingHappened();
  open("app://x?ck=12&isFacebookCpi=true&mrvk_deeplink_cvr=true&sn=3");
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  EXPECT_EQ(world.modules.calls().size(), 1U);
}

TEST_F(DeepLinks, AClickWithNothingButAKeyIsSentAndResetsTheCache) {
  open("app://x?ck=12&mrvk_eng=false&isFacebookCpi=false");
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  EXPECT_EQ(commerceRequests(), 0U);
  EXPECT_TRUE(world.userDefaults().commerceConversionInfos().isAbsent());
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib resetRetainedConversionCache: "
                                                 "{\"ck\":\"12\",\"mrvk_eng\":\"false\",\"isFacebookCpi\":\"false\"}"));
}

TEST_F(DeepLinks, ACommerceClickWithoutAKeyOnADeviceWithoutAnIdentifierRecordsNothing) {
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  open("app://x?cid=shoe");
  expectNothingHappened();
  EXPECT_TRUE(world.userDefaults().commerceConversionInfos().isAbsent());
}

TEST_F(DeepLinks, ACommerceClickWithoutAKeyIsRecordedAndSentAndNoReEngagement) {
  open("app://x?cid=shoe&sn=1&mrvk_deeplink_cvr=true");
  EXPECT_THAT(clickIds(), ElementsAre("shoe"));
  EXPECT_EQ(commerceRequests(), 1U);
  EXPECT_EQ(reEngagements(), 0U);
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(DeepLinks, BeforeTheInstallIsAttributedADeepLinkConversionIsACommerceClickAtMost) {
  world.userDefaults().setFendoUserInfo_referralKey(-1);
  EXPECT_FALSE(world.core().isFirstLaunchOk());
  const std::string url = "app://x?ck=12&isFacebookCpi=true&mrvk_deeplink_cvr=true&sn=3";
  open(url);
  EXPECT_THAT(world.requests(), IsEmpty());
  open(url + "&cid=shoe");
  EXPECT_EQ(commerceRequests(), 1U);
  EXPECT_EQ(reEngagements(), 0U);
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

class FirstLaunch : public DeepLinks {
 protected:
  FirstLaunch() : DeepLinks(WorldOptions()) {
    EXPECT_TRUE(world.core().isFirstLaunchOk());
    world.userDefaults().setFendoUserInfo_referralKey(7);  // it has arrived meanwhile
  }
};

TEST_F(FirstLaunch, ADeepLinkConversionIsACommerceClickAtMost) {
  const std::string url = "app://x?ck=12&isFacebookCpi=true&mrvk_deeplink_cvr=true&sn=3";
  open(url);
  EXPECT_THAT(world.requests(), IsEmpty());
  open(url + "&cid=shoe");
  EXPECT_EQ(commerceRequests(), 1U);
  EXPECT_EQ(reEngagements(), 0U);
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(FirstLaunch, AnEngagementClickIsSentAllTheSame) {
  open("app://x?ck=12");
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  EXPECT_EQ(world.payloads(kReEngagement)[0]["deeplink_info"]["is_first_launch"], Value(true));
}

TEST_F(DeepLinks, AnyReferralKeyButMinusOneIsAnAttribution) {
  for (const int64_t key : {0, -2}) {
    world.userDefaults().setFendoUserInfo_referralKey(key);
    open("app://x?ck=12&isFacebookCpi=true&mrvk_deeplink_cvr=true&sn=3");
  }
  EXPECT_EQ(reEngagements(), 2U);
}

TEST_F(DeepLinks, WithoutAModuleAndWithoutADelegateTheConversionIsSentAndNothingIsReset) {
  world.modules.remove(kFendoLib);
  open("app://x?ck=12");
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_THAT(world.services().calls(), ElementsAre("makeJsonParameter"));
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(DeepLinks, AUrlWithoutAQueryOrWithoutAKeyIsLeftAlone) {
  for (const char* url : {"", "app://x", "app://x?", "app://x?a=1", "app://x#?ck=1", "?"})
    open(url);
  expectNothingHappened();
}

TEST_F(DeepLinks, AKeyThatIsPresentAndEmptyCounts) {
  open("app://x?ck=");
  EXPECT_THAT(sentClicks(world), ElementsAre(0));
  open("app://x?ck");
  EXPECT_EQ(reEngagements(), 2U);
  open("app://x?cid");
  EXPECT_THAT(clickIds(), ElementsAre(""));
}

TEST_F(DeepLinks, AClickDoesItsWorkInOrder) {
  // What stands before a step is done when the step fails, what stands after it is not.
  open("app://x?ck=12&cid=shoe&sn=3");
  EXPECT_THAT(
      world.log.messages(),
      ElementsAre(
          "MRVK_QA-P.O. URL : app://x?ck=12&cid=shoe&sn=3, getURLParamaters : "
          "{\"ck\":\"12\",\"cid\":\"shoe\",\"sn\":\"3\"}",
          "MRVK_QA-commerceConversionInfos : " + services::describe(world.userDefaults().commerceConversionInfos()),
          "MRVK_QA-commerceConversion_request.URL.absoluteString : "
          "https://commerce.morvik.example/v1/commerce-conversion",
          "MRVK_QA-ReEngagement_URL : app://x?ck=12&cid=shoe&sn=3",
          "MRVK_QA-makeReEngagementConversionParameter_jsonDict : " +
              services::describe(world.payloads(kReEngagement).at(0)),
          ::testing::StartsWith("MRVK_QA-reEngagementConversion_parameterInfo : {\"k\":\"test-app\",\"j\":\"")));
  const auto sent = world.requests();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].url, "https://commerce.morvik.example/v1/commerce-conversion");
  EXPECT_EQ(sent[1].url, testing::kReEngagementUrl);
  EXPECT_THAT(world.services().calls(), ElementsAre("makeJsonParameter", "setResetRetainedConversionCacheDeleate"));
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib resetRetainedConversionCache: "
                                                 "{\"ck\":\"12\",\"cid\":\"shoe\",\"sn\":\"3\"}"));
}

TEST_F(DeepLinks, TheCacheIsResetAfterTheConversionIsOnItsWay) {
  size_t under_way = 0;
  world.modules.sharedOf(kFendoLib).resetRetainedConversionCache = [&](const Value&) {
    under_way = world.transport.unanswered();
  };
  open("app://x?ck=12");
  EXPECT_EQ(under_way, 1U);
}

TEST_F(DeepLinks, ACommerceClickIsARecordOfExactlyThreeEntriesStoredAndFlushed) {
  world.userDefaults().setCommerceConversionInfos(Array{"an older one"});
  world.store.clearJournal();
  world.loop.advance(0.0005);
  open("app://x?cid=a%20shoe");
  const Array stored = world.userDefaults().commerceConversionInfos().array();
  ASSERT_EQ(stored.size(), 2U);
  EXPECT_EQ(stored[0], Value("an older one"));
  EXPECT_THAT(keys(stored[1]), ElementsAre("clickId", "idfa", "mtime"));
  EXPECT_EQ(stored[1]["clickId"], Value("a shoe"));
  EXPECT_EQ(stored[1]["idfa"], Value(kIdentifier));
  EXPECT_EQ(stored[1]["mtime"].kind(), Kind::kDouble);
  EXPECT_DOUBLE_EQ(stored[1]["mtime"].number(), 1'709'251'200'000.5);
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("commerceConversionInfos", "synchronize"));
}

TEST_F(DeepLinks, TheIdentifierOfACommerceClickIsThatOfTheUtilityClass) {
  world.util.setIDFA("the device's own");
  world.services().setAppleAdvertisingIdentifier("the services object's");
  open("app://x?cid=shoe");
  EXPECT_THAT(testing::texts(world.userDefaults().commerceConversionInfos(), "idfa"), ElementsAre("the device's own"));
}

TEST_F(DeepLinks, ACommerceClickWithAKeyIsRecordedWithoutAnIdentifierToo) {
  world.util.setIDFA(std::nullopt);
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  open("app://x?ck=12&cid=shoe");
  const Value record = world.userDefaults().commerceConversionInfos().array()[0];
  EXPECT_THAT(keys(record), ElementsAre("clickId", "idfa", "mtime"));
  EXPECT_EQ(record["idfa"], Value(""));
}

TEST_F(DeepLinks, TheListOfCommerceClicksIsReadBackForItsLine) {
  open("app://x?cid=first");
  open("app://x?cid=second");
  const auto line = world.log.find("MRVK_QA-commerceConversionInfos : " +
                                   services::describe(world.userDefaults().commerceConversionInfos()));
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "TRACE");
  EXPECT_EQ(world.log.countContaining("MRVK_QA-commerceConversionInfos : "), 2U);
}

TEST_F(DeepLinks, TheListOfCommerceClicksIsLoggedBeforeItIsFlushed) {
  world.faulty.key_value_store.faults.throwAt("synchronize", 1, Fault::number(1));
  open("app://x?cid=shoe");
  EXPECT_EQ(world.log.countContaining("MRVK_QA-commerceConversionInfos : "), 1U);
  EXPECT_EQ(commerceRequests(), 0U);
}

TEST_F(DeepLinks, AFlagIsTrueAsTheUtilityClassReadsIt) {
  world.services().setAppleAdvertisingIdentifier(std::nullopt);
  for (const char* yes : {"true", "1", "Y", "yes", "+9"})
    open(std::string("app://x?ck=1&isFacebookCpi=1&mrvk_eng=") + yes);
  EXPECT_EQ(reEngagements(), 5U);
  for (const char* no : {"false", "0", "", "no", "-1", "null"})
    open(std::string("app://x?ck=1&isFacebookCpi=1&mrvk_eng=") + no);
  EXPECT_EQ(reEngagements(), 5U);
}

TEST_F(DeepLinks, UnderForgetMeACommerceClickIsKeptAndNothingIsSent) {
  world.services().setIsGDPRForgetMe(true);
  open("app://x?ck=12&cid=shoe");
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(clickIds(), ElementsAre("shoe"));
  EXPECT_EQ(world.modules.calls().size(), 1U);
  EXPECT_FALSE(world.core().ReEngagement_task());
}

TEST_F(DeepLinks, WhatIsStoredBeforeAnExceptionStaysStored) {
  world.faulty.transport.faults.throwAlways("start", Fault::number(1));
  open("app://x?cid=shoe");
  EXPECT_THAT(clickIds(), ElementsAre("shoe"));
  EXPECT_EQ(world.log.countContaining("Exception from passOpenURL!"), 1U);
}

// ------------------------------------------------------------------------------------------------------ the delegates

/// A delegate of the app's own that notes what it is told.
struct OwnDelegates {
  std::vector<std::string> calls;
  std::shared_ptr<kit::ModuleObject> object = std::make_shared<kit::ModuleObject>();
  OwnDelegates() {
    object->resetRetainedConversionCache = [this](const Value& query) { calls.push_back(services::describe(query)); };
    object->saveRetainedConversionKey = [this](int64_t key) { calls.push_back(std::to_string(key)); };
  }
  void setAt(kit::MorvikCoreServicesLib& services) const {
    services.setResetRetainedConversionCacheDeleate(object);
    services.setSaveRetainedConversionKeyDelegate(object);
  }
};

class Delegates : public DeepLinks {
 protected:
  Delegates() { world.transport.on(kReEngagement).always(Answer::json(acceptanceOf(12))); }
  OwnDelegates own;
};

TEST_F(Delegates, OfTheModuleTakeThePlaceOfThoseThatWereSet) {
  own.setAt(world.services());
  open("app://x?ck=12");
  EXPECT_THAT(own.calls, IsEmpty());
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib resetRetainedConversionCache: {\"ck\":\"12\"}",
                                                 "FendoLib saveRetainedConversionKey: 12"));
  EXPECT_EQ(world.services().resetRetainedConversionCacheDeleate().get(), &world.modules.sharedOf(kFendoLib));
  EXPECT_EQ(world.services().saveRetainedConversionKeyDelegate().get(), &world.modules.sharedOf(kFendoLib));
}

TEST_F(Delegates, StayWhereThereIsNoModule) {
  world.modules.remove(kFendoLib);
  own.setAt(world.services());
  open("app://x?ck=12");
  EXPECT_THAT(own.calls, ElementsAre("{\"ck\":\"12\"}", "12"));
}

TEST_F(Delegates, OfAnotherModuleAreNotAskedFor) {
  world.modules.remove(kFendoLib);
  world.modules.add("Fendo");
  open("app://x?ck=12");
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(Delegates, ThatDoNotRespondAreSkipped) {
  world.modules.sharedOf(kFendoLib).resetRetainedConversionCache = nullptr;
  world.modules.sharedOf(kFendoLib).saveRetainedConversionKey = nullptr;
  own.setAt(world.services());
  open("app://x?ck=12");
  EXPECT_THAT(own.calls, IsEmpty());
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 12);
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(Delegates, GoWithAModuleThatHasNoSingleton) {
  world.modules.add(kFendoLib).shared = nullptr;
  own.setAt(world.services());
  open("app://x?ck=12");
  EXPECT_THAT(own.calls, IsEmpty());
  EXPECT_EQ(world.services().resetRetainedConversionCacheDeleate(), nullptr);
  EXPECT_EQ(world.services().saveRetainedConversionKeyDelegate(), nullptr);
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 12);
}

TEST_F(Delegates, ThatAreGoneAreSkipped) {
  world.modules.remove(kFendoLib);
  own.setAt(world.services());
  own.object.reset();
  open("app://x?ck=12");
  EXPECT_EQ(reEngagements(), 1U);
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(DeepLinks, AClicksPayloadIsTheCommonParametersAndFiveFields) {
  open("app://x?sub_referral=sub&ck=12&sn=9007199254740993");
  const Value sent = world.payloads(kReEngagement).at(0);
  const Value common(world.services().makeCommonParameter("1.2.3"));
  for (const kit::Entry& entry : common.dictionary())
    EXPECT_EQ(sent[entry.key.string()], entry.value) << entry.key.string();
  EXPECT_EQ(sent.size(), common.size() + 1);
  const Value& info = sent["deeplink_info"];
  EXPECT_THAT(keys(info),
              ElementsAre("session_no", "conversion_key", "deeplink_uri", "sub_conversion_key", "is_first_launch"));
  EXPECT_EQ(info["session_no"], Value(int64_t{9'007'199'254'740'993}));
  EXPECT_EQ(info["conversion_key"], Value(12));
  EXPECT_EQ(info["deeplink_uri"], Value("app://x?sub_referral=sub&ck=12&sn=9007199254740993"));
  EXPECT_EQ(info["sub_conversion_key"], Value("sub"));
  EXPECT_EQ(info["is_first_launch"].kind(), Kind::kBoolean);
  EXPECT_EQ(info["is_first_launch"], Value(false));
}

TEST_F(DeepLinks, WhatAUrlDoesNotSayOfAClickIsZeroOrBlank) {
  world.loop.perform(
      [&] { world.core().reEngagementConversion(world.core().makeReEngagementConversionParameter(Url("app://x"))); });
  EXPECT_EQ(world.payloads(kReEngagement).at(0)["deeplink_info"], Value(Dictionary{{"session_no", 0},
                                                                                   {"conversion_key", 0},
                                                                                   {"deeplink_uri", "app://x"},
                                                                                   {"sub_conversion_key", ""},
                                                                                   {"is_first_launch", false}}));
}

TEST_F(DeepLinks, UnderForgetMeNoParametersAreBuiltAndTheRetryDoesNothing) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(12)}));
  world.userDefaults().setReEngagementConversionFailedCnt(arrayOf({countOf(12, 6)}));
  world.store.commitTurn();
  world.store.clearJournal();
  world.services().setIsGDPRForgetMe(true);
  EXPECT_TRUE(world.core().makeReEngagementConversionParameter(Url("app://x?ck=1")).isAbsent());
  EXPECT_FALSE(world.core().ReEngagement_task());
  world.loop.perform([&] { world.core().makeFailureReEngagementConversionParameter(); });
  EXPECT_EQ(clicks(), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 6)}));
  expectNothingHappened();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(DeepLinks, ParametersThatCannotBeBuiltAreAbsentAndTheRequestLeavesWithoutABody) {
  world.faultyServices().faults.throwAlways("makeCommonParameter", Fault::number(1));
  open("app://x?ck=12");
  ASSERT_EQ(reEngagements(), 1U);
  EXPECT_EQ(world.requests(kReEngagement)[0].body, "");
  EXPECT_TRUE(world.log.has("MRVK_QA-reEngagementConversion_parameterInfo : (null)"));
  EXPECT_EQ(world.modules.calls().size(), 1U);
  EXPECT_FALSE(world.core().ReEngagement_task());
}

TEST_F(DeepLinks, TheRecorderIsHeldOnceTheFieldsAreBuiltAndBeforeTheyAreSealed) {
  world.faultyServices().faults.throwAlways("makeJsonParameter", Fault::number(1));
  EXPECT_TRUE(world.core().makeReEngagementConversionParameter(Url("app://x?ck=12")).isAbsent());
  ASSERT_TRUE(world.core().ReEngagement_task());
  world.core().ReEngagement_task()();
  EXPECT_THAT(keysOf(clicks()), ElementsAre(12));
}

TEST_F(DeepLinks, TheRecorderOfTheClickBeforeStaysWhereTheFieldsCannotBeBuilt) {
  EXPECT_TRUE(world.core().makeReEngagementConversionParameter(Url("app://x?ck=12")).isDictionary());
  world.faulty.util.faults.throwAt("checkLongLongNilToZero", 1, Fault::number(1));
  EXPECT_TRUE(world.core().makeReEngagementConversionParameter(Url("app://x?ck=13")).isAbsent());
  ASSERT_TRUE(world.core().ReEngagement_task());
  world.core().ReEngagement_task()();
  EXPECT_THAT(keysOf(clicks()), ElementsAre(12));
}

class FailedClicks : public DeepLinks {
 protected:
  explicit FailedClicks(WorldOptions options = WorldOptions::attributed()) : DeepLinks(std::move(options)) {
    world.transport.on(kReEngagement).always(Answer::error("down"));
  }
  void retry() {
    world.transport.clearRequests();
    world.loop.perform([&] { world.core().makeFailureReEngagementConversionParameter(); });
  }
  void keep(const std::vector<Value>& stored_clicks, const std::vector<Value>& stored_counts) {
    world.userDefaults().setReEngagementInfos(arrayOf(stored_clicks));
    world.userDefaults().setReEngagementConversionFailedCnt(arrayOf(stored_counts));
    world.userDefaults().synchronize();
    world.store.clearJournal();
  }
};

TEST_F(FailedClicks, AreRecordedInBothListsWithTheirFields) {
  open("app://x?ck=12&sn=3&sub_referral=sub");
  EXPECT_EQ(clicks(), arrayOf({Dictionary{{"session_no", 3},
                                          {"conversion_key", 12},
                                          {"deeplink_uri", "app://x?ck=12&sn=3&sub_referral=sub"},
                                          {"sub_conversion_key", "sub"},
                                          {"is_first_launch", false}}}));
  EXPECT_THAT(keys(clicks().array()[0]),
              ElementsAre("session_no", "conversion_key", "deeplink_uri", "sub_conversion_key", "is_first_launch"));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 1)}));
  EXPECT_THAT(keys(counts().array()[0]), ElementsAre("conversion_key", "failure_cnt"));
  EXPECT_THAT(world.store.journalTexts(),
              ElementsAre("reEngagementConversionFailedCnt", "reEngagementInfos", "synchronize"));
}

TEST_F(FailedClicks, AreRecordedOncePerKey) {
  open(linkOf(12));
  open(linkOf(13));
  world.store.clearJournal();
  open(linkOf(12) + "&sn=5");
  EXPECT_EQ(clicks(), arrayOf({clickOf(12), clickOf(13)}));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 1), countOf(13, 1)}));
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
}

TEST_F(FailedClicks, OfAKeyThatIsRecordedChangeNeitherListNorCount) {
  keep({clickOf(12)}, {countOf(12, 4)});
  open(linkOf(12));
  EXPECT_EQ(clicks(), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 4)}));
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
}

TEST_F(FailedClicks, AreKnownByTheIntegerOfTheirKey) {
  keep({Dictionary{{"conversion_key", "12"}}, Dictionary{{"conversion_key", 13.7}}, Dictionary{}}, {});
  open(linkOf(12));
  open(linkOf(13));
  open(linkOf(0));
  EXPECT_EQ(clicks().size(), 3U);
  EXPECT_EQ(counts().size(), 0U);
}

TEST_F(FailedClicks, WithoutAKeyShareTheKeyZero) {
  open("app://first?ck=");
  open("app://second?ck=none");
  EXPECT_EQ(testing::texts(clicks(), "deeplink_uri"), std::vector<std::string>{"app://first?ck="});
  EXPECT_EQ(counts(), arrayOf({countOf(0, 1)}));
}

TEST_F(FailedClicks, DoNotInheritACountThatAnEarlierClickLeftOver) {
  keep({clickOf(13)}, {countOf(12, 6), countOf(13, 6), countOf(12, 2), countOf(12, 99)});
  open(linkOf(12));
  EXPECT_EQ(clicks(), arrayOf({clickOf(13), clickOf(12)}));
  EXPECT_EQ(counts(), arrayOf({countOf(13, 6), countOf(12, 1)}));
}

TEST_F(FailedClicks, ThatAreGivenUpGoBeforeTheirCounts) {
  keep({clickOf(12)}, {countOf(12, 6)});
  world.store.clearJournal();
  retry();
  EXPECT_THAT(world.store.journalTexts(),
              ElementsAre("reEngagementInfos", "reEngagementConversionFailedCnt", "synchronize"));
}

TEST_F(FailedClicks, AreThoseOfTheLatestClickWhicheverRequestFailed) {
  world.transport.on(kReEngagement).clear().then(Answer::error("down").after(1)).then(Answer::silence());
  open(linkOf(12));
  open(linkOf(13));
  world.loop.advance(2);
  EXPECT_THAT(keysOf(clicks()), ElementsAre(13));
}

TEST_F(FailedClicks, OfARecorderThatIsGoneAreNotRecorded) {
  world.transport.on(kReEngagement).clear().always(Answer::error("down").after(1));
  open(linkOf(12));
  world.core().setReEngagement_task(nullptr);
  world.loop.advance(2);
  EXPECT_TRUE(clicks().isAbsent());
  EXPECT_EQ(world.log.countContaining("MRVK_QA-reEngagementConversion_The error was: down"), 1U);
}

TEST_F(FailedClicks, ALateResendRecordsAClickThatSucceeded) {
  keep({clickOf(12)}, {countOf(12, 1)});
  world.transport.on(kReEngagement).clear().then(Answer::error("down").after(5)).then(Answer::json(acceptanceOf(13)));
  retry();
  open(linkOf(13));
  EXPECT_THAT(keysOf(clicks()), ElementsAre(12));
  world.loop.advance(6);
  EXPECT_THAT(keysOf(clicks()), ElementsAre(12, 13));
}

class FailedFirstLaunchClicks : public FailedClicks {
 protected:
  static WorldOptions options() {
    WorldOptions options;
    options.device.is_multitasking_supported = false;  // the background changes flags and ends nothing
    return options;
  }
  FailedFirstLaunchClicks() : FailedClicks(options()) {}
};

TEST_F(FailedFirstLaunchClicks, KeepTheFlagOfTheMomentOfTheClick) {
  world.transport.on(kReEngagement).clear().always(Answer::error("down").after(1));
  open(linkOf(12));
  world.enterBackground();
  ASSERT_FALSE(world.core().isFirstLaunchOk());
  world.loop.advance(2);
  EXPECT_EQ(clicks().array()[0]["is_first_launch"], Value(true));
}

TEST_F(FailedClicks, RaiseTheirCountAndAreSentAgainFromWhatIsStored) {
  const Value odd = Dictionary{{"conversion_key", "14 and more"}, {"session_no", 2.5}, {"is_first_launch", 1}};
  keep({clickOf(12), odd, Dictionary{}}, {countOf(12, 1), countOf(14, 2)});
  retry();
  EXPECT_EQ(counts(), arrayOf({countOf(12, 2), countOf(14, 3)}));
  EXPECT_EQ(clicks(), arrayOf({clickOf(12), odd, Dictionary{}}));
  const auto sent = world.payloads(kReEngagement);
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0]["deeplink_info"], clickOf(12));
  EXPECT_THAT(keys(sent[0]["deeplink_info"]),
              ElementsAre("session_no", "conversion_key", "deeplink_uri", "sub_conversion_key", "is_first_launch"));
  EXPECT_EQ(sent[1]["deeplink_info"], Value(Dictionary{{"session_no", 2},
                                                       {"conversion_key", 14},
                                                       {"deeplink_uri", ""},
                                                       {"sub_conversion_key", ""},
                                                       {"is_first_launch", true}}));
  EXPECT_EQ(sent[2]["deeplink_info"], Value(Dictionary{{"session_no", 0},
                                                       {"conversion_key", 0},
                                                       {"deeplink_uri", ""},
                                                       {"sub_conversion_key", ""},
                                                       {"is_first_launch", false}}));
  const Value common(world.services().makeCommonParameter("1.2.3"));
  EXPECT_EQ(sent[2].size(), common.size() + 1);
  EXPECT_EQ(world.faultyServices().faults.calls("makeCommonParameter"), 1U) << "built once for all";
}

TEST_F(FailedClicks, AreSentAgainAlsoWhileTheirLastResendIsUnderWay) {
  world.transport.on(kReEngagement).then(Answer::silence());
  keep({clickOf(12)}, {countOf(12, 1)});
  retry();
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  retry();
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
}

TEST_F(FailedClicks, AreLoggedOneByOneAsTheyAreSentAgain) {
  keep({clickOf(12), clickOf(13)}, {});
  world.log.clear();
  retry();
  const auto sent = world.payloads(kReEngagement);
  const std::string head = "MRVK_QA-makeFailureReEngagementConversionParameter_failed Past jsonDict info: ";
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib makeFailureReEngagementConversionParameter]"),
              ElementsAre(head + services::describe(sent.at(0)), head + services::describe(sent.at(1))));
}

TEST_F(FailedClicks, KeepTheRecorderThatIsHeldWhenTheyAreSentAgain) {
  open(linkOf(13));
  keep({clickOf(12)}, {countOf(12, 1)});
  retry();
  EXPECT_THAT(keysOf(clicks()), ElementsAre(12, 13)) << "the resend failed, and the recorder is that of 13";
}

TEST_F(FailedClicks, AtFiveAreSentOnceMoreAndAtSixDroppedWithoutASend) {
  keep({clickOf(12)}, {countOf(12, 5)});
  retry();
  EXPECT_EQ(counts(), arrayOf({countOf(12, 6)}));
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  retry();
  EXPECT_EQ(counts(), Value(Array{}));
  EXPECT_EQ(clicks(), Value(Array{}));
  EXPECT_THAT(sentClicks(world), IsEmpty());
}

TEST_F(FailedClicks, ThatAreGivenUpGoFromBothListsAndTheOthersStay) {
  keep({clickOf(12), clickOf(13), clickOf(14)}, {countOf(12, 6), countOf(13, 1), countOf(14, 99)});
  retry();
  EXPECT_EQ(clicks(), arrayOf({clickOf(13)}));
  EXPECT_EQ(counts(), arrayOf({countOf(13, 2)}));
  EXPECT_THAT(sentClicks(world), ElementsAre(13));
}

TEST_F(FailedClicks, AndTheirCountsAreKeptIndependently) {
  keep({clickOf(12)}, {countOf(13, 1), countOf(14, 6)});
  retry();
  EXPECT_EQ(clicks(), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(), arrayOf({countOf(13, 2)}));
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
  for (int i = 0; i < 10; ++i)
    retry();
  EXPECT_THAT(sentClicks(world), ElementsAre(12)) << "a click is sent as long as it is stored";
  EXPECT_EQ(counts(), Value(Array{}));
}

TEST_F(FailedClicks, WithTwoCountsBecomeOneRaised) {
  keep({clickOf(1)}, {countOf(1, 1), countOf(1, 2)});
  retry();
  EXPECT_EQ(counts(), arrayOf({countOf(1, 3)}));
}

TEST_F(FailedClicks, CountTheSessionEndBeforeTheyAreSentAgain) {
  keep({clickOf(12)}, {countOf(12, 1)});
  world.faultyServices().faults.throwAlways("makeJsonParameter", Fault::number(1));
  retry();
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("reEngagementConversionFailedCnt", "synchronize"));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 2)}));
}

TEST_F(FailedClicks, CountNothingWhereTheCommonParametersCannotBeBuilt) {
  keep({clickOf(12)}, {countOf(12, 1)});
  world.faultyServices().faults.throwAlways("makeCommonParameter", Fault::number(1));
  retry();
  EXPECT_EQ(counts(), arrayOf({countOf(12, 1)}));
  EXPECT_THAT(world.requests(), IsEmpty());
}

TEST_F(FailedClicks, ThatAreNoneSendNothing) {
  retry();
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_TRUE(clicks().isAbsent());
  EXPECT_TRUE(counts().isAbsent());
  keep({}, {});
  retry();
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
}

TEST_F(FailedClicks, EndTheWholeRetryWhereOneCannotBeSealed) {
  keep({clickOf(12), clickOf(13), clickOf(14)}, {});
  world.faultyServices().faults.throwAt("makeJsonParameter", 2, Fault::number(1));
  retry();
  EXPECT_THAT(sentClicks(world), ElementsAre(12));
}

TEST_F(FailedClicks, GoOnWhereOneCannotBeStarted) {
  keep({clickOf(12), clickOf(13), clickOf(14)}, {});
  world.faulty.transport.faults.throwAt("start", 2, Fault::number(1));
  retry();
  EXPECT_THAT(sentClicks(world), ElementsAre(12, 14));
}

// --------------------------------------------------------------------------------------------------------- the request

class Answers : public DeepLinks {
 protected:
  void answerWith(const Value& json) {
    world.transport.on(kReEngagement).then(Answer::json(json));
    world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
  }
};

TEST_F(Answers, AreTakenInInOrder) {
  world.loop.setWallClock(kit::Date::fromSeconds(1'699'999'000));
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(12), clickOf(13)}));
  world.userDefaults().setReEngagementConversionFailedCnt(arrayOf({countOf(13, 1), countOf(12, 2)}));
  world.store.commitTurn();
  world.store.clearJournal();
  answerWith(Dictionary{{"Result", true},
                        {"BaseTime", int64_t{1'700'000'000'500}},
                        {"Data", Dictionary{{"conversion_result", Dictionary{{"conversion_key", 12},
                                                                             {"reengagement_data", "the data"},
                                                                             {"reengagement_datetime", 1234}}}}}});
  EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 1000.5);
  EXPECT_THAT(world.services().calls(),
              ElementsAre("setIntervalSinceServerDate", "saveConversionInfoForCache 12",
                          "saveConversionTimeInfoForCache 12 1700000000500", "setSaveRetainedConversionKeyDelegate"));
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib saveRetainedConversionKey: 12"));
  EXPECT_THAT(
      world.store.journalTexts(),
      ElementsAre("fendoConversionInfoForCaches", "host.conversionTimes", "fendoUserInfo_reengagement_conversion_key",
                  "fendoUserInfo_reengagement_data", "fendoUserInfo_reengagement_datetime", "reEngagementInfos",
                  "synchronize", "reEngagementConversionFailedCnt", "synchronize"));
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_reengagement_conversion_key(), 12);
  EXPECT_EQ(stored.fendoUserInfo_reengagement_data(), "the data");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_datetime(), 1234);
  EXPECT_EQ(clicks(), arrayOf({clickOf(13)}));
  EXPECT_EQ(counts(), arrayOf({countOf(13, 1)}));
}

TEST_F(Answers, AreLoggedBeforeAnythingElse) {
  answerWith(Dictionary{{"Result", false}});
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib reEngagementConversion:]_block_invoke"),
              ElementsAre("MRVK_QA-reEngagementConversion_JSON: {\"Result\":false}"));
}

TEST_F(Answers, UnderForgetMeAreNeverAskedForAndNoRecorderRuns) {
  bool ran = false;
  world.core().setReEngagement_task([&ran] { ran = true; });
  world.services().setIsGDPRForgetMe(true);
  world.transport.goOffline();
  world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_FALSE(ran);
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Answers, WithoutAKeyStoreMinusOneTellTheDelegateZeroAndStrikeOffTheKeyZero) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(0), clickOf(12), Dictionary{{"deeplink_uri", "x"}}}));
  world.userDefaults().setReEngagementConversionFailedCnt(arrayOf({countOf(12, 1), countOf(0, 1), countOf(0, 2)}));
  answerWith(Dictionary{{"Result", true}});
  const auto stored = world.userDefaults();
  EXPECT_EQ(stored.fendoUserInfo_reengagement_conversion_key(), -1);
  EXPECT_EQ(stored.fendoUserInfo_reengagement_data(), "");
  EXPECT_EQ(stored.fendoUserInfo_reengagement_datetime(), 0);
  EXPECT_THAT(world.modules.calls(), ElementsAre("FendoLib saveRetainedConversionKey: 0"));
  EXPECT_EQ(clicks(), arrayOf({clickOf(12)}));
  EXPECT_EQ(counts(), arrayOf({countOf(12, 1)}));
}

TEST_F(Answers, WithoutBaseTimeLeaveTheClockAloneAndCacheTheTimeZero) {
  world.services().setIntervalSinceServerDate(5);
  for (const Value& base_time : {Value(), Value::null(), Value("soon"), Value(""), Value(true), Value(Array{1})}) {
    kit::MutableDictionary answer(acceptanceOf(12));
    answer.set("BaseTime", base_time);
    answerWith(Value(std::move(answer)));
    EXPECT_DOUBLE_EQ(world.services().intervalSinceServerDate(), 5) << services::describe(base_time);
    EXPECT_EQ(world.services().calls().at(world.services().calls().size() - 2), "saveConversionTimeInfoForCache 12 0")
        << services::describe(base_time);
  }
}

TEST_F(Answers, ReadABaseTimeThatIsTextAsTheNumberItBeginsWith) {
  kit::MutableDictionary answer(acceptanceOf(12));
  answer.set("BaseTime", "1700000000500 ms");
  world.services().setIntervalSinceServerDate(5);
  answerWith(Value(std::move(answer)));
  EXPECT_NE(world.services().intervalSinceServerDate(), 5);
  EXPECT_EQ(world.services().calls().at(world.services().calls().size() - 2),
            "saveConversionTimeInfoForCache 12 1700000000500");
}

TEST_F(Answers, CacheTheTimeUnderTheKeysLower32Bits) {
  answerWith(acceptanceOf(4'294'967'296 + 7));
  answerWith(acceptanceOf(4'294'967'295));
  EXPECT_THAT(world.services().calls(),
              ElementsAre("saveConversionInfoForCache 4294967303", "saveConversionTimeInfoForCache 7 0",
                          "setSaveRetainedConversionKeyDelegate", "saveConversionInfoForCache 4294967295",
                          "saveConversionTimeInfoForCache -1 0", "setSaveRetainedConversionKeyDelegate"));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 4'294'967'295);
}

TEST_F(Answers, ThatAreNotTrueStoreNothingAndRunNoRecorder) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(12)}));
  world.store.commitTurn();
  world.store.clearJournal();
  bool ran = false;
  world.core().setReEngagement_task([&ran] { ran = true; });
  for (const Value& result : {Value(), Value::null(), Value(false), Value(0), Value("no"), Value(Array{1})}) {
    kit::MutableDictionary answer(acceptanceOf(12));
    answer.set("Result", result);
    answer.set("BaseTime", 1000);
    answerWith(Value(std::move(answer)));
  }
  EXPECT_FALSE(ran);
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_THAT(world.services().calls(), ::testing::Each("setIntervalSinceServerDate"));
  EXPECT_EQ(world.services().calls().size(), 6U);
}

TEST_F(Answers, OfAnyOtherStatusOrFormAreFailures) {
  for (const auto& [status, body] : {std::pair{500, "{\"Result\":true}"}, {200, "[]"}, {200, "{"}, {304, ""}}) {
    world.core().setReEngagement_task(nullptr);
    size_t ran = 0;
    world.core().setReEngagement_task([&ran] { ++ran; });
    world.transport.on(kReEngagement).then(Answer::body(status, body));
    world.log.clear();
    world.loop.perform([&] { world.core().reEngagementConversion(Dictionary{{"j", "x"}}); });
    EXPECT_EQ(ran, 1U) << body;
    const auto lines = world.log.messagesOf("-[MorvikCoreLib reEngagementConversion:]_block_invoke");
    ASSERT_EQ(lines.size(), 2U) << body;
    EXPECT_EQ(lines[0], "MRVK_QA-reEngagementConversion_Recieved an HTTP " + std::to_string(status));
    EXPECT_THAT(lines[1], ::testing::StartsWith("MRVK_QA-reEngagementConversion_The error was: "));
  }
}

TEST_F(Answers, LogAFailureWithoutAResponseAsStatusZeroBeforeTheRecorderRuns) {
  std::vector<std::string> before;
  world.core().setReEngagement_task([&] { before = world.log.messages(); });
  world.transport.on(kReEngagement).then(Answer::error("down"));
  world.loop.perform([&] { world.core().reEngagementConversion(Value()); });
  EXPECT_THAT(before, ElementsAre("MRVK_QA-reEngagementConversion_parameterInfo : (null)",
                                  "MRVK_QA-reEngagementConversion_Recieved an HTTP 0",
                                  "MRVK_QA-reEngagementConversion_The error was: down"));
}

TEST_F(Answers, ThatStrikeNothingOffWriteNeitherList) {
  world.userDefaults().setReEngagementInfos(arrayOf({clickOf(13)}));
  world.store.commitTurn();
  world.store.clearJournal();
  answerWith(acceptanceOf(12));
  const auto journal = world.store.journalTexts();
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "reEngagementInfos"), 0);
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "synchronize"), 0);
  EXPECT_TRUE(counts().isAbsent());
  EXPECT_EQ(world.store.committed()["fendoUserInfo_reengagement_conversion_key"], Value(12))
      << "the turn's end keeps it";
}

TEST_F(Answers, StrikeOffEveryRecordOfTheKeyHoweverItIsWritten) {
  world.userDefaults().setReEngagementInfos(
      arrayOf({Dictionary{{"conversion_key", "12"}}, clickOf(13), Dictionary{{"conversion_key", 12.9}}, clickOf(12)}));
  answerWith(acceptanceOf(12));
  EXPECT_EQ(clicks(), arrayOf({clickOf(13)}));
}

TEST_F(Answers, OfAnyShapeLeaveADefinedState) {
  Value nested = 1;
  for (int i = 0; i < 200; ++i)
    nested = Array{nested};
  const std::vector<Value> odd = {Value::null(),
                                  true,
                                  -1,
                                  std::numeric_limits<uint64_t>::max(),
                                  1e300,
                                  "",
                                  "99999999999999999999999",
                                  "\xFF\xFE",
                                  Array{},
                                  Dictionary{},
                                  nested};
  for (const Value& value : odd) {
    for (const char* field : {"conversion_key", "reengagement_data", "reengagement_datetime"})
      answerWith(Dictionary{{"Result", true}, {"Data", Dictionary{{"conversion_result", Dictionary{{field, value}}}}}});
    answerWith(Dictionary{{"Result", true}, {"BaseTime", value}});
    answerWith(Dictionary{{"Result", true}, {"Data", value}});
    answerWith(Dictionary{{"Result", true}, {"Data", Dictionary{{"conversion_result", value}}}});
    answerWith(Dictionary{{"Result", value}});
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
  answerWith(acceptanceOf(12));
  EXPECT_EQ(world.userDefaults().fendoUserInfo_reengagement_conversion_key(), 12);
}

// --------------------------------------------------------------------------------------------------- Facebook referral

class Facebook : public DeepLinks {
 protected:
  void refer(const std::string& url) {
    world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url(url)); });
  }
};

TEST_F(Facebook, UnderForgetMeNothingChangesNotEvenTheDataBeingMade) {
  world.services().setIsGDPRForgetMe(true);
  refer("https://f.example/?ck=12");
  EXPECT_TRUE(world.core().fB_DeepLinkData().isAbsent());
  expectNothingHappened();
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Facebook, AKeyThatWasReportedSendsNothingAndLeavesTheDataAsItWas) {
  world.userDefaults().setFendoConversionInfoForCaches(Array{5, "12 and more", 13.9});
  refer("https://f.example/?ck=12");
  EXPECT_EQ(world.core().fB_DeepLinkData(), Value(Dictionary{})) << "made, and empty";
  refer("https://f.example/?ck=13");
  EXPECT_THAT(world.requests(), IsEmpty());
  refer("https://f.example/?ck=14");
  const Value data = world.core().fB_DeepLinkData();
  refer("https://f.example/?ck=5");
  EXPECT_EQ(world.core().fB_DeepLinkData(), data);
  EXPECT_EQ(world.requests(kThirdParty).size(), 1U);
}

TEST_F(Facebook, AUrlWithoutAKeyUsesTheKeyZero) {
  refer("https://f.example/");
  ASSERT_EQ(world.requests(kThirdParty).size(), 1U);
  EXPECT_EQ(
      world.payloads(kThirdParty)[0]["deeplink_info"],
      Value(Dictionary{{"conversion_key", 0}, {"deeplink_uri", "https://f.example/"}, {"sub_conversion_key", ""}}));
  world.userDefaults().setFendoConversionInfoForCaches(Array{0});
  refer("https://f.example/");
  EXPECT_EQ(world.requests(kThirdParty).size(), 1U);
}

TEST_F(Facebook, ListedElementsThatAreNoKeysDoNotCountAsTheKeyZero) {
  world.userDefaults().setFendoConversionInfoForCaches(Array{Value::null(), Array{}, Dictionary{}, Array{0}});
  refer("https://f.example/?ck=0");
  EXPECT_EQ(world.requests(kThirdParty).size(), 1U);
  world.userDefaults().setFendoConversionInfoForCaches(Array{Value::null(), "0"});
  refer("https://f.example/?ck=0");
  EXPECT_EQ(world.requests(kThirdParty).size(), 1U);
}

TEST_F(Facebook, AKeyThatTheServerNoLongerListsIsReportedAgain) {
  world.userDefaults().setFendoConversionInfoForCaches(Array{12});
  refer("https://f.example/?ck=12");
  EXPECT_THAT(world.requests(kThirdParty), IsEmpty());
  world.userDefaults().setFendoConversionInfoForCaches(Array{13});
  refer("https://f.example/?ck=12");
  EXPECT_EQ(world.requests(kThirdParty).size(), 1U);
}

TEST_F(Facebook, TwoKeysSendTwoConversionsAndTheSecondReplacesTheFirst) {
  refer("https://f.example/?ck=12&sub_referral=one");
  refer("https://f.example/?ck=13");
  const auto sent = world.payloads(kThirdParty);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0]["deeplink_info"]["conversion_key"], Value(12));
  EXPECT_EQ(sent[0]["deeplink_info"]["sub_conversion_key"], Value("one"));
  EXPECT_EQ(sent[1]["deeplink_info"]["conversion_key"], Value(13));
  EXPECT_EQ(world.core().fB_DeepLinkData(),
            Value(Dictionary{{"deeplink_info", Dictionary{{"conversion_key", 13},
                                                          {"deeplink_uri", "https://f.example/?ck=13"},
                                                          {"sub_conversion_key", ""}}}}));
  EXPECT_THAT(keys(sent[1]["deeplink_info"]), ElementsAre("conversion_key", "deeplink_uri", "sub_conversion_key"));
  world.loop.perform([&] { world.core().conversion(world.core().makeConversionParameter()); });
  EXPECT_EQ(world.payloads("v1/conversion").at(0)["deeplink_info"]["conversion_key"], Value(13));
}

TEST_F(Facebook, OtherEntriesOfTheDataStay) {
  world.core().setFB_DeepLinkData(Dictionary{{"other", 1}, {"deeplink_info", "old"}});
  refer("https://f.example/?ck=12");
  EXPECT_THAT(keys(world.core().fB_DeepLinkData()), ElementsAre("other", "deeplink_info"));
  EXPECT_EQ(world.payloads(kThirdParty).at(0)["other"], Value(1));
}

TEST_F(Facebook, TheDataKeepsWhatWasSetBeforeAnException) {
  world.faulty.transport.faults.throwAlways("start", Fault::number(1));
  refer("https://f.example/?ck=12");
  EXPECT_EQ(world.core().fB_DeepLinkData()["deeplink_info"]["conversion_key"], Value(12));
  EXPECT_EQ(world.log.countContaining("setReferralUrlForFacebook Exception"), 1U);
  world.core().setFB_DeepLinkData(Value());
  world.faulty.util.faults.throwAlways("getURLParmaters", Fault::number(1));
  refer("https://f.example/?ck=12");
  EXPECT_EQ(world.core().fB_DeepLinkData(), Value(Dictionary{}));
}

TEST_F(Facebook, AnEarlierReEngagementCountsAsReported) {
  world.transport.on(kReEngagement).then(Answer::json(acceptanceOf(12)));
  open(linkOf(12));
  refer("https://f.example/?ck=12");
  EXPECT_THAT(world.requests(kThirdParty), IsEmpty());
}

struct UrlCase {
  const char* what;
  std::string url;
  Value query;
  int64_t conversion_key;
  std::string sub_conversion_key;
};

/// The literal with the NUL bytes in it.
template <size_t N>
std::string bytes(const char (&text)[N]) {
  return {text, N - 1};
}

const std::vector<UrlCase>& urlCases() {
  static const std::vector<UrlCase> all = {
      {"EmptyValues", "app://x?ck=&sub_referral=&a=", Dictionary{{"ck", ""}, {"sub_referral", ""}, {"a", ""}}, 0, ""},
      {"RepeatedKeys", "app://x?ck=1&ck=2&sub_referral=a&sub_referral=b",
       Dictionary{{"ck", "1"}, {"sub_referral", "a"}}, 1, "a"},
      {"BadEscapes", "app://x?ck=%&sub_referral=%4&a=%zz&b=%4g",
       Dictionary{{"ck", "%"}, {"sub_referral", "%4"}, {"a", "%zz"}, {"b", "%4g"}}, 0, "%4"},
      {"EscapedKey", "app://x?%63k=%31%32&sub%5Freferral=a%26b%3Dc+d",
       Dictionary{{"ck", "12"}, {"sub_referral", "a&b=c d"}}, 12, "a&b=c d"},
      {"TextAsKey", "app://x?ck=twelve&sub_referral=12", Dictionary{{"ck", "twelve"}, {"sub_referral", "12"}}, 0, "12"},
      {"NumberAndText", "app://x?ck=+12abc", Dictionary{{"ck", " 12abc"}}, 12, ""},
      {"Beyond64Bits", "app://x?ck=99999999999999999999", Dictionary{{"ck", "99999999999999999999"}},
       std::numeric_limits<int64_t>::max(), ""},
      {"BelowMinus64Bits", "app://x?ck=-99999999999999999999", Dictionary{{"ck", "-99999999999999999999"}},
       std::numeric_limits<int64_t>::min(), ""},
      {"NotUtf8", "app://\xFF?ck=7&sub_referral=\xC3&%FF=%C3%28",
       Dictionary{{"ck", "7"}, {"sub_referral", "\xEF\xBF\xBD"}, {"\xEF\xBF\xBD", "\xEF\xBF\xBD("}}, 7, "\xEF\xBF\xBD"},
      {"NulBytes", bytes("app://x\0y?ck=7\0&sub_referral=a\0b&c%00=d"),
       Dictionary{{"ck", Value(bytes("7\0"))}, {"sub_referral", Value(bytes("a\0b"))}, {Value(bytes("c\0")), "d"}}, 7,
       bytes("a\0b")},
      {"OnlyMarks", "?&&&=&=&ck&==", Dictionary{{"ck", ""}}, 0, ""},
      {"SecondQuestionMark", "app://x?ck=7?8&a=b=c", Dictionary{{"ck", "7?8"}, {"a", "b=c"}}, 7, ""},
      {"Fragment", "app://x?ck=7#&ck=8", Dictionary{{"ck", "7"}}, 7, ""},
  };
  return all;
}

class AnyUrl : public ::testing::TestWithParam<UrlCase> {
 protected:
  AnyUrl() {
    world.transport.setDefaultAnswer(Answer::error("down"));
    world.modules.add(kFendoLib).shared = [this] { return object; };
    object->resetRetainedConversionCache = [this](const Value& handed) { query = handed; };
  }
  TestWorld world{WorldOptions::attributed()};
  std::shared_ptr<kit::ModuleObject> object = std::make_shared<kit::ModuleObject>();
  Value query;
};

TEST_P(AnyUrl, HasADefinedResultWhenItOpensTheApp) {
  testing::open(world, GetParam().url);
  EXPECT_EQ(query, GetParam().query) << services::describe(query);
  ASSERT_EQ(world.userDefaults().reEngagementInfos().size(), 1U);
  const Value click = world.userDefaults().reEngagementInfos().array()[0];
  EXPECT_EQ(click["conversion_key"], Value(GetParam().conversion_key));
  EXPECT_EQ(click["sub_conversion_key"], Value(GetParam().sub_conversion_key));
  EXPECT_EQ(click["deeplink_uri"], Value(GetParam().url)) << "stored byte for byte";
  ASSERT_EQ(world.requests(kReEngagement).size(), 1U);
  std::string repaired;
  services::appendRepairedUtf8(GetParam().url, repaired);
  EXPECT_EQ(world.payloads(kReEngagement)[0]["deeplink_info"]["deeplink_uri"], Value(repaired)) << "sent as UTF-8";
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_P(AnyUrl, HasADefinedResultAsAReferralOfFacebook) {
  world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url(GetParam().url)); });
  const Value info = world.core().fB_DeepLinkData()["deeplink_info"];
  EXPECT_EQ(info, Value(Dictionary{{"conversion_key", GetParam().conversion_key},
                                   {"deeplink_uri", GetParam().url},
                                   {"sub_conversion_key", GetParam().sub_conversion_key}}));
  EXPECT_EQ(world.payloads(kThirdParty).at(0)["deeplink_info"]["conversion_key"], Value(GetParam().conversion_key));
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Urls, AnyUrl, ::testing::ValuesIn(urlCases()), [](const auto& row) { return row.param.what; });

TEST_F(DeepLinks, AMegabyteOfQueryIsReadAndSent) {
  std::string url = "app://x?ck=12";
  for (int i = 0; url.size() < 1'000'000; ++i)
    url += "&k" + std::to_string(i) + "=" + std::to_string(i);
  url += "&sub_referral=last";
  open(url);
  const Value info = world.payloads(kReEngagement).at(0)["deeplink_info"];
  EXPECT_EQ(info["conversion_key"], Value(12));
  EXPECT_EQ(info["sub_conversion_key"], Value("last"));
  EXPECT_EQ(info["deeplink_uri"], Value(url));
  world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url(url)); });
  EXPECT_EQ(world.payloads(kThirdParty).at(0)["deeplink_info"]["sub_conversion_key"], Value("last"));
}

TEST_F(DeepLinks, RandomBytesNeverEndInAnException) {
  world.transport.setDefaultAnswer(Answer::error("down"));
  uint64_t state = 1;
  const std::string_view alphabet = std::string_view("?&=#%+ck12cidsnmrvk_eng\0\xFF\xC3\xA4/:", 29);
  for (int i = 0; i < 500; ++i) {
    std::string url;
    for (int length = 0; length < 40; ++length) {
      state = state * 6'364'136'223'846'793'005U + 1'442'695'040'888'963'407U;
      url += alphabet[(state >> 33) % alphabet.size()];
    }
    open(url);
    world.loop.perform([&] { world.core().setReferralUrlForFacebook(Url(url)); });
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

}  // namespace
}  // namespace morvik
