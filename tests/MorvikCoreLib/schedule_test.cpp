// The campaign schedule: asked for, handed on, replayed.

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

constexpr const char* kSchedulePath = "v2/schedule";
constexpr const char* kHandler = "-[MorvikCoreLib getSchedule:]_block_invoke";

Value schedule(const std::string& checksum) {
  return Dictionary{{"Result", true},
                    {"ResultCode", 1},
                    {"Data", Dictionary{{"CheckSum", checksum}, {"campaigns", Array{"one", "two"}}}}};
}

const Value kUnchanged = Dictionary{{"Result", true}, {"ResultCode", 1001}};

class Schedule : public ::testing::Test {
 protected:
  Schedule() { world.transport.setDefaultAnswer(Answer::silence()); }

  void ask() {
    world.loop.perform([&] { world.core().getSchedule(Dictionary{{"checksum", world.core()._checkSum()}}); });
  }
  void answerWith(const Value& json) {
    world.transport.on(kSchedulePath).then(Answer::json(json));
    ask();
  }
  std::string lastChecksumSent() {
    return testing::formFields(world.requests(kSchedulePath).back().body).at("checksum");
  }
  static std::string given(const Value& json) { return "Fendo didGetSchedule: " + services::describe(json); }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(Schedule, OfTheFirstSessionIsAskedForWithInitAndKept) {
  world.modules.add("Fendo");
  world.transport.on(kSchedulePath).then(Answer::json(schedule("sum-1")));
  world.becomeActive();
  ASSERT_EQ(world.requests(kSchedulePath).size(), 1U);
  EXPECT_EQ(world.requests(kSchedulePath)[0].body, "k=test-app&language=ko&checksum=init");
  EXPECT_EQ(world.core()._checkSum(), "sum-1");
  EXPECT_EQ(world.core()._lastJSON(), schedule("sum-1"));
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1"))));
}

TEST_F(Schedule, IsLoggedBeforeAnythingIsMadeOfIt) {
  world.becomeActive();
  world.faulty.util.faults.throwAlways("timeIntervalSinceServerDate", testing::Fault::number(1));
  EXPECT_THROW(answerWith(Value(Dictionary{{"BaseTime", 1000}})), int);
  EXPECT_EQ(world.log.countContaining("MRVK_QA-getSchedule_JSON: "), 1U);
}

TEST_F(Schedule, ThatDidNotChangeIsReplayedFromMemory) {
  world.modules.add("Fendo");
  world.transport.on(kSchedulePath).then(Answer::json(schedule("sum-1"))).then(Answer::json(kUnchanged));
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(100);
  world.becomeActive();
  EXPECT_EQ(lastChecksumSent(), "sum-1");
  EXPECT_EQ(world.requests(kSchedulePath).size(), 2U);
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1")), given(schedule("sum-1"))));
  EXPECT_EQ(world.core()._checkSum(), "sum-1");
  EXPECT_EQ(world.core()._lastJSON(), schedule("sum-1"));
}

TEST_F(Schedule, ThatDidNotChangeAndIsNotHeldIsAskedForOnceMoreWithInit) {
  world.modules.add("Fendo");
  world.transport.on(kSchedulePath).then(Answer::json(kUnchanged)).then(Answer::json(schedule("sum-1")));
  world.loop.perform([&] { world.core().getSchedule(Dictionary{{"checksum", "of another life"}}); });
  ASSERT_EQ(world.requests(kSchedulePath).size(), 2U);
  EXPECT_EQ(world.requests(kSchedulePath)[1].body, "k=test-app&language=ko&checksum=init");
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1"))));
}

TEST_F(Schedule, IsAskedForAgainOnceForEachUnchangedAnswerWhileNoneIsHeld) {
  world.transport.on(kSchedulePath).times(3, Answer::json(kUnchanged));
  ask();
  EXPECT_EQ(world.requests(kSchedulePath).size(), 4U);
  EXPECT_EQ(world.core()._checkSum(), "init");
  EXPECT_TRUE(world.core()._lastJSON().isAbsent());
}

TEST_F(Schedule, IsReplacedAndHandedOnAlsoByAnAnswerWhoseResultIsFalse) {
  world.modules.add("Fendo");
  answerWith(schedule("sum-1"));
  const Value refused = Dictionary{{"Result", false}, {"ResultCode", 1001}};
  answerWith(refused);
  EXPECT_EQ(world.core()._checkSum(), "");
  EXPECT_EQ(world.core()._lastJSON(), refused);
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1")), given(refused)));
  answerWith(kUnchanged);
  EXPECT_EQ(lastChecksumSent(), "");
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1")), given(refused), given(refused)));
}

TEST_F(Schedule, SetsTheServersTimeOnlyWithABaseTime) {
  answerWith(schedule("sum-1"));
  EXPECT_EQ(world.services().intervalSinceServerDate(), 0.0);
  world.services().setIntervalSinceServerDate(5);
  for (const Value& no_time : {Value::null(), Value("soon"), Value(true), Value(Array{1})}) {
    answerWith(Dictionary{{"Result", true}, {"BaseTime", no_time}});
    EXPECT_EQ(world.services().intervalSinceServerDate(), 5.0) << services::describe(no_time);
  }
  answerWith(Dictionary{{"Result", true}, {"ResultCode", 1001}, {"BaseTime", int64_t{1'709'251'212'500}}});
  EXPECT_EQ(world.services().intervalSinceServerDate(), 12.5);
  answerWith(Dictionary{{"Result", true}, {"BaseTime", "1709251213500 and more"}});
  EXPECT_EQ(world.services().intervalSinceServerDate(), 13.5);
}

TEST_F(Schedule, IsHandedToNobodyWithoutModuleAndDelegate) {
  answerWith(schedule("sum-1"));
  answerWith(kUnchanged);
  EXPECT_EQ(world.core()._checkSum(), "sum-1");
  EXPECT_EQ(world.services().getScheduleDelegate(), nullptr);
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(Schedule, IsHandedToADelegateSetElsewhereWhenThereIsNoModule) {
  std::vector<std::string> given_to_app;
  const auto delegate = std::make_shared<kit::GetScheduleDelegate>();
  delegate->didGetSchedule = [&](const Value& json) { given_to_app.push_back(services::describe(json)); };
  world.services().setGetScheduleDelegate(delegate);
  answerWith(schedule("sum-1"));
  answerWith(kUnchanged);
  EXPECT_THAT(given_to_app, ElementsAre(services::describe(schedule("sum-1")), services::describe(schedule("sum-1"))));
}

TEST_F(Schedule, MakesTheModuleItsDelegateWithEachFullAnswerAndWithNoOther) {
  const auto app = std::make_shared<kit::GetScheduleDelegate>();
  world.services().setGetScheduleDelegate(app);
  answerWith(schedule("sum-1"));
  EXPECT_EQ(world.services().getScheduleDelegate(), app);
  world.modules.add("Fendo");
  answerWith(kUnchanged);
  EXPECT_EQ(world.services().getScheduleDelegate(), app);
  EXPECT_THAT(world.modules.calls(), IsEmpty());
  answerWith(schedule("sum-2"));
  EXPECT_NE(world.services().getScheduleDelegate(), app);
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-2"))));
}

TEST_F(Schedule, IsNotHandedToAModuleThatDoesNotRespond) {
  world.modules.add("Fendo");
  world.modules.sharedOf("Fendo").didGetSchedule = nullptr;
  answerWith(schedule("sum-1"));
  answerWith(kUnchanged);
  world.modules.add("Fendo").shared = nullptr;
  answerWith(schedule("sum-2"));
  EXPECT_EQ(world.services().getScheduleDelegate(), nullptr);
  EXPECT_EQ(world.core()._checkSum(), "sum-2");
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(Schedule, StaysAsItWasAfterAFailure) {
  world.modules.add("Fendo");
  answerWith(schedule("sum-1"));
  world.log.clear();
  world.transport.on(kSchedulePath).then(Answer::json(503, schedule("sum-2")));
  ask();
  EXPECT_EQ(world.core()._checkSum(), "sum-1");
  EXPECT_EQ(world.core()._lastJSON(), schedule("sum-1"));
  EXPECT_THAT(world.modules.calls(), ElementsAre(given(schedule("sum-1"))));
  EXPECT_THAT(world.log.messagesOf(kHandler),
              ElementsAre("MRVK_QA-getSchedule_Recieved an HTTP 503",
                          "MRVK_QA-getSchedule_The error was: The server answered with status 503."));
}

TEST_F(Schedule, DoesNotOutliveTheProcess) {
  answerWith(schedule("sum-1"));
  world.restart();
  EXPECT_EQ(world.core()._checkSum(), "init");
  EXPECT_TRUE(world.core()._lastJSON().isAbsent());
}

TEST_F(Schedule, IsUnchangedForAResultAndACodeOfAnyKindThatSayIt) {
  world.modules.add("Fendo");
  answerWith(schedule("sum-1"));
  for (const Value& result : {Value(true), Value(1), Value("yes")}) {
    for (const Value& code : {Value(1001), Value(1001.9), Value("1001"), Value("1001 times")}) {
      answerWith(Dictionary{{"Result", result}, {"ResultCode", code}});
      EXPECT_EQ(world.core()._checkSum(), "sum-1") << services::describe(result) << services::describe(code);
    }
  }
}

TEST_F(Schedule, HasAChecksumForAnyValueInAnyField) {
  world.modules.add("Fendo");
  for (const Value& odd : testing::oddValues()) {
    answerWith(Dictionary{{"Result", odd}, {"ResultCode", odd}, {"BaseTime", odd}, {"Data", odd}});
    EXPECT_EQ(world.core()._checkSum(), "") << services::describe(odd);
    answerWith(Dictionary{{"Result", true}, {"Data", Dictionary{{"CheckSum", odd}}}});
  }
  answerWith(Dictionary{{"Data", Dictionary{{"CheckSum", 17}}}});
  EXPECT_EQ(world.core()._checkSum(), "17");
  for (const char* body : {"", "null", "[]", "5", "{", "<html>"}) {
    world.transport.on(kSchedulePath).then(Answer::body(200, body));
    ask();
    EXPECT_EQ(world.core()._checkSum(), "17") << body;
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

TEST_F(Schedule, IsAskedForAfterIAdAndBeforeTheLaunchIsCounted) {
  world.faulty.transport.faults.throwAt("start", 2, testing::Fault::number(1));
  world.becomeActive();
  EXPECT_EQ(world.faulty.ad_client.faults.calls("offersConversionDetails"), 1U);
  EXPECT_THAT(world.requests(kSchedulePath), IsEmpty());
  EXPECT_EQ(world.userDefaults().integerForKey("com.morvik.core.appLaunchCount"), 0);
}

}  // namespace
}  // namespace morvik
