#include "apps/device/scenario/scenario_reader.h"

#include <gtest/gtest.h>

#include "testing/json_reader.h"

namespace morvik_device::scenario {
namespace {

using morvik::testing::json;
using morvik::testing::ServiceEndpoint;

Scenario scenarioIn(const std::string& yaml) {
  auto read = readScenario(yaml, "story.yaml");
  if (const auto* mistake = std::get_if<std::string>(&read)) {
    ADD_FAILURE() << *mistake;
    return {};
  }
  return std::get<Scenario>(std::move(read));
}

std::string mistakeIn(const std::string& yaml) {
  const auto read = readScenario(yaml, "story.yaml");
  const auto* mistake = std::get_if<std::string>(&read);
  return mistake == nullptr ? "no mistake" : *mistake;
}

// The mistake in a part of an otherwise correct scenario; the part begins in line 4.
std::string mistakeWith(const std::string& part) {
  return mistakeIn("story: s\nsteps: [{do: active}]\nexpect: {delivered: a/b}\n" + part);
}

// The mistake in a step, which begins in line 4.
std::string mistakeInStep(const std::string& step) {
  return mistakeIn("story: s\nexpect: {delivered: a/b}\nsteps:\n" + step);
}

std::string mistakeInRule(const std::string& rule) {
  return mistakeWith("service:\n  answers:\n    tracking: " + rule);
}

std::string mistakeInExpectation(const std::string& expectation) {
  return mistakeIn("story: s\nsteps: [{do: active}]\nexpect:\n" + expectation);
}

TEST(ScenarioReader, ReadsAStory) {
  const Scenario scenario = scenarioIn(R"(story: A story
start: 2024-05-01T12:00:00Z
end: 2d
show-log: 4
device: {idfa: none, module: [FendoLib=1.0, Fendo], no-multitasking: true, no-sending: true}
steps:
  - do: active
  - at: 10s
    do: [event shop purchase, background]
  - after: 1m
    repeat: 3
    every: 5s
    do: active
    expect: {delivered: shop/purchase}
  - after: 1s
    do: kill
expect:
  - store: fendoUserInfo_referralKey
    is: 7
)");
  EXPECT_EQ(scenario.story, "A story");
  EXPECT_EQ(scenario.start, morvik::kit::Date::fromSeconds(1'714'564'800));
  EXPECT_EQ(scenario.end_milliseconds, 172'800'000);
  EXPECT_EQ(scenario.lastMillisecond(), 172'800'000);
  EXPECT_EQ(scenario.shown_log_level, 4);
  EXPECT_EQ(scenario.device.modules.size(), 2u);
  EXPECT_EQ(scenario.device.start.device.multitasking, false);
  EXPECT_FALSE(scenario.device.start.sending);
  EXPECT_EQ(scenario.device.start.log_level, 6);
  ASSERT_EQ(scenario.steps.size(), 4u);
  EXPECT_EQ(scenario.steps[0].at_milliseconds, 0);
  EXPECT_EQ(scenario.steps[1].at_milliseconds, 10'000);
  ASSERT_EQ(scenario.steps[1].verbs.size(), 2u);
  EXPECT_EQ(scenario.steps[1].verbs[0].text, "event shop purchase");
  EXPECT_EQ(scenario.steps[1].verbs[0].place, (Place{9, 10}));
  EXPECT_EQ(scenario.steps[2].at_milliseconds, 70'000);
  EXPECT_EQ(scenario.steps[2].repeat, 3u);
  EXPECT_EQ(scenario.steps[2].lastMillisecond(), 80'000);
  EXPECT_EQ(scenario.steps[2].expectations.size(), 1u);
  EXPECT_EQ(scenario.steps[3].at_milliseconds, 81'000);
  ASSERT_EQ(scenario.expectations.size(), 1u);
  EXPECT_EQ(scenario.expectations[0].place, (Place{18, 5}));
  EXPECT_EQ(scenario.expectations[0].is, json("7"));
}

TEST(ScenarioReader, GivesEverythingElseADefault) {
  const Scenario scenario = scenarioIn("story: s\nsteps: [{do: active}]\nexpect: {delivered: a/b}\n");
  EXPECT_EQ(scenario.start, kDefaultStart);
  EXPECT_EQ(scenario.lastMillisecond(), kAfterwardsMilliseconds);
  EXPECT_EQ(scenario.shown_log_level, 2);
  EXPECT_EQ(scenario.service.clock_ahead_milliseconds, 0);
  EXPECT_TRUE(scenario.network.empty());
}

TEST(ScenarioReader, WantsAStoryWithStepsAndExpectations) {
  EXPECT_EQ(mistakeIn("steps: [{do: active}]\n"),
            "story.yaml:1:1: the scenario has no \"story\"; expected one line that tells it");
  EXPECT_EQ(mistakeIn("story: s\nexpect: {delivered: a/b}\n"),
            "story.yaml:1:1: the scenario has no \"steps\"; expected a list of what happens");
  EXPECT_EQ(mistakeIn("story: s\nsteps: [{do: active}]\n"),
            "story.yaml:1:1: the scenario expects nothing, so it could not fail; expected at least one under "
            "\"expect\"");
  EXPECT_EQ(mistakeIn("story: s\nsteps: []\n"),
            "story.yaml:2:8: no step does anything; expected at least one verb under \"do\"");
  EXPECT_EQ(mistakeIn("just a text"),
            "story.yaml:1:1: a scenario is \"just a text\"; expected a map with keys of these: story, start, end, "
            "show-log, device, service, network, steps, expect");
  EXPECT_EQ(
      mistakeWith("stpes: 1\n"),
      "story.yaml:4:1: \"stpes\" is not a key of a scenario; expected one of: story, start, end, show-log, device, "
      "service, network, steps, expect");
}

TEST(ScenarioReader, RefusesABadFrame) {
  EXPECT_EQ(mistakeWith("start: yesterday\n"),
            "story.yaml:4:8: start is \"yesterday\"; expected a date like 2024-03-01T09:00:00Z");
  EXPECT_EQ(mistakeWith("end: soon\n"),
            "story.yaml:4:6: end is \"soon\"; expected a time like 500ms, 10s, 1.5s or 1d 2h");
  EXPECT_EQ(mistakeWith("show-log: 7\n"), "story.yaml:4:11: show-log is \"7\"; expected a whole number from 0 to 6");
  EXPECT_EQ(mistakeIn("story: s\nend: 5s\nsteps: [{at: 10s, do: active}]\nexpect: {delivered: a/b}\n"),
            "story.yaml:2:6: end is 5s, before the last step; expected 10s or later");
}

TEST(ScenarioReader, ChecksTheDeviceAsTheProgramDoes) {
  EXPECT_EQ(
      mistakeWith("device:\n  idfa: mine\n"),
      "story.yaml:5:9: --idfa: \"mine\" is not a UUID; write one like 6d92078a-8246-4ba4-ae5b-76104861e7dc, or none");
  EXPECT_EQ(mistakeWith("device:\n  orientation: 9\n"), "story.yaml:5:16: --orientation: Value 9 not in range 1 to 4");
  EXPECT_EQ(mistakeWith("device:\n  app-key: a b\n"),
            "story.yaml:5:12: --app-key holds a character that cannot stand in a URL; set it to the key that the "
            "service gave this app, made of letters, digits, '-', '.', '_' and '~'.");
  EXPECT_EQ(mistakeWith("device:\n  store: there\n"),
            "story.yaml:5:3: \"store\" is not a key of \"device\"; expected one of: app-key, hash-key, tracking-key, "
            "system-version, idfa, puid, orientation, search-ads, no-multitasking, no-sending, iad, module, log-level");
  EXPECT_EQ(mistakeWith("device:\n  no-multitasking: 1\n"),
            "story.yaml:5:20: no-multitasking is \"1\"; expected true or false");
}

TEST(ScenarioReader, TakesSearchAdsAsAMap) {
  const Scenario scenario = scenarioIn(
      "story: s\nsteps: [{do: active}]\nexpect: {delivered: a/b}\ndevice: {search-ads: {Version3.1: {iad: \"true\"}}}\n");
  std::optional<std::string> details;
  scenario.device.start.ad_client.requestAttributionDetails(
      [&](std::optional<std::string> got, const std::optional<std::string>&) { details = std::move(got); });
  EXPECT_EQ(details, R"({"Version3.1":{"iad":"true"}})");
}

TEST(ScenarioReader, RefusesBadSteps) {
  EXPECT_EQ(mistakeInStep("  - at: 10s\n"), "story.yaml:4:5: a step does nothing; expected \"do\", \"expect\" or both");
  EXPECT_EQ(mistakeInStep("  - at: 10s\n    after: 1s\n    do: active\n"),
            "story.yaml:5:5: \"after\" cannot be combined with \"at\"; expected one of them");
  EXPECT_EQ(mistakeInStep("  - at: 10s\n    do: active\n  - at: 9s\n    do: background\n"),
            "story.yaml:6:9: the step is at 9s, before the one above; expected 10s or later");
  EXPECT_EQ(mistakeInStep("  - at: never\n    do: active\n"),
            "story.yaml:4:9: at is \"never\"; expected a time like 500ms, 10s, 1.5s or 1d 2h");
  EXPECT_EQ(mistakeInStep("  - at: 3650d\n    do: active\n  - after: 1s\n    do: background\n"),
            "story.yaml:6:12: the step is too late; expected at most 3650d");
  EXPECT_EQ(mistakeInStep("  - do:\n"), "story.yaml:4:5: do is nothing; expected at least one");
  EXPECT_EQ(mistakeInStep("  - do: active\n    when: 10s\n"),
            "story.yaml:5:5: \"when\" is not a key of a step; expected one of: at, after, repeat, every, do, expect");
}

TEST(ScenarioReader, BoundsRepetitions) {
  EXPECT_EQ(mistakeInStep("  - do: active\n    every: 1s\n"),
            "story.yaml:5:5: \"every\" has no place here; expected \"repeat\" with it");
  EXPECT_EQ(mistakeInStep("  - do: active\n    repeat: 0\n"),
            "story.yaml:5:13: repeat is \"0\"; expected a whole number from 1 to 100000");
  EXPECT_EQ(mistakeInStep("  - do: active\n    repeat: 3\n    every: 3000d\n"),
            "story.yaml:6:5: the last round is too late; expected at most 3650d");
  EXPECT_EQ(mistakeInStep("  - do: [active, background]\n    repeat: 50000\n"), "no mistake");
  EXPECT_EQ(mistakeInStep("  - do: [active, background]\n    repeat: 50000\n  - do: active\n"),
            "story.yaml:6:5: too many verbs; expected at most 100000");
}

TEST(ScenarioReader, BoundsTheNumberOfSteps) {
  std::string steps;
  for (size_t i = 0; i < kMaxSteps; ++i)
    steps += "  - do: active\n";
  EXPECT_EQ(mistakeInStep(steps), "no mistake");
  EXPECT_EQ(mistakeInStep(steps + "  - do: active\n"), "story.yaml:4:3: 10001 steps; expected at most 10000");
}

TEST(ScenarioReader, RefusesBadVerbs) {
  EXPECT_EQ(mistakeInStep("  - do: event shop\n"),
            "story.yaml:4:9: event: an argument is missing; write: event GROUP NAME [PARAM]");
  EXPECT_EQ(mistakeInStep("  - do:\n      - active\n      - [background]\n"),
            "story.yaml:6:9: a verb is a list; expected a text");
  EXPECT_EQ(mistakeInStep("  - do: \"\"\n"),
            "story.yaml:4:9: a verb is one line with a command; expected one like \"event shop purchase\"");
  EXPECT_EQ(mistakeInStep("  - do: \"active\\nbackground\"\n"),
            "story.yaml:4:9: a verb is one line with a command; expected one like \"event shop purchase\"");
  EXPECT_EQ(mistakeInStep("  - do: wait 5\n"),
            "story.yaml:4:9: \"wait\" is not available in scenarios; expected a step with a later time");
  EXPECT_EQ(mistakeInStep("  - do: store\n"),
            "story.yaml:4:9: \"store\" is not available in scenarios; expected \"store\" under \"expect\"");
  EXPECT_EQ(mistakeInStep("  - do: ledger\n"),
            "story.yaml:4:9: \"ledger\" is not available in scenarios; expected \"ledger\" under \"expect\"");
  EXPECT_EQ(mistakeInStep("  - do: crash-signal SIGSEGV\n"),
            "story.yaml:4:9: \"crash-signal\" is not available in scenarios; expected \"crash TEXT\" or \"kill\"");
  EXPECT_EQ(mistakeInStep("  - do: activ\n").rfind("story.yaml:4:9: \"activ\" is not a verb; use one of: active,", 0),
            0u);
}

TEST(ScenarioReader, ReadsTheNetwork) {
  const Scenario scenario = scenarioIn(R"(story: s
steps: [{do: active}]
expect: {delivered: a/b}
network:
  - {is: offline, to: 10s}
  - {is: dead, from: 10s, to: 20s}
  - {is: portal, from: 1m, page: {}}
)");
  ASSERT_EQ(scenario.network.size(), 3u);
  EXPECT_EQ(scenario.network[0].from_milliseconds, 0);
  EXPECT_EQ(scenario.network[0].to_milliseconds, 10'000);
  EXPECT_EQ(scenario.network[1].kind, NetworkPhase::Kind::kDead);
  EXPECT_EQ(scenario.network[2].text, "{}");
  EXPECT_EQ(scenario.network[2].to_milliseconds, kMaxDurationMilliseconds);
}

TEST(ScenarioReader, RefusesABadNetwork) {
  EXPECT_EQ(mistakeWith("network:\n  - is: slow\n"),
            "story.yaml:5:9: \"is\" cannot be \"slow\"; expected offline, dead or portal");
  EXPECT_EQ(mistakeWith("network:\n  - from: 1s\n"),
            "story.yaml:5:5: a phase of the network does not say what it is about; expected is");
  EXPECT_EQ(mistakeWith("network:\n  - {is: offline, to: 10s}\n  - {is: dead, from: 9s}\n"),
            "story.yaml:6:16: the phase begins before the one above is over; expected 10s or later");
  EXPECT_EQ(mistakeWith("network:\n  - {is: offline, from: 10s, to: 10s}\n"),
            "story.yaml:5:30: the phase ends when it begins, or before; expected a time later than 10s");
  EXPECT_EQ(mistakeWith("network:\n  - {is: offline, page: html}\n"),
            "story.yaml:5:19: \"page\" has no place here; expected it for a portal only");
  EXPECT_EQ(mistakeWith("network: offline\n"), "story.yaml:4:10: network is \"offline\"; expected a list");
  std::string phases = "network:\n";
  for (size_t i = 0; i <= kMaxPhases; ++i)
    phases += "  - {is: dead, from: " + std::to_string(2 * i) + "s, to: " + std::to_string(2 * i + 1) + "s}\n";
  EXPECT_EQ(mistakeWith(phases), "story.yaml:5:3: 1001 phases of the network; expected at most 1000");
}

TEST(ScenarioReader, ReadsTheService) {
  const Scenario scenario = scenarioIn(R"(story: s
steps: [{do: active}]
expect: {delivered: a/b}
service:
  delay: 1s
  clock: -1h
  attribution: {referralKey: 9}
  premium-postback: true
  schedule: {spaces: []}
  answers:
    tracking:
      - {usual: {BaseTime: 1}, twice: true, delay: 0s..5s}
      - {status: 500, times: 3, chance: 50%}
      - {status: 404, text: gone}
      - {drop: before}
      - {drop: after}
      - {silence: true, counted: true, always: true}
    erasure: {json: {ok: true}}
)");
  const ServiceScript& service = scenario.service;
  EXPECT_EQ(service.clock_ahead_milliseconds, -3'600'000);
  EXPECT_EQ(service.attribution, json(R"({"referralKey":9})"));
  EXPECT_TRUE(service.premium_postback);
  EXPECT_EQ(service.schedule, json(R"({"spaces":[]})"));
  const auto& rules = service.rules[static_cast<size_t>(ServiceEndpoint::kTracking)];
  ASSERT_EQ(rules.size(), 6u);
  EXPECT_EQ(rules[0].kind, AnswerRule::Kind::kUsual);
  EXPECT_TRUE(rules[0].counted);
  EXPECT_TRUE(rules[0].twice);
  EXPECT_EQ(rules[0].delay, (TimeRange{0, 5'000}));
  EXPECT_EQ(rules[1].status, 500);
  EXPECT_EQ(rules[1].times, 3u);
  EXPECT_EQ(rules[1].chance, 0.5);
  EXPECT_FALSE(rules[1].counted);
  EXPECT_EQ(rules[1].delay, (TimeRange{1'000, 1'000}));
  EXPECT_EQ(rules[2].text, "gone");
  EXPECT_EQ(rules[3].kind, AnswerRule::Kind::kDropBefore);
  EXPECT_FALSE(rules[3].counted);
  EXPECT_EQ(rules[4].kind, AnswerRule::Kind::kDropAfter);
  EXPECT_TRUE(rules[4].counted);
  EXPECT_EQ(rules[5].kind, AnswerRule::Kind::kSilence);
  EXPECT_TRUE(rules[5].counted);
  EXPECT_TRUE(rules[5].always);
  EXPECT_EQ(service.rules[static_cast<size_t>(ServiceEndpoint::kErasure)].at(0).text, R"({"ok":true})");
}

TEST(ScenarioReader, RefusesABadService) {
  EXPECT_EQ(mistakeWith("service: {clock: now}\n"),
            "story.yaml:4:18: clock is \"now\"; expected a time like 500ms, 10s, 1.5s or 1d 2h, with a sign");
  EXPECT_EQ(mistakeWith("service: {attribution: 7}\n"), "story.yaml:4:24: attribution is \"7\"; expected a map");
  EXPECT_EQ(mistakeWith("service:\n  answers:\n    trakcing: {status: 500}\n"),
            "story.yaml:6:5: \"trakcing\" is not a key of \"answers\"; expected one of: conversion, "
            "thirdparty-conversion, iad-attribution, tracking, reengagement-conversion, commerce-conversion, "
            "configuration, crash, demographics, schedule, erasure");
}

TEST(ScenarioReader, RefusesBadAnswers) {
  EXPECT_EQ(mistakeInRule("{times: 2}\n"),
            "story.yaml:6:15: an answer does not say what it is about; expected one of: usual, json, text, drop, "
            "silence");
  EXPECT_EQ(
      mistakeInRule("{json: {}, text: x}\n"),
      "story.yaml:6:26: \"text\" cannot be combined with \"json\" in an answer; expected only one of: usual, json, "
      "text, drop, silence");
  EXPECT_EQ(mistakeInRule("{status: 600}\n"),
            "story.yaml:6:24: status is \"600\"; expected a whole number from 200 to 599");
  EXPECT_EQ(mistakeInRule("{drop: sometimes}\n"),
            "story.yaml:6:22: drop is \"sometimes\"; expected before or after (the service has the request)");
  EXPECT_EQ(mistakeInRule("{drop: before, counted: true}\n"),
            "story.yaml:6:30: \"counted\" has no place here; the service never has the request; expected \"drop: "
            "after\"");
  EXPECT_EQ(mistakeInRule("{silence: false}\n"), "story.yaml:6:25: silence is false; expected true, or another answer");
  EXPECT_EQ(mistakeInRule("{silence: true, delay: 1s}\n"),
            "story.yaml:6:31: \"delay\" has no place here; expected neither with \"silence\"");
  EXPECT_EQ(mistakeInRule("{usual: {}, status: 500}\n"),
            "story.yaml:6:27: \"status\" has no place here; expected \"json\" or \"text\" with a status");
  EXPECT_EQ(mistakeInRule("{usual: 7}\n"), "story.yaml:6:23: usual is \"7\"; expected a map");
  EXPECT_EQ(mistakeInRule("{status: 500, times: 2, always: true}\n"),
            "story.yaml:6:39: \"always\" cannot be combined with \"times\"; expected one of them");
  EXPECT_EQ(mistakeInRule("[{status: 500, always: true}, {status: 501}]\n"),
            "story.yaml:6:45: the answer above is given always, so this one never is; expected it to be the last");
  std::string rules = "[";
  for (size_t i = 0; i <= kMaxRules; ++i)
    rules += "{drop: after},";
  EXPECT_NE(mistakeInRule(rules + "]\n").find("too many answers; expected at most 10000"), std::string::npos);
}

TEST(ScenarioReader, ReadsExpectations) {
  const Scenario scenario = scenarioIn(R"(story: s
steps: [{do: active}]
expect:
  - {request: tracking, count: 2..5, with: {a: 1}, when: 1s..2s}
  - {delivered: shop/purchase, count: 3.., param: x}
  - {callback: "didReceiveDeeplink:", count: ..2, with: [x], module: FendoLib}
  - {log: part}
  - {log-exactly: whole, count: 0}
  - {store: fendoActivityInfos, count: 1}
)");
  const auto& all = scenario.expectations;
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[0].endpoint, ServiceEndpoint::kTracking);
  EXPECT_EQ(all[0].count->least, 2u);
  EXPECT_EQ(all[0].count->most, 5u);
  EXPECT_EQ(all[0].when, (TimeRange{1'000, 2'000}));
  EXPECT_EQ(all[1].count->least, 3u);
  EXPECT_TRUE(all[1].count->includes(1'000'000));
  EXPECT_EQ(all[1].param, "x");
  EXPECT_TRUE(all[2].count->includes(0));
  EXPECT_FALSE(all[2].count->includes(3));
  EXPECT_EQ(all[2].module, "FendoLib");
  EXPECT_FALSE(all[3].whole_line);
  EXPECT_TRUE(all[4].whole_line);
  EXPECT_EQ(all[4].count->most, 0u);
}

TEST(ScenarioReader, RefusesBadExpectations) {
  EXPECT_EQ(mistakeInExpectation("  - {request: trakcing}\n"),
            "story.yaml:4:15: \"trakcing\" is not an endpoint; expected one of: conversion, thirdparty-conversion, "
            "iad-attribution, tracking, reengagement-conversion, commerce-conversion, configuration, crash, "
            "demographics, schedule, erasure");
  EXPECT_EQ(mistakeInExpectation("  - {delivered: purchase}\n"),
            "story.yaml:4:17: delivered is \"purchase\"; expected group and name of the event, like shop/purchase");
  EXPECT_EQ(mistakeInExpectation("  - {store: referralKey, is: 7}\n"),
            "story.yaml:4:13: \"referralKey\" is not a stored property; expected one of those that the verb \"store\" "
            "shows");
  EXPECT_EQ(mistakeInExpectation("  - {store: fendoActivityInfos}\n"),
            "story.yaml:4:5: nothing is said of the property; expected \"is\", \"count\" or \"with\"");
  EXPECT_EQ(mistakeInExpectation("  - {store: fendoActivityInfos, is: [], count: 0}\n"),
            "story.yaml:4:41: \"count\" has no place here; expected \"is\", or \"count\" of a list's elements");
  EXPECT_EQ(mistakeInExpectation("  - {ledger: wishes}\n"),
            "story.yaml:4:14: \"wishes\" is not a kind of record; expected one of: sound, activities, impressions, "
            "re-engagement clicks, commerce clicks, crash reports, demographics");
  EXPECT_EQ(mistakeInExpectation("  - {ledger: activities}\n"),
            "story.yaml:4:5: nothing is said of the kind; expected \"with\"");
  EXPECT_EQ(mistakeInExpectation("  - {ledger: sound, with: {recorded: 1}}\n"),
            "story.yaml:4:21: \"with\" has no place here; expected the name of a kind with it; a ledger is sound or "
            "not");
  EXPECT_EQ(mistakeInExpectation("  - {log: x, with: y}\n"),
            "story.yaml:4:14: \"with\" has no place here; expected with \"log\" only one of: count, when");
  EXPECT_EQ(
      mistakeInExpectation("  - {log: x, request: crash}\n"),
      "story.yaml:4:6: \"log\" cannot be combined with \"request\" in an expectation; expected only one of: request, "
      "delivered, callback, log, log-exactly, store, ledger");
  EXPECT_EQ(mistakeInExpectation("  - {log: \"\"}\n"), "story.yaml:4:11: the text is empty; expected what it is about");
  for (const char* count : {"many", "-1", "5..2", "..", "1..2..3", "99999999999999999999"}) {
    EXPECT_EQ(mistakeInExpectation("  - {log: x, count: " + std::string(count) + "}\n"),
              "story.yaml:4:21: count is \"" + std::string(count) +
                  "\"; expected a number like 2, or a range like 2..5, 2.. or ..5");
  }
  std::string many;
  for (size_t i = 0; i <= kMaxExpectations; ++i)
    many += "  - {log: x}\n";
  EXPECT_EQ(mistakeInExpectation(many), "story.yaml:1:1: 10001 expectations; expected at most 10000");
}

}  // namespace
}  // namespace morvik_device::scenario
