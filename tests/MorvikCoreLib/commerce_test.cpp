// Commerce clicks, the commerce events of the tracking module, and the premium postback.

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
using ::testing::AllOf;
using testing::Answer;
using testing::arrayOf;
using ::testing::ElementsAre;
using testing::Fault;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::kCommerce;
using testing::TestWorld;
using testing::WorldOptions;

constexpr const char* kFendo = "Fendo";
constexpr const char* kConfig = "test-app/config.json";

Value commerceClick(const std::string& id) {
  return Dictionary{{"clickId", id}, {"idfa", "the device"}, {"mtime", 1'709'251'200'000.5}};
}

// ---------------------------------------------------------------------------------------------------- commerce clicks

class Commerce : public ::testing::Test {
 protected:
  Commerce() { world.transport.setDefaultAnswer(Answer::silence()); }

  void keep(const Value& infos) {
    world.userDefaults().setCommerceConversionInfos(infos);
    world.store.commitTurn();
    world.store.clearJournal();
    world.log.clear();
  }
  void send() {
    world.loop.perform([&] { world.core().commerceConversion(); });
  }
  void answerWith(const Value& json) {
    world.transport.on(kCommerce).then(Answer::json(json));
    send();
  }
  Value kept() { return world.userDefaults().commerceConversionInfos(); }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(Commerce, SendsTheListItselfAsPlainJson) {
  keep(arrayOf({commerceClick("a \"shoe\""), commerceClick("b")}));
  send();
  const auto sent = world.requests(kCommerce);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].body,
            "[{\"clickId\":\"a \\\"shoe\\\"\",\"idfa\":\"the device\",\"mtime\":1709251200000.5},"
            "{\"clickId\":\"b\",\"idfa\":\"the device\",\"mtime\":1709251200000.5}]");
  EXPECT_THAT(world.services().calls(), IsEmpty()) << "nothing is sealed";
}

TEST_F(Commerce, SendsAnEmptyListToo) {
  keep(Array{});
  send();
  ASSERT_EQ(world.requests(kCommerce).size(), 1U);
  EXPECT_EQ(world.requests(kCommerce)[0].body, "[]");
}

TEST_F(Commerce, SendsNothingThatHasNoJsonFormAndKeepsIt) {
  const Value unsendable = Array{kit::Date{0}};
  for (const Value& infos : {unsendable, Value()}) {
    keep(infos);
    send();
    EXPECT_THAT(world.requests(), IsEmpty());
    EXPECT_EQ(kept(), infos);
    const auto error = std::get<kit::Error>(world.json.write(infos));
    EXPECT_THAT(world.log.messages(), ElementsAre("MRVK_QA-commerceConversion_error : " + error.message));
    EXPECT_EQ(world.log.lines()[0].prefix->level, "ERROR");
    EXPECT_EQ(world.log.lines()[0].prefix->operation, "-[MorvikCoreLib commerceConversion]");
  }
}

TEST_F(Commerce, DoesNothingUnderForgetMe) {
  keep(arrayOf({commerceClick("a")}));
  world.services().setIsGDPRForgetMe(true);
  send();
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(kept().size(), 1U);
}

TEST_F(Commerce, ClearsTheListOnceItIsAcceptedAndFlushes) {
  keep(arrayOf({commerceClick("a"), commerceClick("b")}));
  answerWith(Dictionary{{"result", "whatever"}});
  EXPECT_EQ(kept(), Value(Array{}));
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("commerceConversionInfos", "synchronize"));
}

TEST_F(Commerce, ClearsClicksThatCameWhileTheAnswerWasOnItsWayToo) {
  world.transport.on(kCommerce).then(Answer::json(Dictionary{}).after(1));
  testing::open(world, "app://x?cid=first");
  world.userDefaults().setCommerceConversionInfos(arrayOf({commerceClick("first"), commerceClick("second")}));
  world.loop.advance(2);
  EXPECT_EQ(kept(), Value(Array{}));
}

TEST_F(Commerce, LeavesTheClicksOfAStoreThatRecoveredWhileTheAnswerWasOnItsWay) {
  const Value carried = commerceClick("carried");
  keep(arrayOf({carried}));
  world.transport.on(kCommerce).then(Answer::json(Dictionary{}).after(1));
  send();
  keep(arrayOf({commerceClick("of the file"), carried}));
  world.core().storeRecovered();
  world.loop.advance(2);
  EXPECT_EQ(kept(), arrayOf({commerceClick("of the file")}));
}

TEST_F(Commerce, SendsClicksAgainThatAreInARequestUnderWay) {
  keep(arrayOf({commerceClick("first")}));
  send();
  keep(arrayOf({commerceClick("first"), commerceClick("second")}));
  send();
  const auto sent = world.requests(kCommerce);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_THAT(sent[0].body, HasSubstr("first"));
  EXPECT_THAT(sent[1].body, AllOf(HasSubstr("first"), HasSubstr("second")));
}

TEST_F(Commerce, TakesAnErrorMessageOfNullForNone) {
  keep(arrayOf({commerceClick("a")}));
  answerWith(Dictionary{{"errMsg", Value::null()}});
  EXPECT_EQ(kept(), Value(Array{}));
}

TEST_F(Commerce, KeepsTheListOfAnAnswerWithAnErrorMessageAndSendsItWithTheNextClick) {
  for (const Value& message : {Value("full"), Value(""), Value(false), Value(0), Value(Array{})}) {
    keep(arrayOf({commerceClick("a")}));
    answerWith(Dictionary{{"errMsg", message}});
    EXPECT_EQ(kept().size(), 1U) << services::describe(message);
    EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  }
  testing::open(world, "app://x?cid=next");
  const Value body = testing::json(world.requests(kCommerce).back().body);
  EXPECT_THAT(testing::texts(body, "clickId"), ElementsAre("a", "next"));
}

TEST_F(Commerce, LeavesAListThatWasNeverStoredAbsent) {
  world.transport.on(kCommerce).then(Answer::json(Dictionary{}).after(1));
  keep(Array{});
  send();
  world.userDefaults().setCommerceConversionInfos(Value());
  world.store.commitTurn();
  world.store.clearJournal();
  world.loop.advance(2);
  EXPECT_TRUE(kept().isAbsent());
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("synchronize"));
}

TEST_F(Commerce, LogsItsAnswerAndTheMessageInIt) {
  keep(Array{});
  answerWith(Dictionary{{"errMsg", "full"}});
  answerWith(Dictionary{});
  EXPECT_THAT(
      world.log.messagesOf("-[MorvikCoreLib commerceConversion]_block_invoke"),
      ElementsAre("MRVK_QA-commerceConversion_JSON: {\"errMsg\":\"full\"}", "MRVK_QA-commerceConversion_errMsg : full",
                  "MRVK_QA-commerceConversion_JSON: {}", "MRVK_QA-commerceConversion_errMsg : (null)"));
}

TEST_F(Commerce, LogsAFailureInThreeLinesAndKeepsTheList) {
  keep(arrayOf({commerceClick("a")}));
  world.transport.on(kCommerce).then(Answer::body(503, "")).then(Answer::error("down"));
  send();
  const std::string url = "https://commerce.morvik.example/v1/commerce-conversion";
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib commerceConversion]_block_invoke"),
              ElementsAre("MRVK_QA-commerceConversion_request : POST " + url + ", response : 503 " + url,
                          "MRVK_QA-commerceConversion_Recieved an HTTP 503",
                          "MRVK_QA-commerceConversion_The error was: The server answered with status 503."));
  world.log.clear();
  send();
  EXPECT_THAT(
      world.log.messagesOf("-[MorvikCoreLib commerceConversion]_block_invoke"),
      ElementsAre("MRVK_QA-commerceConversion_request : POST " + url + ", response : (null)",
                  "MRVK_QA-commerceConversion_Recieved an HTTP 0", "MRVK_QA-commerceConversion_The error was: down"));
  EXPECT_EQ(kept().size(), 1U);
}

// ---------------------------------------------------------------------------------------------------- commerce events

class CommerceEvents : public ::testing::Test {
 protected:
  void wait(const Value& events) { world.userDefaults().setCommerceExpansionInfos(events); }
  TestWorld world{WorldOptions::attributed()};
};

TEST_F(CommerceEvents, AreSavedAndSentAtSessionStartAndAtItsEnd) {
  world.modules.add(kFendo);
  wait(Array{1});
  world.becomeActive();
  EXPECT_THAT(world.modules.calls(), ElementsAre("Fendo saveCommerceEventAndSend"));
  world.enterBackground();
  EXPECT_THAT(world.modules.calls(), ElementsAre("Fendo saveCommerceEventAndSend", "Fendo saveCommerceEventAndSend"));
}

TEST_F(CommerceEvents, ThatAreNoneAreNotAskedFor) {
  world.modules.add(kFendo);
  for (const Value& none : {Value(), Value(Array{})}) {
    wait(none);
    world.becomeActive();
    world.enterBackground();
  }
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(CommerceEvents, StayWithoutTheModuleOrItsSlot) {
  wait(Array{1});
  world.becomeActive();
  world.enterBackground();
  world.modules.add(kFendo).saveCommerceEventAndSend = nullptr;
  world.modules.add("FendoLib");
  world.becomeActive();
  world.enterBackground();
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(CommerceEvents, AreSentAtTheEndAlsoWithoutAUserNumber) {
  world.modules.add(kFendo);
  wait(Array{1});
  world.userDefaults().setFendoUserInfo_fendoUserNo(-1);
  world.loop.perform([&] { world.core().endSession(); });
  EXPECT_EQ(world.modules.calls().size(), 1U);
}

// --------------------------------------------------------------------------------------------------- premium postback

class PremiumPostback : public ::testing::Test {
 protected:
  PremiumPostback() { world.transport.setDefaultAnswer(Answer::silence()); }

  void ask() {
    world.loop.perform([&] { world.core().getPremiumPostbackInfoss(); });
  }
  size_t asked() { return world.requests(kConfig).size(); }
  void answerWith(const Value& json) {
    world.transport.on(kConfig).then(Answer::json(json));
    ask();
  }
  void answerWithFlag(const Value& flag) {
    answerWith(Dictionary{{"commerce", Dictionary{{"premium_postback", flag}}}});
  }
  std::optional<std::string> stored() { return world.userDefaults().commercePremiumPostBack(); }
  /// The last session ended this many microseconds ago.
  void endSessionBefore(int64_t microseconds) {
    world.loop.perform([&] { world.core().endSession(); });
    world.loop.setWallClock({world.core()._endSessoinDate()->microseconds + microseconds});
  }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(PremiumPostback, OnceGrantedIsSetAndNeverAskedForAgainWheneverTheSessionEnded) {
  world.userDefaults().setCommercePremiumPostBack("true");
  for (const int64_t microseconds : {0, 30'000'000, 60'000'000}) {
    endSessionBefore(microseconds);
    world.services().setIsPremiumPostback(false);
    ask();
    EXPECT_TRUE(world.services().isPremiumPostback());
  }
  EXPECT_EQ(asked(), 0U);
}

TEST_F(PremiumPostback, IsAskedForWithAnythingElseStored) {
  for (const char* text : {"false", "", "TRUE", "1"}) {
    world.userDefaults().setCommercePremiumPostBack(text);
    ask();
  }
  EXPECT_EQ(asked(), 4U);
  EXPECT_FALSE(world.services().isPremiumPostback());
}

TEST_F(PremiumPostback, IsNotAskedForThirtySecondsAfterASession) {
  endSessionBefore(30'000'000);
  ask();
  EXPECT_EQ(asked(), 0U);
}

TEST_F(PremiumPostback, IsAskedForSixtySecondsAfterASession) {
  endSessionBefore(60'000'000);
  ask();
  EXPECT_EQ(asked(), 1U);
}

TEST_F(PremiumPostback, GoesByWholeMillisecondsSinceTheSession) {
  const std::pair<int64_t, bool> cases[] = {{0, true},          {999, true},    {1'000, false}, {59'999'999, false},
                                            {60'000'000, true}, {-1'000, true}, {-999, true},   {-30'000'000, true}};
  for (const auto& [microseconds, is_asked] : cases) {
    const size_t before = asked();
    endSessionBefore(microseconds);
    ask();
    EXPECT_EQ(asked() - before, is_asked ? 1U : 0U) << microseconds;
  }
}

TEST_F(PremiumPostback, IsAskedForWhileNoSessionHasEnded) {
  ask();
  ASSERT_EQ(asked(), 1U);
  EXPECT_EQ(world.requests(kConfig)[0].url, "https://config.morvik.example/test-app/config.json");
}

TEST_F(PremiumPostback, IsNotAskedForUnderForgetMeAndTheGrantIsNotSet) {
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  ask();
  world.userDefaults().setCommercePremiumPostBack("true");
  ask();
  EXPECT_EQ(asked(), 0U);
  EXPECT_FALSE(world.services().isPremiumPostback());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(PremiumPostback, IsAskedForAtSessionStart) {
  world.becomeActive();
  EXPECT_EQ(asked(), 1U);
  world.enterBackground();
  world.loop.advance(30);
  world.becomeActive();
  EXPECT_EQ(asked(), 1U);
}

TEST_F(PremiumPostback, AnAnswerWithoutTheFlagStoresFalseAndClearsIt) {
  for (const Value& json :
       std::vector<Value>{Dictionary{}, Dictionary{{"commerce", Dictionary{}}}, Dictionary{{"commerce", "text"}},
                          Dictionary{{"commerce", Value::null()}}}) {
    world.services().setIsPremiumPostback(true);
    world.userDefaults().setCommercePremiumPostBack(std::nullopt);
    answerWith(json);
    EXPECT_EQ(stored(), "false") << services::describe(json);
    EXPECT_FALSE(world.services().isPremiumPostback()) << services::describe(json);
  }
}

TEST_F(PremiumPostback, IsGrantedByTheTextsThatMeanYes) {
  for (const Value& yes : {Value("true"), Value("Yes"), Value("y"), Value("T"), Value(" 1"), Value("9x"), Value(true),
                           Value(1), Value(2.5)}) {
    world.userDefaults().setCommercePremiumPostBack(std::nullopt);
    answerWithFlag(yes);
    EXPECT_EQ(stored(), "true") << services::describe(yes);
    EXPECT_TRUE(world.services().isPremiumPostback()) << services::describe(yes);
  }
  for (const Value& no : {Value("false"), Value("0"), Value("no"), Value("on"), Value(""), Value("-1"), Value(false),
                          Value(0), Value(0.5), Value::null(), Value(Array{true}), Value(Dictionary{{"a", true}})}) {
    world.userDefaults().setCommercePremiumPostBack(std::nullopt);
    answerWithFlag(no);
    EXPECT_EQ(stored(), "false") << services::describe(no);
    EXPECT_FALSE(world.services().isPremiumPostback()) << services::describe(no);
  }
}

TEST_F(PremiumPostback, AnAnswerIsTakenInInOrder) {
  world.store.commitTurn();
  world.store.clearJournal();
  world.log.clear();
  world.faulty.key_value_store.faults.throwAt("set", 1, Fault::number(1));
  EXPECT_THROW(answerWithFlag("true"), int);
  EXPECT_TRUE(world.services().isPremiumPostback()) << "set before it is stored";
  EXPECT_THAT(world.store.journalTexts(), IsEmpty());
  answerWithFlag("true");
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("commercePremiumPostBack", "synchronize"));
  EXPECT_EQ(stored(), "true");
}

TEST_F(PremiumPostback, AnAnswerIsLoggedAndTheFlagAsReadBack) {
  world.log.clear();
  answerWithFlag("true");
  EXPECT_THAT(world.log.messagesOf("-[MorvikCoreLib getPremiumPostbackInfoss]_block_invoke"),
              ElementsAre("Conversion JSON: {\"commerce\":{\"premium_postback\":\"true\"}}",
                          "MRVK_QA-set the Premium Postback is : 1]"));
}

TEST_F(PremiumPostback, AFailureLeavesEverythingAndIsTriedAgainAtALaterStart) {
  world.services().setIsPremiumPostback(true);
  world.log.clear();
  world.store.clearJournal();
  for (const Answer& answer : {Answer::error("down"), Answer::body(500, "{}"), Answer::body(200, "true")}) {
    world.transport.on(kConfig).then(answer);
    ask();
  }
  EXPECT_TRUE(world.services().isPremiumPostback());
  EXPECT_FALSE(stored().has_value());
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(asked(), 3U);
}

}  // namespace
}  // namespace morvik
