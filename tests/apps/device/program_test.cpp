#include "apps/device/program.h"

#include <gmock/gmock.h>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "apps/device/verbs.h"
#include "morvik/version.h"
#include "tests/support/captured_file.h"
#include "tests/support/environment_variable.h"
#include "tests/support/scratch_folder.h"

namespace morvik_device {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class Program : public ::testing::Test {
 protected:
  // A device without a reachable service.
  int run(const std::string& input, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--store",      folder_ / "store", "--service", service_,         "--app-key",
                                          "app",          "--hash-key",      "hash",      "--tracking-key", "tracking",
                                          "--search-ads", "absent"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runPlain(arguments, input);
  }

  int runPlain(const std::vector<std::string>& arguments, const std::string& input) {
    morvik::test::CapturedFile output;
    std::istringstream stream(input);
    std::ostringstream errors;
    const int status = runProgram(arguments, {stream, output.file(), errors});
    errors_ = errors.str();
    output_.clear();
    std::istringstream lines(output.text());
    for (std::string line; std::getline(lines, line);) {
      // Written whenever a connection fails, so before or after any verb's line, or never.
      if (line.find(R"({"callback":"didFailToDeliver:)") == std::string::npos)
        output_.push_back(line);
    }
    return status;
  }

  std::string service_ = "https://127.0.0.1:1/";
  const morvik::test::ScratchFolder scratch_;
  const std::filesystem::path folder_ = scratch_.path();
  std::vector<std::string> output_;
  std::string errors_;
};

TEST_F(Program, AnswersEachVerbWithALine) {
  EXPECT_EQ(run("active\nevent shop look\nsettle\nquit\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"active","ok":true})", R"({"verb":"event","ok":true})",
                                   R"({"verb":"settle","ok":true,"background_tasks":0,"retries":0})",
                                   R"({"verb":"quit","ok":true})"));
  EXPECT_EQ(errors_, "");
}

TEST_F(Program, EndsInOrderWithItsInput) {
  EXPECT_EQ(run("push\nwait 0.001\nclock 5\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"push","ok":true})", R"({"verb":"wait","ok":true})",
                                   R"({"verb":"clock","ok":true})"));
}

TEST_F(Program, KeepsWhatItRecordedForTheNextRun) {
  EXPECT_EQ(run("event shop look one\nimpression {\"campaignKey\":7,\"createdAt\":\"2024-05-01T12:00:00Z\"}\n"), 0);
  EXPECT_EQ(run("store fendoImpressionInfos\nstore fendoActivityInfos\n"), 0);
  ASSERT_EQ(output_.size(), 2u);
  EXPECT_EQ(
      output_[0],
      R"({"verb":"store","ok":true,"values":{"fendoImpressionInfos":[{"campaignKey":7,"createdAt":"2024-05-01T12:00:00Z"}]}})");
  EXPECT_THAT(output_[1], HasSubstr(R"("activityParam":"one")"));
}

TEST_F(Program, TellsHowAFlushEndedAndSwitchesSending) {
  EXPECT_EQ(run("event shop look\nflush 1\nsending off\nflush\nsending on\n"), 0);
  ASSERT_EQ(output_.size(), 5u);
  EXPECT_EQ(output_[1], R"({"verb":"flush","ok":false,"error":"the install is not attributed","waiting":1})");
  EXPECT_EQ(output_[2], R"({"verb":"sending","ok":true})");
  EXPECT_EQ(output_[3], R"({"verb":"flush","ok":false,"error":"sending is off","waiting":1})");
}

TEST_F(Program, WaitsForADeliveryOutsideOfTheMainQueue) {
  EXPECT_EQ(run("event shop look\nwait-delivered 1\nsending off\nwait-delivered\n"), 0);
  ASSERT_EQ(output_.size(), 4u);
  EXPECT_EQ(output_[1], R"({"verb":"wait-delivered","ok":false,"error":"the install is not attributed","waiting":1})");
  EXPECT_EQ(output_[3], R"({"verb":"wait-delivered","ok":false,"error":"sending is off","waiting":1})");
}

TEST_F(Program, StartsWithSendingOffWhenToldSo) {
  EXPECT_EQ(run("event shop look\nflush\nsending on\nflush 1\n", {"--no-sending"}), 0);
  ASSERT_EQ(output_.size(), 4u);
  EXPECT_EQ(output_[1], R"({"verb":"flush","ok":false,"error":"sending is off","waiting":1})");
  EXPECT_EQ(output_[3], R"({"verb":"flush","ok":false,"error":"the install is not attributed","waiting":1})");
}

TEST_F(Program, KeepsWhatItCouldNotDeliverBeforeItsEnd) {
  EXPECT_EQ(run("event shop look\nquit 0.1\nevent shop never\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"event","ok":true})", R"({"verb":"quit","ok":true})"));
  EXPECT_EQ(run("ledger\n"), 0);
  EXPECT_THAT(output_, ElementsAre(HasSubstr(R"({"kind":"activities","recorded":1,"delivered":0,"stored":1,)")));
}

TEST_F(Program, TakesFromTheEnvironmentWhatItIsAllowedTo) {
  const std::filesystem::path log = folder_ / "log";
  morvik::test::EnvironmentVariable file("MORVIK_LOG_FILE");
  morvik::test::EnvironmentVariable level("MORVIK_LOG_LEVEL");
  file.set(log.string());
  level.set("4");
  EXPECT_EQ(run("push\n"), 0);
  EXPECT_FALSE(std::filesystem::exists(log));
  EXPECT_EQ(run("push\n", {"--allow-environment"}), 0);
  EXPECT_TRUE(std::filesystem::exists(log));
}

TEST_F(Program, ErasesWhatItRecordedAndEnds) {
  EXPECT_EQ(run("event shop look\nerase\nevent shop never\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"event","ok":true})", R"({"verb":"erase","ok":true})"));
  EXPECT_EQ(run("store fendoActivityInfos\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"store","ok":true,"values":{}})"));
}

TEST_F(Program, RefusesAVerbAndGoesOn) {
  EXPECT_EQ(run("impression 7\nstore nothing\npush\n"), 0);
  ASSERT_EQ(output_.size(), 3u);
  EXPECT_THAT(output_[0], StartsWith(R"({"verb":"impression","ok":false,"error":"an impression record is a JSON)"));
  EXPECT_EQ(
      output_[1],
      R"({"verb":"store","ok":false,"error":"\"nothing\" is not a stored property; \"store\" alone shows them all"})");
  EXPECT_EQ(output_[2], R"({"verb":"push","ok":true})");
}

TEST_F(Program, EndsAtABadLineOfItsInput) {
  EXPECT_EQ(run("push\njump\npush\n"), 2);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"push","ok":true})"));
  EXPECT_THAT(errors_, StartsWith("morvik-device: standard input, line 2: \"jump\" is not a verb; use one of: "));
}

TEST_F(Program, ChecksAScriptBeforeItTouchesTheStore) {
  const std::filesystem::path script = folder_ / "script";
  std::ofstream(script) << "push\njump\n";
  EXPECT_EQ(run("", {"--script", script}), 2);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_THAT(errors_, HasSubstr("script, line 2: \"jump\" is not a verb"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "store"));
  std::ofstream(script) << "push\n";
  EXPECT_EQ(run("jump\n", {"--script", script}), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"push","ok":true})"));
}

TEST_F(Program, SaysInItsOwnWordsWhatTheHostRefuses) {
  service_ = "http://service.example/";
  EXPECT_EQ(run("push\n"), 2);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_THAT(errors_, StartsWith("morvik-device: --service: "));
  service_ = "https://127.0.0.1:1/";
  EXPECT_EQ(run("push\n", {"--endpoint", "kNone=https://a.example/"}), 2);
  EXPECT_THAT(errors_, StartsWith("morvik-device: --endpoint: there is no endpoint kNone; there are "));
}

TEST_F(Program, OpensAUrlAndTellsOfTheModulesCalls) {
  EXPECT_EQ(run("open-url app://open?ck=12&mrvk_eng=1\n", {"--module", "FendoLib=1.0"}), 0);
  EXPECT_THAT(output_,
              ElementsAre(R"({"callback":"resetRetainedConversionCache:","module":"FendoLib","args":[{"ck":"12",)"
                          R"("mrvk_eng":"1"}]})",
                          R"({"verb":"open-url","ok":true})"));
}

TEST_F(Program, HandlesAStoredUrlAtTheNextSessionStart) {
  EXPECT_EQ(run("store-url app://open?ck=12\n"), 0);
  EXPECT_EQ(run("active\nstore com.morvik.reengagement.passopenurl\n", {"--module", "FendoLib"}), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"callback":"resetRetainedConversionCache:","module":"FendoLib",)"
                                   R"("args":[{"ck":"12"}]})",
                                   R"({"verb":"active","ok":true})", R"({"verb":"store","ok":true,"values":{}})"));
}

TEST_F(Program, SetsWhatOtherComponentsWouldStore) {
  EXPECT_EQ(run("set commerceExpansionInfos [{}]\nset fendoUserInfo_referralKey \"7\"\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"set","ok":true})",
                                   R"({"verb":"set","ok":false,"error":"fendoUserInfo_referralKey needs a whole )"
                                   R"(number of 64 bits, or null"})"));
  EXPECT_EQ(run("active\nset commerceExpansionInfos null\nstore commerceExpansionInfos\n", {"--module", "Fendo"}), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"callback":"saveCommerceEventAndSend","module":"Fendo","args":[]})",
                                   R"({"verb":"active","ok":true})", R"({"verb":"set","ok":true})",
                                   R"({"verb":"store","ok":true,"values":{}})"));
}

TEST_F(Program, KeepsTheWishToBeForgottenAlsoWithoutANetwork) {
  EXPECT_EQ(run("is-forgotten\noffline\nforget-me true\nis-forgotten\nevent shop look\nonline\n"), 0);
  EXPECT_THAT(output_,
              ElementsAre(R"({"verb":"is-forgotten","ok":true,"value":false})", R"({"verb":"offline","ok":true})",
                          R"({"verb":"forget-me","ok":true})", R"({"verb":"is-forgotten","ok":true,"value":true})",
                          R"({"verb":"event","ok":false,"error":"refused: the user asked to be forgotten"})",
                          R"({"callback":"didRefuseEvent:","args":["refused: the user asked to be forgotten"]})",
                          R"({"verb":"online","ok":true})"));
  EXPECT_EQ(run("is-forgotten\nstore MorvikCoreUserInfo_isGDPRForgetMeServerSynced\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"is-forgotten","ok":true,"value":true})",
                                   R"({"verb":"store","ok":true,"values":)"
                                   R"({"MorvikCoreUserInfo_isGDPRForgetMeServerSynced":false}})"));
}

TEST_F(Program, TellsHowTheKitStands) {
  EXPECT_EQ(run("event shop look\nage 27\nstatus\n"), 0);
  ASSERT_EQ(output_.size(), 3U);
  EXPECT_EQ(output_[2],
            R"({"verb":"status","ok":true,"running":true,"session_open":false,"attributed":false,"referral":null,)"
            R"("waiting":{"activities":1,"impressions":0,"re-engagement clicks":0,"commerce clicks":0,)"
            R"("crash reports":0,"demographics":1},"last_success":null,"last_failure":null,"sending":true,)"
            R"("forgotten":false,"wish_file":"good"})");
}

TEST_F(Program, StoresWhatItIsToldOfTheUser) {
  EXPECT_EQ(run("age 27\ngender 2\nuser-id \"user 7\"\n"), 0);
  EXPECT_EQ(run("store fendoUserDemoInfo_age fendoUserDemoInfo_gender fendoUserDemoInfo_userId\n"), 0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"store","ok":true,"values":{"fendoUserDemoInfo_age":27,)"
                                   R"("fendoUserDemoInfo_gender":2,"fendoUserDemoInfo_userId":"user 7"}})"));
}

TEST_F(Program, EachSubcommandShowsItsOwnHelpOnly) {
  EXPECT_EQ(runPlain({"--help"}, ""), 0);
  for (const char* name : {"  run ", "  simulate ", "  fleet ", "  inspect ", "  verbs ", "  completion "})
    EXPECT_THAT(output_, Contains(StartsWith(name)));
  EXPECT_THAT(output_, Not(Contains(HasSubstr("--system-version"))));
  EXPECT_EQ(runPlain({"run", "--help"}, ""), 0);
  EXPECT_THAT(output_, Contains(HasSubstr("--system-version")));
  EXPECT_THAT(output_, Not(Contains(HasSubstr("--days"))));
  EXPECT_EQ(runPlain({"fleet", "--help"}, ""), 0);
  EXPECT_THAT(output_, Contains("Usage: morvik-device fleet [OPTIONS]"));
  EXPECT_THAT(output_, Contains(HasSubstr("--days")));
  EXPECT_THAT(output_, Not(Contains(HasSubstr("--system-version"))));
  EXPECT_THAT(output_, Not(Contains(HasSubstr("--fleet"))));
  EXPECT_EQ(errors_, "");
}

TEST_F(Program, RunIsMeantWithoutASubcommand) {
  EXPECT_EQ(runPlain({"--store", "s", "--help"}, ""), 0);
  EXPECT_THAT(output_, Contains("Usage: morvik-device run [OPTIONS]"));
  EXPECT_EQ(runPlain({}, ""), 2);
  EXPECT_EQ(errors_,
            "morvik-device: --store is required; give the folder for the device's data, which is created if missing; "
            "see morvik-device run --help\n");
  EXPECT_EQ(runPlain({"run", "--store", folder_ / "store", "--service", service_, "--app-key", "a", "--hash-key", "h",
                      "--tracking-key", "t"},
                     "push\n"),
            0);
  EXPECT_THAT(output_, ElementsAre(R"({"verb":"push","ok":true})"));
}

TEST_F(Program, SuggestsTheSubcommandThatWasMeant) {
  EXPECT_EQ(runPlain({"fleeet"}, ""), 2);
  EXPECT_EQ(errors_,
            "morvik-device: there is no subcommand \"fleeet\"; did you mean fleet? See morvik-device --help\n");
  EXPECT_EQ(runPlain({"party"}, ""), 2);
  EXPECT_EQ(errors_,
            "morvik-device: there is no subcommand \"party\"; use one of: run, simulate, fleet, inspect, verbs, "
            "completion; see morvik-device --help\n");
  EXPECT_EQ(runPlain({"simulate", "--sed", "7"}, ""), 2);
  EXPECT_THAT(errors_, HasSubstr("did you mean --seed? See morvik-device simulate --help"));
}

TEST_F(Program, ListsTheVerbsAndExplainsOne) {
  EXPECT_EQ(runPlain({"verbs"}, ""), 0);
  EXPECT_THAT(output_, Contains(StartsWith("  event GROUP NAME [PARAM] ")));
  EXPECT_THAT(output_, Contains(StartsWith("  quit [SECONDS] ")));
  EXPECT_EQ(runPlain({"verbs", "age"}, ""), 0);
  EXPECT_THAT(output_, ElementsAre(StartsWith("  age N ")));
  EXPECT_EQ(runPlain({"verbs", "aeg"}, ""), 2);
  EXPECT_THAT(errors_, StartsWith("morvik-device: VERB: aeg not in {active,"));
}

TEST_F(Program, BreaksTheListOfVerbsInItsHelp) {
  EXPECT_EQ(runPlain({"verbs", "--help"}, ""), 0);
  std::string text;
  for (const std::string& line : output_) {
    EXPECT_LE(line.size(), 120u) << line;
    text += line.substr(std::min(line.size(), line.find_first_not_of(' ')));
  }
  EXPECT_THAT(text, HasSubstr("VERB active|background|event|"));
  for (const Verb& verb : verbs())
    EXPECT_THAT(text, HasSubstr(std::string(verb.name)));
}

TEST_F(Program, TellsItsVersionWithAnySubcommand) {
  const std::string version = "morvik-device " + std::string(morvik::kVersion);
  EXPECT_EQ(runPlain({"--version"}, ""), 0);
  EXPECT_THAT(output_, ElementsAre(version));
  EXPECT_EQ(runPlain({"fleet", "--version"}, ""), 0);
  EXPECT_THAT(output_, ElementsAre(version));
}

TEST_F(Program, TellsNoLedgerOfAUserWhoAskedToBeForgotten) {
  EXPECT_EQ(run("forget-me true\nage 27\n", {"--report-ledger"}), 0);
  EXPECT_EQ(errors_, "") << "it did not even try: nothing listens there";
  EXPECT_EQ(run("age 28\n", {"--report-ledger"}), 0);
  EXPECT_EQ(errors_, "");
}

TEST_F(Program, TellsNoLedgerWhileSendingIsOff) {
  EXPECT_EQ(run("sending off\nevent shop look\n", {"--report-ledger"}), 0);
  EXPECT_EQ(errors_, "");
}

TEST_F(Program, GoesOnWhenItsLedgerCannotBeToldAndSaysSoOnce) {
  EXPECT_EQ(run("event shop look\nevent shop look\n", {"--report-ledger"}), 0);
  EXPECT_EQ(output_.size(), 2u);
  EXPECT_THAT(errors_, StartsWith("morvik-device: the ledger could not be reported to "
                                  "https://127.0.0.1:1/inspect/ledger: "));
  EXPECT_EQ(std::count(errors_.begin(), errors_.end(), '\n'), 1) << errors_;
}

}  // namespace
}  // namespace morvik_device
