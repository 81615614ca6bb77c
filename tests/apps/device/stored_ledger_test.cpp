#include "apps/device/stored_ledger.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "apps/device/ledger_rows.h"
#include "services/json_writer.h"
#include "simulation/test_device.h"
#include "testing/memory_store.h"

namespace morvik_device {
namespace {

using namespace std::chrono_literals;
namespace kit = morvik::kit;
using kit::Dictionary;
using morvik::Ledger;
using morvik::testing::Answer;

std::string jsonOf(const Ledger& ledger) {
  std::string text;
  morvik::services::appendJsonDescription(kit::Value(rowsOf(ledger).asDictionary()), text);
  return text;
}

class StoredLedger : public ::testing::Test {
 protected:
  Ledger stored() { return storedLedger(device.machine().store); }
  void expectToSayWhatTheKitSays(const char* when) {
    device.settle();
    EXPECT_EQ(jsonOf(stored()), jsonOf(device.instance().ledger())) << when;
  }

  morvik::simulation::TestDevice device;
};

TEST_F(StoredLedger, SaysWhatTheKitSaysThatHasTheStoreOpen) {
  expectToSayWhatTheKitSays("before anything is recorded");
  device.open();
  device.kit().addActivity("shop", "look", std::nullopt);
  device.kit().setAge(30);
  expectToSayWhatTheKitSays("while a session runs");
  device.network().on("v1/tracking").then(Answer::json(Dictionary{{"Result", true}}).after(20));
  device.kit().pushTracking();
  expectToSayWhatTheKitSays("while a batch is under way");
  device.leave();
  device.open();
  device.kit().passOpenURL("app://x?mrvk_eng=1&ck=7");
  device.goOffline();
  device.kit().passOpenURL("app://x?mrvk_eng=1&ck=8");
  device.kit().passOpenURL("app://x?cid=shoe&ck=9");
  expectToSayWhatTheKitSays("after clicks, one of which failed");
  device.leave();
  expectToSayWhatTheKitSays("after the session");
  EXPECT_EQ(stored().of("commerce clicks").stored, 1u);
  EXPECT_EQ(stored().of("re-engagement clicks").stored, 1u);
  EXPECT_TRUE(stored().isSound());
}

TEST_F(StoredLedger, LeavesUnderWayWhatAKilledProcessWaitedFor) {
  device.open();
  device.network().on("v1/reengagement-conversion").then(Answer::json(Dictionary{{"Result", true}}).after(20));
  device.kit().passOpenURL("app://x?mrvk_eng=1&ck=7");
  device.settle();
  device.kill();
  EXPECT_EQ(stored().of("re-engagement clicks").under_way, 1u);
  EXPECT_TRUE(stored().isSound());
}

TEST_F(StoredLedger, CountsTheReportThatADyingProcessWrotePastTheBook) {
  device.open();
  device.crash("fendo broke");
  const Ledger::Account reports = stored().of("crash reports");
  EXPECT_EQ(reports.stored, 1u);
  EXPECT_EQ(reports.recorded, 1u);
  device.restart();
  expectToSayWhatTheKitSays("in the next process");
}

TEST(AStoredLedger, BeginsWithWhatIsStored) {
  morvik::testing::MemoryStore store;
  store.set("fendoActivityInfos", kit::Array{1, 2});
  EXPECT_EQ(storedLedger(store).of("activities").recorded, 2u);
  EXPECT_TRUE(storedLedger(store).isSound());
}

TEST(AStoredLedger, ContradictsAStoreThatLostOrGainedRecords) {
  const auto with = [](int recorded) {
    morvik::testing::MemoryStore store;
    store.set("host.ledger", Dictionary{{"impressions", Dictionary{{"recorded", recorded}}}});
    store.set("fendoImpressionInfos", kit::Array{1, 2});
    return storedLedger(store);
  };
  EXPECT_FALSE(with(1).balances());
  EXPECT_TRUE(with(2).balances());
  EXPECT_FALSE(with(3).balances());
}

}  // namespace
}  // namespace morvik_device
