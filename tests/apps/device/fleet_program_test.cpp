#include "apps/device/fleet_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "apps/device/program.h"
#include "tests/support/captured_file.h"

namespace morvik_device {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class FleetProgram : public ::testing::Test {
 protected:
  int run(const std::vector<std::string>& arguments) {
    morvik::test::CapturedFile output;
    std::istringstream no_input;
    std::ostringstream errors;
    const int status = runProgram(arguments, {no_input, output.file(), errors});
    output_ = output.text();
    errors_ = errors.str();
    return status;
  }

  std::string output_;
  std::string errors_;
};

TEST_F(FleetProgram, RunsAndBalances) {
  EXPECT_EQ(run({"--fleet", "3", "--days", "2", "--seed", "5"}), 0);
  EXPECT_THAT(output_, HasSubstr("fleet      3 devices, 2 days each, seed 5\n"));
  EXPECT_THAT(output_, HasSubstr("\nbalances\n"));
  EXPECT_THAT(errors_, HasSubstr(" device-days per second\n"));
}

TEST_F(FleetProgram, UnderstandsTheOptionItHadBeforeItWasASubcommand) {
  ASSERT_EQ(run({"fleet", "--devices", "2", "--days", "2", "--seed", "5"}), 0);
  const std::string expected = output_;
  EXPECT_THAT(expected, HasSubstr("fleet      2 devices, 2 days each, seed 5\n"));
  for (const std::vector<std::string>& former : {std::vector<std::string>{"--fleet", "2", "--days", "2", "--seed", "5"},
                                                 {"--seed", "5", "--days", "2", "--fleet=2"},
                                                 {"--days=2", "--fleet", "2", "--seed=5"}}) {
    EXPECT_EQ(run(former), 0);
    EXPECT_EQ(output_, expected);
  }
  EXPECT_EQ(run({"fleet", "--devices", "2", "--fleet", "3"}), 2);
}

TEST_F(FleetProgram, PrintsTheSameForTheSameSeed) {
  ASSERT_EQ(run({"--fleet=4", "--days=3", "--seed=8", "--workers=1"}), 0);
  const std::string first = output_;
  ASSERT_EQ(run({"--fleet=4", "--days=3", "--seed=8", "--workers=2"}), 0);
  EXPECT_EQ(output_, first);
  ASSERT_EQ(run({"fleet", "--devices=4", "--days=3", "--seed=9"}), 0);
  EXPECT_NE(output_, first);
}

TEST_F(FleetProgram, GivesMachinesOneLineOfJson) {
  ASSERT_EQ(run({"fleet", "--devices", "1", "--days", "1", "--untroubled", "--json"}), 0);
  EXPECT_THAT(output_, HasSubstr("{\"devices\":1,\"days\":1,\"seed\":\"1\",\"device_days\":1,"));
  EXPECT_THAT(output_, HasSubstr("\"lost\":0,"));
  EXPECT_THAT(output_, HasSubstr("\"balances\":true}\n"));
}

TEST_F(FleetProgram, RefusesInvalidOptions) {
  EXPECT_EQ(run({"--fleet", "0"}), 2);
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_THAT(errors_, HasSubstr("morvik-device: --fleet: Value 0 not in range"));
  EXPECT_EQ(run({"fleet", "--devices", "0"}), 2);
  EXPECT_THAT(errors_, HasSubstr("morvik-device: --devices: Value 0 not in range"));
  EXPECT_EQ(run({"--fleet", "2", "--days", "many"}), 2);
  EXPECT_THAT(errors_, HasSubstr("--days"));
  EXPECT_EQ(run({"--fleet", "2", "--store", "somewhere"}), 2);
  EXPECT_THAT(errors_, HasSubstr("--store"));
}

TEST_F(FleetProgram, SaysWhenItsOutputCannotBeWritten) {
  std::FILE* full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::istringstream no_input;
  std::ostringstream errors;
  EXPECT_EQ(runProgram({"--fleet", "1", "--days", "1"}, {no_input, full, errors}), 1);
  std::fclose(full);
  EXPECT_THAT(errors.str(), HasSubstr("morvik-device: standard output cannot be written; keep its reader open\n"));
}

TEST_F(FleetProgram, TellsItsOptions) {
  EXPECT_EQ(run({"--fleet", "1", "--help"}), 0);
  EXPECT_THAT(output_, HasSubstr("--untroubled"));
}

}  // namespace
}  // namespace morvik_device
