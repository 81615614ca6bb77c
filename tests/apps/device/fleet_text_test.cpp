#include "apps/device/fleet_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace morvik_device {
namespace {

using morvik::simulation::FleetOptions;
using morvik::simulation::FleetResult;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

FleetResult balanced() {
  FleetResult result;
  result.totals = {.recorded = 1'234, .delivered = 1'230, .stored = 3, .given_up_by_rule = 1};
  result.counts = {.days = 14, .sessions = 1};
  result.installs = 2;
  return result;
}

TEST(FleetText, TellsAnAccountThatBalances) {
  const std::string text = describe(FleetOptions{.devices = 2, .days = 7, .seed = 5}, balanced());
  EXPECT_THAT(text, HasSubstr("fleet      2 devices, 7 days each, seed 5\nsimulated  14 device-days, 1 session, "));
  EXPECT_THAT(text, HasSubstr("account    1,234 recorded = 1,230 delivered + 3 still stored + 1 given up by rule\n"));
  EXPECT_THAT(text, EndsWith("\nbalances\n"));
  EXPECT_THAT(text, Not(HasSubstr("LEDGERS")));
}

TEST(FleetText, NamesWhatWasLost) {
  FleetResult result = balanced();
  result.totals.stored = 2;
  result.totals.lost = 1;
  result.losses = {"device 1 event 4 (seed 9)"};
  EXPECT_THAT(describe({}, result), EndsWith("LOST       device 1 event 4 (seed 9)\nDOES NOT BALANCE: 1 lost\n"));
  EXPECT_THAT(describeAsJson({}, result), HasSubstr("\"lost\":1,"));
  EXPECT_THAT(describeAsJson({}, result), EndsWith("\"losses\":[\"device 1 event 4 (seed 9)\"],\"balances\":false}\n"));
}

TEST(FleetText, SaysThatTheLedgersOfDevicesWereWrong) {
  FleetResult result = balanced();
  result.totals.ledger_faults = 2;
  EXPECT_THAT(describe({}, result), EndsWith("LEDGERS    wrong 2 times\nDOES NOT BALANCE: 0 lost\n"));
  EXPECT_THAT(describeAsJson({}, result), HasSubstr("\"ledger_faults\":2,"));
  EXPECT_THAT(describeAsJson({}, result), EndsWith("\"balances\":false}\n"));
}

}  // namespace
}  // namespace morvik_device
