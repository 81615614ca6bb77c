#include "apps/device/verbs.h"

#include <gmock/gmock.h>

#include <set>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

Command commandIn(std::string_view line) {
  auto read = readCommand(line);
  if (auto* command = std::get_if<Command>(&read))
    return *command;
  ADD_FAILURE() << line << ": " << std::get<std::string>(read);
  return {&verbs().front(), {}};
}

std::string mistakeIn(std::string_view line) {
  auto read = readCommand(line);
  const auto* mistake = std::get_if<std::string>(&read);
  return mistake != nullptr ? *mistake : "no mistake";
}

TEST(Verbs, EachNameStandsOnceInTheTableAndInTheHelp) {
  std::set<std::string_view> names;
  for (const Verb& verb : verbs()) {
    EXPECT_TRUE(names.insert(verb.name).second) << verb.name;
    EXPECT_THAT("\n" + verbsHelp(), HasSubstr("\n  " + std::string(verb.name) + " "));
    EXPECT_THAT(verbsHelp(), HasSubstr(std::string(verb.help) + "\n"));
  }
}

TEST(Verbs, AVerbAloneNeedsNoArguments) {
  for (const std::string_view name : {"active", "background", "push", "kill", "quit", "store", "status", "ledger",
                                      "settle", "is-forgotten", "offline", "online"})
    EXPECT_EQ(commandIn(name).verb->name, name);
}

TEST(Verbs, BlanksAroundTheLineDoNotMatter) {
  EXPECT_EQ(commandIn(" \tactive \t").verb->name, "active");
}

TEST(Verbs, AnUnknownVerbNamesThoseThatExist) {
  EXPECT_EQ(
      mistakeIn("evnt a b"),
      "\"evnt\" is not a verb; use one of: active, background, event, impression, open-url, store-url, facebook-url, "
      "third-party-conversion, age, gender, user-id, clear-user-id, forget-me, is-forgotten, offline, online, set, "
      "push, flush, wait-delivered, sending, wait, clock, settle, store, status, ledger, explain, crash, crash-signal, "
      "kill, erase, quit");
}

TEST(Verbs, ExplainTakesTheIdOfAnEvent) {
  EXPECT_EQ(commandIn("explain 018f3406-9e00-7abc-8def-0123456789ab").arguments.words.front(),
            "018f3406-9e00-7abc-8def-0123456789ab");
  EXPECT_EQ(commandIn("explain x").verb->name, "explain") << "the kit says what is wrong with an id";
  EXPECT_THAT(mistakeIn("explain"), ::testing::EndsWith("write: explain ID"));
}

TEST(Verbs, SendingIsSwitchedOnOrOff) {
  EXPECT_EQ(commandIn("sending on").arguments.flag, true);
  EXPECT_EQ(commandIn("sending off").arguments.flag, false);
  EXPECT_EQ(mistakeIn("sending"), "sending: say on or off; write: sending on|off");
}

TEST(Verbs, AFlushTakesATimeOrTheUsualOne) {
  EXPECT_EQ(commandIn("flush").arguments.seconds, std::nullopt);
  EXPECT_EQ(commandIn("flush 2.5").arguments.seconds, 2.5);
  EXPECT_EQ(commandIn("wait-delivered 2.5").arguments.seconds, 2.5);
  EXPECT_EQ(commandIn("wait-delivered").arguments.seconds, std::nullopt);
  EXPECT_EQ(mistakeIn("flush soon"), "flush: \"soon\" is not a number of seconds; write: flush [SECONDS]");
}

TEST(Verbs, AVerbThatTakesNoArgumentsRefusesThem) {
  EXPECT_EQ(mistakeIn("active now"), "active: there are more arguments than it takes; write: active");
}

TEST(Verbs, AnEventHasAGroupANameAndPerhapsAParameter) {
  EXPECT_THAT(commandIn("event shop purchase").arguments.words, ElementsAre("shop", "purchase"));
  EXPECT_THAT(commandIn(R"(event "my shop" purchase "sku 42")").arguments.words,
              ElementsAre("my shop", "purchase", "sku 42"));
  EXPECT_EQ(mistakeIn("event"), "event: the arguments are missing; write: event GROUP NAME [PARAM]");
  EXPECT_EQ(mistakeIn("event shop"), "event: an argument is missing; write: event GROUP NAME [PARAM]");
  EXPECT_EQ(mistakeIn("event a b c d"),
            "event: there are more arguments than it takes; write: event GROUP NAME [PARAM]");
}

TEST(Verbs, AnEventsParameterThatBeginsWithABraceIsTheRestOfTheLine) {
  EXPECT_THAT(commandIn(R"(event shop purchase {"price": 9.99, "name": "a \"b\""} )").arguments.words,
              ElementsAre("shop", "purchase", R"({"price": 9.99, "name": "a \"b\""})"));
  EXPECT_THAT(commandIn(R"(event "my shop" purchase {"price":9.99})").arguments.words,
              ElementsAre("my shop", "purchase", R"({"price":9.99})"));
  EXPECT_THAT(commandIn(R"(event shop purchase "{\"price\":9.99}")").arguments.words,
              ElementsAre("shop", "purchase", R"({"price":9.99})"));
  EXPECT_THAT(commandIn("event shop {purchase").arguments.words, ElementsAre("shop", "{purchase"));
  EXPECT_THAT(mistakeIn(R"(event shop pur"chase {"price":9.99})"), HasSubstr("a double quote stands inside a word"));
  EXPECT_THAT(mistakeIn(R"(event shop purchase [1] 2)"), HasSubstr("more arguments than it takes"));
}

TEST(Verbs, AnImpressionTakesTheRestOfTheLineAsJson) {
  EXPECT_EQ(commandIn(R"(impression {"spaceKey": "a b", "campaignKey": 7} )").arguments.json,
            kit::Value(kit::Dictionary{{"spaceKey", "a b"}, {"campaignKey", 7}}));
  EXPECT_EQ(mistakeIn("impression"), "impression: the JSON is missing; write: impression JSON");
  EXPECT_THAT(mistakeIn("impression {"), StartsWith("impression: the rest of the line is not JSON ("));
  EXPECT_THAT(mistakeIn("impression {} {}"), EndsWith("; write: impression JSON"));
}

TEST(Verbs, WaitTakesSecondsWithFractions) {
  EXPECT_EQ(commandIn("wait 0.25").arguments.seconds, 0.25);
  EXPECT_EQ(commandIn("wait 86400").arguments.seconds, 86400.0);
  EXPECT_EQ(mistakeIn("wait"), "wait: the seconds are missing; write: wait SECONDS");
  EXPECT_EQ(mistakeIn("wait soon"), "wait: \"soon\" is not a number of seconds; write: wait SECONDS");
  EXPECT_EQ(mistakeIn("wait 1 2"), "wait: \"1 2\" is not a number of seconds; write: wait SECONDS");
  EXPECT_EQ(mistakeIn("wait nan"), "wait: \"nan\" is not a number of seconds; write: wait SECONDS");
}

TEST(Verbs, WaitIsBoundedByADay) {
  EXPECT_EQ(mistakeIn("wait 86400.5"), "wait: \"86400.5\" is out of range; write: wait SECONDS");
  EXPECT_EQ(mistakeIn("wait -1"), "wait: \"-1\" is out of range; write: wait SECONDS");
}

TEST(Verbs, TheClockMovesBothWaysAndIsBounded) {
  EXPECT_EQ(commandIn("clock 90000").arguments.seconds, 90000.0);
  EXPECT_EQ(commandIn("clock -61.5").arguments.seconds, -61.5);
  EXPECT_EQ(mistakeIn("clock"), "clock: the seconds are missing; write: clock SECONDS");
  EXPECT_EQ(mistakeIn("clock 1e300"), "clock: \"1e300\" is out of range; write: clock SECONDS");
}

TEST(Verbs, SettleMayBeGivenALimit) {
  EXPECT_EQ(commandIn("settle").arguments.seconds, std::nullopt);
  EXPECT_EQ(commandIn("settle 2.5").arguments.seconds, 2.5);
  EXPECT_EQ(mistakeIn("settle 1h"), "settle: \"1h\" is not a number of seconds; write: settle [SECONDS]");
}

TEST(Verbs, AnOrderlyEndMayBeGivenTimeToDeliver) {
  EXPECT_EQ(commandIn("quit").arguments.seconds, std::nullopt);
  EXPECT_EQ(commandIn("quit 2.5").arguments.seconds, 2.5);
  EXPECT_EQ(mistakeIn("quit soon"), "quit: \"soon\" is not a number of seconds; write: quit [SECONDS]");
}

TEST(Verbs, StoreTakesAnyNumberOfNames) {
  EXPECT_THAT(commandIn("store").arguments.words, IsEmpty());
  EXPECT_THAT(commandIn("store a b c d e").arguments.words, ElementsAre("a", "b", "c", "d", "e"));
}

TEST(Verbs, AUrlIsOneWord) {
  for (const std::string verb : {"open-url", "store-url", "facebook-url"}) {
    EXPECT_THAT(commandIn(verb + " app://open?ck=1&sn=2").arguments.words, ElementsAre("app://open?ck=1&sn=2"));
    EXPECT_THAT(commandIn(verb + " \"app://open?sub=a b\"").arguments.words, ElementsAre("app://open?sub=a b"));
    std::string mistake = verb;
    mistake.append(": the arguments are missing; write: ").append(verb).append(" URL");
    EXPECT_EQ(mistakeIn(verb), mistake);
  }
}

TEST(Verbs, SetTakesAPropertyAndTheRestOfTheLineAsJson) {
  const Arguments arguments = commandIn(R"(set fendoConversionInfoForCaches [1, 2] )").arguments;
  EXPECT_THAT(arguments.words, ElementsAre("fendoConversionInfoForCaches"));
  EXPECT_EQ(arguments.json, kit::Value(kit::Array{1, 2}));
  EXPECT_EQ(mistakeIn("set"), "set: the arguments are missing; write: set PROPERTY JSON");
  EXPECT_EQ(mistakeIn("set a"), "set: the JSON is missing; write: set PROPERTY JSON");
}

TEST(Verbs, WhatIsToldOfTheUserIsANumberOrAText) {
  EXPECT_EQ(commandIn("age 27").arguments.number, 27);
  EXPECT_EQ(commandIn("gender -1").arguments.number, -1);
  EXPECT_THAT(commandIn("user-id \"a b\"").arguments.words, ElementsAre("a b"));
  EXPECT_EQ(mistakeIn("age"), "age: the number is missing; write: age N");
  EXPECT_EQ(mistakeIn("age 2.5"), "age: \"2.5\" is not a 32-bit whole number; write: age N");
  EXPECT_EQ(mistakeIn("gender 4294967296"), "gender: \"4294967296\" is not a 32-bit whole number; write: gender N");
}

TEST(Verbs, TheWishToBeForgottenIsTrueOrFalse) {
  EXPECT_EQ(commandIn("forget-me true").arguments.flag, true);
  EXPECT_EQ(commandIn("forget-me false").arguments.flag, false);
  EXPECT_EQ(mistakeIn("forget-me"), "forget-me: say true or false; write: forget-me true|false");
  EXPECT_EQ(mistakeIn("forget-me yes"), "forget-me: say true or false; write: forget-me true|false");
}

TEST(Verbs, ACrashHasATextOrTheNameOfAFatalSignal) {
  EXPECT_THAT(commandIn("crash \"fendo broke\"").arguments.words, ElementsAre("fendo broke"));
  for (const char* name : {"SIGSEGV", "SIGABRT", "SIGBUS", "SIGFPE", "SIGILL"})
    EXPECT_THAT(commandIn(std::string("crash-signal ") + name).arguments.words, ElementsAre(name));
  EXPECT_EQ(mistakeIn("crash-signal SIGTERM"),
            "crash-signal: say SIGSEGV, SIGABRT, SIGBUS, SIGFPE or SIGILL; write: crash-signal NAME");
}

TEST(Verbs, BlankLinesAndCommentsSayNothing) {
  EXPECT_TRUE(saysNothing(""));
  EXPECT_TRUE(saysNothing(" \t"));
  EXPECT_TRUE(saysNothing("  # the app starts"));
  EXPECT_FALSE(saysNothing("active # the app starts"));
}

}  // namespace
}  // namespace morvik_device
