#include "apps/device/scenario/expectations.h"

#include <gtest/gtest.h>

#include "apps/device/scenario/scenario_parts.h"
#include "testing/json_reader.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Value;
using morvik::testing::json;
using morvik::testing::ServiceEndpoint;

class Expectations : public ::testing::Test {
 protected:
  Verdict assessed(const std::string& yaml) {
    const Evidence evidence{.history = history,
                            .events = [this] { return events; },
                            .event_count = [this] { return events.size() + events_forgotten; },
                            .stored = [this](const std::string&) { return stored; },
                            .ledger = [this] { return ledger; }};
    return assess(readExpectations(readYaml(yaml)).at(0), evidence);
  }
  /// "met", or what was expected and what was there.
  std::string outcome(const std::string& yaml) {
    const Verdict verdict = assessed(yaml);
    return verdict.met ? "met" : verdict.expected + " | " + verdict.got;
  }
  void request(int64_t at_milliseconds, const char* payload) {
    history.requests.add({at_milliseconds, ServiceEndpoint::kTracking, json(payload)});
  }
  void line(int64_t at_milliseconds, const std::string& text) {
    history.lines.add({at_milliseconds, 2, morvik::testing::splitLogLine(text)});
  }

  History history;
  std::vector<Value> events;
  size_t events_forgotten = 0;
  Value stored;
  morvik::Ledger ledger;
};

TEST_F(Expectations, CountRequestsThatFit) {
  EXPECT_EQ(outcome("{request: tracking}"), "at least 1 tracking requests | 0 of 0 tracking requests fit");
  EXPECT_EQ(outcome("{request: tracking, count: 0}"), "met");
  request(1'000, R"({"a":1})");
  request(2'000, R"({"a":2})");
  EXPECT_EQ(outcome("{request: tracking}"), "met");
  EXPECT_EQ(outcome("{request: tracking, count: 2}"), "met");
  EXPECT_EQ(outcome("{request: tracking, count: 1}"), "exactly 1 tracking requests | 2 of 2 tracking requests fit");
  EXPECT_EQ(outcome("{request: tracking, count: 0}"), "none tracking requests | 2 of 2 tracking requests fit");
  EXPECT_EQ(outcome("{request: tracking, count: 3..4}"), "3 to 4 tracking requests | 2 of 2 tracking requests fit");
  EXPECT_EQ(outcome("{request: tracking, count: ..1}"), "at most 1 tracking requests | 2 of 2 tracking requests fit");
  EXPECT_EQ(outcome("{request: crash, count: 0}"), "met");
}

TEST_F(Expectations, SayWhyTheNearestRequestDoesNotFit) {
  request(1'000, R"({"a":1})");
  EXPECT_EQ(outcome("{request: tracking, with: {a: 1}}"), "met");
  EXPECT_EQ(
      outcome("{request: tracking, with: {a: 2}}"),
      "at least 1 tracking requests with {\"a\":2} | 0 of 1 tracking requests fit; one that does not fit, at 1s: a "
      "is 1 and not 2");
  EXPECT_EQ(outcome("{request: tracking, when: 2s..3s}"),
            "at least 1 tracking requests from 2s to 3s | 0 of 1 tracking requests fit; one that does not fit, at 1s: "
            "it came at 1s");
  EXPECT_EQ(outcome("{request: tracking, when: 1s}"), "met");
}

TEST_F(Expectations, CountDeliveredEventsOnceUnlessToldOtherwise) {
  events = {json(R"({"group":"shop","activity":"buy","param":"x","created_at":"1"})"),
            json(R"({"group":"shop","activity":"look","param":"","created_at":"2"})"),
            json(R"({"group":"shop","activity":"look","param":"y","created_at":"3"})")};
  EXPECT_EQ(outcome("{delivered: shop/buy}"), "met");
  EXPECT_EQ(outcome("{delivered: shop/buy, param: x}"), "met");
  EXPECT_EQ(outcome("{delivered: shop/buy, param: z}"),
            "exactly 1 delivered shop/buy with param \"z\" | 0 of 1 of this name fit, of 3 events; one that does not "
            "fit, 1: param is \"x\"");
  EXPECT_EQ(outcome("{delivered: shop/look}"), "exactly 1 delivered shop/look | 2 of 2 of this name fit, of 3 events");
  EXPECT_EQ(outcome("{delivered: shop/look, count: 2}"), "met");
  EXPECT_EQ(outcome("{delivered: shop/look/on, count: 0}"), "met");
}

TEST_F(Expectations, LookAtCallsAndWhoGotThem) {
  history.calls.add({500, "didReceiveDeeplink:", "", {"app://x"}});
  history.calls.add({600, "saveRetainedConversionKey:", "FendoLib", {12}});
  EXPECT_EQ(outcome("{callback: \"didReceiveDeeplink:\", with: [app://x]}"), "met");
  EXPECT_EQ(outcome("{callback: \"saveRetainedConversionKey:\", module: FendoLib, with: [12]}"), "met");
  EXPECT_EQ(
      outcome("{callback: \"saveRetainedConversionKey:\", module: Fendo}"),
      "at least 1 calls of saveRetainedConversionKey: to the module Fendo | 0 of 1 calls of it fit; one that does "
      "not fit, at 600ms: it went to the module FendoLib");
  EXPECT_EQ(outcome("{callback: \"didReceiveDeeplink:\", module: FendoLib, count: 0}"), "met");
  EXPECT_EQ(outcome("{callback: \"didReceiveDeeplink:\", with: [app://y]}"),
            "at least 1 calls of didReceiveDeeplink: with [\"app://y\"] | 0 of 1 calls of it fit; one that does not "
            "fit, at 500ms: has no element like \"app://y\" (behind those before it)");
}

TEST_F(Expectations, FindLinesByAPartOrAsAWhole) {
  line(1'000, "ERROR Kesmo:tracking.cpp:12:-[MorvikCoreLib tracking:] MRVK_QA-Recieved an HTTP 500");
  line(2'000, "a plain line");
  EXPECT_EQ(outcome("{log: an HTTP 500}"), "met");
  EXPECT_EQ(outcome("{log-exactly: MRVK_QA-Recieved an HTTP 500}"), "met");
  EXPECT_EQ(outcome("{log-exactly: an HTTP 500}"),
            "at least 1 log lines that are \"an HTTP 500\" | 0 of 0 such lines fit, of 2");
  EXPECT_EQ(outcome("{log: tracking.cpp, count: 0}"), "met");
  EXPECT_EQ(
      outcome("{log: plain, when: 0s..1s}"),
      "at least 1 log lines from 0s to 1s with \"plain\" | 0 of 1 such lines fit, of 2; one that does not fit, at "
      "2s: it came at 2s");
}

TEST_F(Expectations, LookIntoTheStore) {
  stored = 7;
  EXPECT_EQ(outcome("{store: fendoUserInfo_referralKey, is: 7}"), "met");
  EXPECT_EQ(outcome("{store: fendoUserInfo_referralKey, is: 8}"),
            "fendoUserInfo_referralKey stored as 8 | it is 7 and not 8");
  EXPECT_EQ(outcome("{store: fendoActivityInfos, count: 0}"),
            "none elements stored in fendoActivityInfos | it is not a list but 7");
  stored = Value();
  EXPECT_EQ(outcome("{store: fendoUserInfo_referralKey, is: null}"), "met");
  EXPECT_EQ(outcome("{store: fendoActivityInfos, count: 0}"), "met");
  stored = json(R"([{"a":1},{"a":2}])");
  EXPECT_EQ(outcome("{store: fendoActivityInfos, count: 2}"), "met");
  EXPECT_EQ(outcome("{store: fendoActivityInfos, with: {a: 2}, count: 1}"), "met");
  EXPECT_EQ(outcome("{store: fendoActivityInfos, with: {a: 3}}"),
            "at least 1 elements stored in fendoActivityInfos with {\"a\":3} | 0 of 2 elements fit; one that does not "
            "fit, element 1: a is 1 and not 3");
}

TEST_F(Expectations, AreNeverMetByAnAccountThatForgotSomething) {
  events_forgotten = 3;
  EXPECT_EQ(outcome("{delivered: a/b, count: 0}"),
            "none delivered a/b | more happened than is kept: the oldest 3 are forgotten");
  for (size_t i = 0; i <= kMaxKept; ++i)
    history.calls.add({});
  EXPECT_EQ(outcome("{callback: x, count: 0}"),
            "none calls of x | more happened than is kept: the oldest 1 are forgotten");
}

TEST_F(Expectations, LookAtTheLedgerOfAKind) {
  ledger.accounts = {{.kind = "impressions", .recorded = 3, .delivered = 2, .stored = 1}};
  EXPECT_EQ(outcome("{ledger: impressions, with: {recorded: 3, stored: 1}}"), "met");
  EXPECT_EQ(outcome("{ledger: impressions, with: {delivered: 3}}"),
            "the ledger of impressions with {\"delivered\":3} | it delivered is 2 and not 3");
  EXPECT_FALSE(assessed("{ledger: demographics, with: {recorded: 0}}").met) << "there is none";
}

TEST_F(Expectations, SayWhyALedgerIsNotSound) {
  ledger.accounts = {{.kind = "impressions", .recorded = 1, .stored = 1}};
  EXPECT_EQ(outcome("{ledger: sound}"), "met");
  ledger.accounts[0].given_up = {{"a rule", 1, true}, {"unexplained", 2, false}};
  ledger.accounts[0].recorded = 4;
  EXPECT_EQ(outcome("{ledger: sound}"),
            "a ledger that is sound | against the rules "
            R"({"kind":"impressions","count":2,"reason":"unexplained","by_rule":false})");
  ledger.accounts[0].recorded = 5;
  EXPECT_EQ(outcome("{ledger: sound}"),
            "a ledger that is sound | it does not add up: "
            R"({"kind":"impressions","recorded":5,"delivered":0,"stored":1,"under_way":0,"given_up":3,)"
            R"("found_uncounted":0})");
}

}  // namespace
}  // namespace morvik_device::scenario
