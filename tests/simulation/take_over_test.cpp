// What becomes of each stored property when the file recovers late: each row of the table, on a real store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "runtime/machine/take_over_table.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/MorvikGVUserDefaults.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_flusher.h"
#include "simulation/virtual_machine.h"
#include "testing/recording_log.h"

namespace morvik::simulation {
namespace {

using kit::Array;
using kit::Value;
using runtime::TakeOver;

constexpr const char* kLaunches = "com.morvik.core.appLaunchCount";
constexpr const char* kReferralKey = services::property::fendoUserInfo_referralKey;

/// Two values of a property with that rule: the file's, and the one that the process sets in the meantime.
struct Sides {
  Value file;
  Value process;
};

Sides sidesOf(const runtime::TakeOverRow& row) {
  switch (row.rule) {
    case TakeOver::kJoin:
    case TakeOver::kUnite:
    case TakeOver::kProcessAlone:
      return {Array{1, 2}, Array{2, 3}};
    case TakeOver::kLater:
      return {kit::Date{2000}, kit::Date{1000}};
    case TakeOver::kConfirmed:
      return {false, true};
    case TakeOver::kAdd:
    case TakeOver::kRecord:
    case TakeOver::kFile:
    case TakeOver::kProcess:
      return {10, 20};
  }
  return {};
}

/// With a file that has a referral record. Repeated here, so that a changed rule fails the test.
Value expected(const runtime::TakeOverRow& row) {
  switch (row.rule) {
    case TakeOver::kProcess:
      return 20;
    case TakeOver::kProcessAlone:
      return Array{2, 3};
    case TakeOver::kFile:
    case TakeOver::kRecord:
      return 10;
    case TakeOver::kJoin:
      return Array{1, 2, 2, 3};
    case TakeOver::kUnite:
      return Array{1, 2, 3};
    case TakeOver::kAdd:
      return 30;
    case TakeOver::kLater:
      return kit::Date{2000};
    case TakeOver::kConfirmed:
      return false;
  }
  return {};
}

class TakeOverTableTest : public ::testing::Test {
 protected:
  void open() {
    store_ = std::make_unique<host::SqliteStore>(
        host::SqliteStoreOptions{
            .place = disk_.place(), .take_over = runtime::takeOverTable(), .make_flusher = flushesOn(loop_)},
        log_);
  }
  void leave(const std::string& name, const Value& value) {
    store_->set(name, value);
    store_->synchronize();
  }
  void openUnavailable() {
    store_->shutdown();
    disk_.decide(
        [](const DiskCall& call) { return call.kind == DiskCall::Kind::kRead ? SQLITE_IOERR_READ : SQLITE_OK; });
    open();
    ASSERT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  }
  void recover() {
    disk_.decide({});
    store_->set("anything", true);
    store_->flushAndWait();
    ASSERT_TRUE(store_->isKept());
  }
  void reopen() {
    store_->shutdown();
    open();
  }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::RecordingLog log_;
  SimulatedDisk disk_;
  std::unique_ptr<host::SqliteStore> store_;
};

TEST_F(TakeOverTableTest, HasEachStoredPropertyOnce) {
  std::multiset<std::string> names;
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    names.insert(row.name);
  for (const services::StoreProperty& property : services::storeProperties())
    EXPECT_EQ(names.count(property.name), 1U) << property.name << " needs a row with the rule that decides";
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

TEST_F(TakeOverTableTest, HasEachValueThatALifeLeavesInTheStore) {
  VirtualMachine machine({.disk = &disk_});
  auto phone = machine.start(simulatedApp());
  phone->applicationDidBecomeActive();
  phone->addActivity("shop", "look", std::nullopt);
  phone->setAge(30);
  phone->passOpenURL("app://open?cid=a");
  machine.loop.advance(5);
  const auto rows = runtime::takeOverTable().rows;
  for (const auto& [name, value] : phone->allStored()) {
    const auto has_row = [&name = name](const runtime::TakeOverRow& row) { return row.name == name; };
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), has_row)) << name << " needs a row with the rule that decides";
  }
  machine.kill(std::move(phone));
}

TEST_F(TakeOverTableTest, GivesEachPropertyTheRuleOfItsKind) {
  std::map<std::string, TakeOver> rules;
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    rules[row.name] = row.rule;
  for (const services::StoreProperty& property : services::storeProperties()) {
    const TakeOver rule = rules[property.name];
    const bool is_list_rule = rule == TakeOver::kJoin || rule == TakeOver::kUnite || rule == TakeOver::kProcessAlone;
    EXPECT_EQ(is_list_rule, property.type == services::PropertyType::kArray) << property.name;
    if (rule == TakeOver::kLater) {
      EXPECT_EQ(property.type, services::PropertyType::kDate) << property.name;
    }
  }
  EXPECT_EQ(rules[kLaunches], TakeOver::kAdd);
  EXPECT_EQ(rules[services::property::fendoUserInfo_fendoUserNo], TakeOver::kRecord);
  EXPECT_EQ(rules[kReferralKey], TakeOver::kRecord);
  EXPECT_EQ(rules[services::property::fendoUserInfo_last_app_launched_date], TakeOver::kLater);
  EXPECT_EQ(rules[services::property::MorvikCoreUserInfo_endSessoinDate], TakeOver::kLater);
  EXPECT_EQ(rules[std::string(runtime::kInstallIdKey)], TakeOver::kFile);
}

TEST_F(TakeOverTableTest, IsWhatBecomesOfThemWhereFileAndProcessDisagree) {
  open();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    leave(row.name, sidesOf(row).file);
  openUnavailable();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    leave(row.name, sidesOf(row).process);
  recover();
  for (int process = 0; process < 2; ++process) {
    for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
      EXPECT_EQ(store_->get(row.name), expected(row)) << row.name << " in process " << process;
    reopen();
  }
}

TEST_F(TakeOverTableTest, TakesWhatOneSideAloneHas) {
  open();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    leave(row.name, sidesOf(row).file);
  openUnavailable();
  recover();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows) {
    const Value kept = row.rule == TakeOver::kProcessAlone ? Value() : sidesOf(row).file;
    EXPECT_EQ(store_->get(row.name), kept) << row.name;
  }
}

TEST_F(TakeOverTableTest, TakesWhatTheProcessAloneHas) {
  open();
  leave("anything", 1);
  openUnavailable();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows)
    leave(row.name, sidesOf(row).process);
  recover();
  reopen();
  for (const runtime::TakeOverRow& row : runtime::takeOverTable().rows) {
    const Value kept = row.rule == TakeOver::kConfirmed ? Value(false) : sidesOf(row).process;
    EXPECT_EQ(store_->get(row.name), kept) << row.name;
  }
}

TEST_F(TakeOverTableTest, LeavesAWishAcceptedOnlyWhereTheFileSaysSoToo) {
  constexpr const char* kWish = services::property::MorvikCoreUserInfo_isGDPRForgetMe;
  constexpr const char* kSynced = services::property::MorvikCoreUserInfo_isGDPRForgetMeServerSynced;
  open();
  for (const bool was_wished : {false, true}) {
    for (const bool was_synced : {false, true}) {
      for (const Value& meanwhile : {Value(), Value(false), Value(true)}) {
        leave(kWish, was_wished);
        leave(kSynced, was_synced);
        openUnavailable();
        leave(kWish, true);
        if (!meanwhile.isAbsent())
          leave(kSynced, meanwhile);
        recover();
        reopen();
        EXPECT_EQ(store_->get(kWish), Value(true));
        EXPECT_EQ(store_->get(kSynced), Value(was_wished && was_synced && meanwhile != Value(false)))
            << was_wished << was_synced;
      }
    }
  }
}

TEST_F(TakeOverTableTest, LeavesTheProcessItsReferralRecordWhereTheFileHasNone) {
  open();
  leave(kReferralKey, -1);
  leave(services::property::fendoUserInfo_fendoUserNo, -1);
  openUnavailable();
  leave(kReferralKey, 7);
  leave(services::property::fendoUserInfo_fendoUserNo, 1001);
  recover();
  EXPECT_EQ(store_->get(kReferralKey), Value(7));
  EXPECT_EQ(store_->get(services::property::fendoUserInfo_fendoUserNo), Value(1001));
}

TEST_F(TakeOverTableTest, MixesNoTwoReferralRecords) {
  open();
  leave(kReferralKey, 7);
  openUnavailable();
  leave(kReferralKey, 8);
  leave(services::property::fendoUserInfo_refUSN, "of the other one");
  recover();
  reopen();
  EXPECT_EQ(store_->get(kReferralKey), Value(7));
  EXPECT_TRUE(store_->get(services::property::fendoUserInfo_refUSN).isAbsent());
}

TEST_F(TakeOverTableTest, TakesTheLaterDateOfEitherSide) {
  open();
  leave(services::property::MorvikCoreUserInfo_endSessoinDate, kit::Date{1000});
  openUnavailable();
  leave(services::property::MorvikCoreUserInfo_endSessoinDate, kit::Date{2000});
  recover();
  EXPECT_EQ(store_->get(services::property::MorvikCoreUserInfo_endSessoinDate), Value(kit::Date{2000}));
}

TEST_F(TakeOverTableTest, AddsCountsUpAsFarAsNumbersGo) {
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  open();
  leave(kLaunches, kMost);
  openUnavailable();
  leave(kLaunches, 1);
  recover();
  EXPECT_EQ(store_->get(kLaunches), Value(kMost));
}

}  // namespace
}  // namespace morvik::simulation
