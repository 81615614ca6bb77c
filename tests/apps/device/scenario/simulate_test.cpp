// Whole scenarios, as the program plays them.
#include "apps/device/scenario/simulate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "apps/device/options.h"
#include "apps/device/program.h"
#include "tests/support/captured_file.h"
#include "tests/support/environment_variable.h"
#include "tests/support/scratch_folder.h"

namespace morvik_device::scenario {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class Simulate : public ::testing::Test {
 protected:
  int run(std::vector<std::string> arguments) {
    morvik::test::CapturedFile output;
    std::istringstream no_input;
    std::ostringstream errors;
    const int status = runProgram(std::move(arguments), {no_input, output.file(), errors});
    output_ = output.text();
    errors_ = errors.str();
    return status;
  }
  int play(const std::string& yaml, const std::vector<std::string>& more = {}) {
    morvik::test::writeBytes(file_, yaml);
    std::vector<std::string> arguments = {"simulate", file_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run(arguments);
  }
  /// Expects the requests of the first session in the output, in this order.
  void expectInOrder(const std::vector<std::string>& parts) {
    size_t at = 0;
    for (const std::string& part : parts) {
      at = output_.find(part, at);
      ASSERT_NE(at, std::string::npos) << part << " is not behind the others in\n" << output_;
    }
  }

  morvik::test::ScratchFolder folder_;
  const std::string file_ = folder_ / "story.yaml";
  std::string output_;
  std::string errors_;
};

TEST_F(Simulate, TellsAStoryAndItsEnd) {
  EXPECT_EQ(play("story: A purchase\n"
                 "steps:\n"
                 "  - do: active\n"
                 "  - at: 10s\n"
                 "    do: [event shop purchase sku-42, background]\n"
                 "expect:\n"
                 "  - delivered: shop/purchase\n"
                 "    param: sku-42\n"),
            0);
  EXPECT_THAT(output_, StartsWith("A purchase\n" + file_ + ", from 2024-03-01T00:00:00Z, seed 1\n\n"));
  expectInOrder({"0:00:00.000  process   started\n", "0:00:00.000  app       active\n",
                 "0:00:00.000  session   begins\n", "0:00:00.000    ->      configuration\n",
                 "0:00:00.000    ->      conversion  ", "0:00:00.100    <-      conversion  200 ",
                 "0:00:00.100  callback  didSaveConversionKey:subReferralKey:  7  \"12\"\n",
                 "0:00:00.100    ->      tracking  2 events: session/start, session/retention\n",
                 "0:00:10.000  app       event shop purchase sku-42\n", "0:00:10.000  session   ends\n",
                 "0:00:10.500    ->      tracking  1 event: shop/purchase\n",
                 "0:01:10.000  expected  met: exactly 1 delivered shop/purchase with param \"sku-42\"\n",
                 "\nThe expectation is met.\n"});
  EXPECT_THAT(errors_, IsEmpty());
}

TEST_F(Simulate, NamesTheLineOfTheFirstExpectationThatIsNotMet) {
  EXPECT_EQ(play("story: s\n"
                 "steps: [{do: active}]\n"
                 "expect:\n"
                 "  - delivered: session/start\n"
                 "  - delivered: shop/purchase\n"
                 "  - delivered: shop/never-looked-at\n",
                 {"--seed", "5"}),
            kExitNotMet);
  EXPECT_THAT(output_, HasSubstr("met: exactly 1 delivered session/start"));
  EXPECT_THAT(output_, HasSubstr("\n" + file_ +
                                 ":5: this expectation is not met\n"
                                 "  expected  exactly 1 delivered shop/purchase\n"
                                 "  got       0 of 0 of this name fit, of 2 events\n"
                                 "  seed      5 (morvik-device simulate " +
                                 file_ + " --seed 5 plays it again)\n"));
  EXPECT_THAT(output_, Not(HasSubstr("never-looked-at")));
}

TEST_F(Simulate, LooksAtAnExpectationWhenItsStepComes) {
  EXPECT_EQ(play("story: s\n"
                 "steps:\n"
                 "  - do: active\n"
                 "    expect: {store: fendoUserInfo_referralKey, is: -1}\n"
                 "  - after: 1s\n"
                 "    expect: {store: fendoUserInfo_referralKey, is: 8}\n"
                 "  - after: 1s\n"
                 "    do: event never reached\n"),
            kExitNotMet);
  EXPECT_THAT(output_, HasSubstr(":6: this expectation is not met\n"));
  EXPECT_THAT(output_, HasSubstr("  got       it is 7 and not 8\n"));
  EXPECT_THAT(output_, Not(HasSubstr("never reached")));
}

const char* const kChancy =
    "story: s\n"
    "service:\n"
    "  delay: 0s..10s\n"
    "  answers:\n"
    "    tracking: {status: 500, chance: 50%, always: true}\n"
    "steps:\n"
    "  - do: active\n"
    "  - at: 1m\n"
    "    repeat: 20\n"
    "    every: 1m\n"
    "    do: [event a b, push]\n"
    "expect: {request: tracking}\n";

TEST_F(Simulate, GivesTheSameBytesForTheSameSeed) {
  for (const std::vector<std::string>& form : {std::vector<std::string>{}, {"--json"}}) {
    std::vector<std::string> seven = {"--seed", "7"};
    seven.insert(seven.end(), form.begin(), form.end());
    std::vector<std::string> eight = {"--seed", "8"};
    eight.insert(eight.end(), form.begin(), form.end());
    ASSERT_EQ(play(kChancy, seven), 0);
    const std::string first = output_;
    ASSERT_EQ(play(kChancy, seven), 0);
    EXPECT_EQ(output_, first);
    ASSERT_EQ(play(kChancy, eight), 0);
    EXPECT_NE(output_.substr(output_.find('\n', 100)), first.substr(first.find('\n', 100)));
  }
}

TEST_F(Simulate, LeavesSomeToChanceAndNotAll) {
  ASSERT_EQ(play(kChancy), 0);
  EXPECT_THAT(output_, HasSubstr("<-      tracking  500 {}"));
  EXPECT_THAT(output_, HasSubstr("<-      tracking  200 "));
}

TEST_F(Simulate, SpeaksJsonToMachines) {
  ASSERT_EQ(play("story: s\nsteps: [{do: active}]\nexpect: {delivered: session/start}\n", {"--json"}), 0);
  EXPECT_THAT(output_, StartsWith("{\"kind\":\"story\",\"story\":\"s\","));
  EXPECT_THAT(output_, HasSubstr("{\"at\":0,\"kind\":\"app\",\"verb\":\"active\"}\n"));
  EXPECT_THAT(output_, HasSubstr("{\"at\":0,\"kind\":\"session\",\"session\":\"begins\"}\n"));
  EXPECT_THAT(output_, HasSubstr("\"kind\":\"request\",\"endpoint\":\"tracking\",\"method\":\"POST\",\"received\":true,"
                                 "\"counted\":true,\"events_new\":2,\"events_again\":0,\"payload\":{"));
  EXPECT_THAT(output_, ::testing::EndsWith("{\"kind\":\"end\",\"met\":1,\"missed\":false,\"seed\":1}\n"));
}

TEST_F(Simulate, PlaysNothingOfAFileWithAMistake) {
  EXPECT_EQ(play("story: s\nsteps:\n  - do: active\n  - do: activ\nexpect: {delivered: a/b}\n"), kExitUsage);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_THAT(errors_, StartsWith(file_ + ":4:9: \"activ\" is not a verb; use one of: active, "));
}

TEST_F(Simulate, LetsNoMistakeSpeakToTheTerminal) {
  EXPECT_EQ(play("story: s\nsteps: [{do: \"\\e[2Jactive\"}]\nexpect: {delivered: a/b}\n"), kExitUsage);
  EXPECT_THAT(errors_, StartsWith(file_ + ":2:14: \"\\x1b[2Jactive\" is not a verb; "));
}

TEST_F(Simulate, RefusesWhatItCannotRead) {
  EXPECT_EQ(run({"--simulate", folder_ / "nowhere.yaml"}), kExitUsage);
  EXPECT_EQ(errors_,
            "morvik-device: cannot read " + (folder_ / "nowhere.yaml") + "; name a scenario that can be read\n");
  EXPECT_EQ(run({"--simulate", folder_.path()}), kExitUsage);
  EXPECT_EQ(play(std::string(2'000'000, '#')), kExitUsage);
  EXPECT_EQ(errors_, file_ + ":1:1: the file has more than 1048576 bytes; expected at most so many\n");
}

TEST_F(Simulate, RefusesOptionsThatAreNotItsOwn) {
  EXPECT_EQ(run({"--simulate", file_, "--store", "there"}), kExitUsage);
  EXPECT_THAT(errors_, HasSubstr("--store"));
  EXPECT_EQ(run({"--simulate", file_, "--seed", "many"}), kExitUsage);
  EXPECT_THAT(errors_, HasSubstr("--seed"));
  EXPECT_EQ(run({"--simulate", file_, "--help"}), 0);
  EXPECT_THAT(output_, HasSubstr("docs/scenarios.md"));
  EXPECT_EQ(run({"simulate", file_, "--simulate", file_}), kExitUsage);
  EXPECT_THAT(errors_, StartsWith("morvik-device: FILE excludes --simulate; name one scenario"));
  EXPECT_EQ(run({"simulate"}), kExitUsage);
  EXPECT_EQ(errors_, "morvik-device: FILE is required; name the scenario to play; see morvik-device simulate --help\n");
}

TEST_F(Simulate, UnderstandsTheOptionItHadBeforeItWasASubcommand) {
  ASSERT_EQ(play("story: s\nsteps: [{do: [active, event a one]}]\nexpect: {delivered: a/one}\n"), 0) << errors_;
  ASSERT_EQ(run({"simulate", file_, "--seed", "9"}), 0);
  const std::string expected = output_;
  EXPECT_NE(expected, "");
  for (const std::vector<std::string>& former :
       {std::vector<std::string>{"--simulate", file_, "--seed", "9"}, {"--seed=9", "--simulate=" + file_}}) {
    EXPECT_EQ(run(former), 0);
    EXPECT_EQ(output_, expected);
  }
}

TEST_F(Simulate, StartsTheNextProcessAfterAKillACrashAndAQuit) {
  ASSERT_EQ(play("story: s\n"
                 "steps:\n"
                 "  - do: [active, event a one, kill]\n"
                 "  - after: 1h\n"
                 "    do: [active, crash fendo-fell]\n"
                 "  - after: 1h\n"
                 "    do: [active, quit]\n"
                 "  - after: 1h\n"
                 "    do: active\n"
                 "expect:\n"
                 "  - delivered: a/one\n"
                 "  - request: crash\n"
                 "    with: [{exception_reason: fendo-fell}]\n"),
            0);
  expectInOrder({"process   started", "process   killed", "process   started", "process   crashed: fendo-fell",
                 "process   started", "process   stopped", "process   started"});
}

TEST_F(Simulate, StartsANewInstallAfterAnErase) {
  ASSERT_EQ(play("story: s\n"
                 "network: [{is: offline, from: 10s, to: 1m}]\n"
                 "steps:\n"
                 "  - do: active\n"
                 "  - at: 20s\n"
                 "    do: [event a gone, erase]\n"
                 "  - at: 2m\n"
                 "    do: [active, event a next, push]\n"
                 "expect:\n"
                 "  - delivered: a/next\n"
                 "  - delivered: a/gone\n"
                 "    count: 0\n"),
            0);
  expectInOrder({"process   started", "process   erased", "process   started"});
}

TEST_F(Simulate, NeverShowsAProcessThatIsGoneItsAnswer) {
  ASSERT_EQ(play("story: s\nservice: {delay: 5s}\n"
                 "steps: [{do: active}, {at: 1s, do: quit}, {at: 1m, expect: {request: conversion, count: 1}}]\n"),
            0);
  EXPECT_THAT(output_, Not(HasSubstr("<-")));
  ASSERT_EQ(play("story: s\nservice: {delay: 5s}\n"
                 "steps: [{do: active}, {at: 1s, do: kill}, {at: 1m, expect: {request: conversion, count: 1}}]\n"),
            0);
  EXPECT_THAT(output_, Not(HasSubstr("<-")));
}

TEST_F(Simulate, TellsOfTheNetworkAndWhatItDoes) {
  ASSERT_EQ(play("story: s\n"
                 "network:\n"
                 "  - {is: offline, from: 10s, to: 20s}\n"
                 "  - {is: dead, from: 20s, to: 50s}\n"
                 "  - {is: portal, from: 1m, to: 2m, page: hello}\n"
                 "steps:\n"
                 "  - do: active\n"
                 "  - at: 15s\n"
                 "    do: [event a b, push]\n"
                 "  - at: 25s\n"
                 "    do: push\n"
                 "  - at: 70s\n"
                 "    do: push\n"
                 "  - at: 3m\n"
                 "    do: push\n"
                 "expect: [{delivered: a/b}, {request: tracking, count: 4, with: {activity_info: [{activity: b}]}}]\n"),
            0);
  expectInOrder({"0:00:10.000  network   offline\n", "0:00:15.000    <-      tracking  the network is unreachable\n",
                 "0:00:20.000  network   dead: nothing answers\n", "0:00:25.000    ->      tracking  1 event: a/b\n",
                 "0:00:40.000    <-      tracking  no answer within 15s\n", "0:00:50.000  network   in good order\n",
                 "0:01:00.000  network   a captive portal answers\n", "0:01:10.000    <-      tracking  200 hello\n",
                 "0:02:00.000  network   in good order\n", "0:03:00.000    ->      tracking  1 event: a/b\n",
                 "0:03:00.100    <-      tracking  200 {\"BaseTime\""});
}

TEST_F(Simulate, ReportsAnAnswerThatComesTooLateAsNone) {
  ASSERT_EQ(play("story: s\nservice: {answers: {conversion: {usual: {}, delay: 20s}}}\n"
                 "steps: [{do: active}]\n"
                 "expect: {request: conversion, count: 2}\n"),
            0);
  EXPECT_THAT(output_, HasSubstr("0:00:15.000    <-      conversion  no answer within 15s\n"));
}

TEST_F(Simulate, CountsARequestThatArrivesTwiceOnce) {
  ASSERT_EQ(play("story: s\nservice: {answers: {tracking: {usual: {}, twice: true, always: true}}}\n"
                 "steps: [{do: active}]\n"
                 "expect: [{delivered: session/start}, {request: tracking, count: 1}]\n"),
            0);
}

TEST_F(Simulate, LaysMembersOverTheUsualAnswer) {
  ASSERT_EQ(
      play("story: s\nservice: {answers: {conversion: {usual: {Data: {referralKey: 9}}}}}\n"
           "steps: [{do: active}]\n"
           "expect: [{store: fendoUserInfo_referralKey, is: 9}, {store: fendoUserInfo_fendoUserNo, is: 100001}]\n"),
      0);
}

TEST_F(Simulate, TellsWhatARefusedVerbSays) {
  ASSERT_EQ(play("story: s\nsteps: [{do: [forget-me true, event a b]}]\nexpect: {delivered: a/b, count: 0}\n"), 0);
  EXPECT_THAT(output_, HasSubstr("app       refused: the user asked to be forgotten\n"));
}

TEST_F(Simulate, ShowsLogLinesUpToTheLevelThatIsWanted) {
  const std::string story =
      "steps: [{do: active}]\nservice: {answers: {conversion: {status: 500}}}\nexpect: {request: conversion}\n";
  ASSERT_EQ(play("story: s\n" + story), 0);
  EXPECT_THAT(output_, HasSubstr("log       MRVK_QA-Recieved an HTTP 500\n"));
  EXPECT_THAT(output_, Not(HasSubstr("MRVK_QA-conversion_JSON")));
  ASSERT_EQ(play("story: s\nshow-log: 0\n" + story), 0);
  EXPECT_THAT(output_, Not(HasSubstr("log       ")));
  ASSERT_EQ(play("story: s\nshow-log: 6\n" + story), 0);
  EXPECT_THAT(output_, HasSubstr("log       MRVK_QA-conversion_JSON"));
}

TEST_F(Simulate, IsColouredOnATerminalUnlessThatIsNotWanted) {
  morvik::test::writeBytes(file_, "story: s\nsteps: [{do: active}]\nexpect: {delivered: session/start}\n");
  const auto on_terminal = [this] {
    morvik::test::CapturedFile output;
    std::istringstream no_input;
    std::ostringstream errors;
    EXPECT_EQ(runProgram({"--simulate", file_}, {no_input, output.file(), errors, true, false}), 0);
    return output.text();
  };
  morvik::test::EnvironmentVariable no_color("NO_COLOR");
  no_color.unset();
  EXPECT_THAT(on_terminal(), HasSubstr("\033["));
  no_color.set("1");
  EXPECT_THAT(on_terminal(), Not(HasSubstr("\033[")));
}

TEST_F(Simulate, CutsWhatIsLongInItsTimeline) {
  ASSERT_EQ(play("story: s\nsteps: [{do: [active, event a " + std::string(1000, 'x') +
                 "]}]\nexpect: {delivered: session/start}\n"),
            0);
  EXPECT_THAT(output_, HasSubstr("app       event a " + std::string(192, 'x') + "…\n"));
}

TEST_F(Simulate, SaysWhenItsOutputCannotBeWritten) {
  morvik::test::writeBytes(file_, "story: s\nsteps: [{do: active}]\nexpect: {delivered: session/start}\n");
  std::FILE* full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::istringstream no_input;
  std::ostringstream errors;
  EXPECT_EQ(runProgram({"--simulate", file_}, {no_input, full, errors}), kExitNotMet);
  EXPECT_EQ(errors.str(), "morvik-device: standard output cannot be written; keep its reader open\n");
  std::fclose(full);
}

}  // namespace
}  // namespace morvik_device::scenario
