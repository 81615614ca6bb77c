#include "proofs/run/newer_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "simulation/virtual_flusher.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"

namespace morvik::proofs {
namespace {

class NewerProgram : public ::testing::Test {
 protected:
  std::unique_ptr<host::SqliteStore> open() {
    return std::make_unique<host::SqliteStore>(
        host::SqliteStoreOptions{.place = disk_.place(), .make_flusher = simulation::flushesOn(loop_)}, log_);
  }
  void die(std::unique_ptr<host::SqliteStore> store) {
    disk_.cutNow();
    store.reset();
    disk_.restart(simulation::DiskCut::killed());
  }

  ::morvik::testing::VirtualLoop loop_;
  simulation::SimulatedDisk disk_;
  ::morvik::testing::RecordingLog log_;
};

TEST_F(NewerProgram, LeavesAStoreThatThisOneDoesNotKnowAndTakesItBackWithAllThatItHeld) {
  auto store = open();
  store->set("age", 33);
  store->synchronize();  // in the log alone
  die(std::move(store));
  const uint64_t changes = disk_.changes();
  ASSERT_TRUE(useWithNewerProgram(disk_, kNewerStoreVersion));
  const auto left = storeFilesOn(disk_);
  store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kNewerVersion);
  EXPECT_TRUE(store->get("age").isAbsent());
  store->set("age", 34);
  EXPECT_FALSE(store->synchronize());
  store.reset();
  EXPECT_EQ(storeFilesOn(disk_), left);
  ASSERT_TRUE(useWithNewerProgram(disk_, host::kStoreVersion));
  EXPECT_EQ(disk_.changes(), changes) << "nobody counts what it does";
  store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(store->get("age"), kit::Value(33));
}

TEST_F(NewerProgram, WhatItLeavesIsOnTheDisk) {
  auto store = open();
  store->set("age", 33);
  store->synchronize();
  die(std::move(store));
  ASSERT_TRUE(useWithNewerProgram(disk_, kNewerStoreVersion));
  disk_.cutNow();
  disk_.restart(simulation::DiskCut::powerLost(simulation::PowerLoss::kNothingUnsynced, 1));
  EXPECT_EQ(open()->opening(), runtime::StoreOpening::kNewerVersion);
}

TEST_F(NewerProgram, CannotUseWhatIsNoStore) {
  disk_.put(disk_.place().path(), "no store at all, but long enough to be looked at");
  const auto before = storeFilesOn(disk_);
  EXPECT_FALSE(useWithNewerProgram(disk_, kNewerStoreVersion));
  EXPECT_EQ(storeFilesOn(disk_), before);
}

}  // namespace
}  // namespace morvik::proofs
