#include "proofs/run/flaky_disk.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "simulation/virtual_flusher.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"

namespace morvik::proofs {
namespace {

class FlakyDiskTest : public ::testing::Test {
 protected:
  void open() {
    disk_.processStarts(true);
    store_ = std::make_unique<host::SqliteStore>(
        host::SqliteStoreOptions{.place = disk_.disk.place(), .make_flusher = simulation::flushesOn(loop_)}, log_);
    disk_.processStarts(false);
  }
  bool write(int value) {
    store_->set("value", value);
    return store_->synchronize();
  }
  size_t failed(FlakyDiskFault fault) const { return disk_.failed()[static_cast<size_t>(fault)]; }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::RecordingLog log_;
  uint64_t changes_ = 0;
  FlakyDisk disk_{[this] { return loop_.monotonicSeconds(); }, [this](const simulation::DiskCall&) { ++changes_; }};
  std::unique_ptr<host::SqliteStore> store_;
};

TEST_F(FlakyDiskTest, FailsSoManyCallsAndThenUntilTheTimeIsOver) {
  open();
  EXPECT_TRUE(write(1));
  disk_.fail(FlakyDiskFault::kFull, 1, 0);
  EXPECT_FALSE(write(2));
  EXPECT_TRUE(write(3));
  EXPECT_EQ(failed(FlakyDiskFault::kFull), 1U);
  disk_.fail(FlakyDiskFault::kFull, 0, loop_.monotonicSeconds() + 60);
  EXPECT_FALSE(write(4));
  loop_.advance(61);
  EXPECT_TRUE(write(5));
  disk_.fail(FlakyDiskFault::kFull, 100, 0);
  disk_.recover();
  EXPECT_TRUE(write(6));
  EXPECT_GT(changes_, 0U);
}

TEST_F(FlakyDiskTest, FailsThePlannedCallsAloneAndCountsThoseThatCould) {
  open();
  EXPECT_TRUE(write(1));
  const uint64_t points = disk_.points()[static_cast<size_t>(FlakyDiskFault::kFull)];
  EXPECT_GT(points, 0U);
  disk_.plan({.fault = FlakyDiskFault::kFull, .first = points + 1, .calls = 1});
  EXPECT_FALSE(write(2));
  EXPECT_TRUE(write(3));
  EXPECT_EQ(failed(FlakyDiskFault::kFull), 1U);
  EXPECT_EQ(failed(FlakyDiskFault::kSyncError), 0U);
}

TEST_F(FlakyDiskTest, LeavesACallThatNothingMeetsToTheSabotage) {
  open();
  EXPECT_TRUE(write(1));
  disk_.answerBy([](const simulation::DiskCall&) { return simulation::SimulatedDisk::kDropped; });
  const std::string log = disk_.disk.bytesOf(disk_.disk.place().path() + "-wal");
  write(2);
  EXPECT_EQ(disk_.disk.bytesOf(disk_.disk.place().path() + "-wal"), log);
}

TEST_F(FlakyDiskTest, ForbidsToChangeTheStoresOwnFilesAlone) {
  open();
  EXPECT_TRUE(write(1));
  disk_.fail(FlakyDiskFault::kUnwritable, 0, loop_.monotonicSeconds() + 60);
  EXPECT_FALSE(write(2));
  EXPECT_GT(failed(FlakyDiskFault::kUnwritable), 0U);
  EXPECT_NE(disk_.unsyncedForAReasonSince(), std::nullopt);
  EXPECT_FALSE(disk_.disk.place().files->write("/disk/another", "its bytes"));
  EXPECT_TRUE(disk_.disk.place().files->rename(disk_.disk.place().path(), "/disk/elsewhere"));
  loop_.advance(61);
  write(3);
  loop_.advance(1);
  EXPECT_TRUE(write(4)) << "it was opened again meanwhile";
}

TEST_F(FlakyDiskTest, FailsReadsOfAStartAlone) {
  open();
  write(1);
  store_->shutdown();
  disk_.fail(FlakyDiskFault::kReadErrorAtStart, 50, 0);
  open();
  EXPECT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  EXPECT_TRUE(store_->get("value").isAbsent());
  write(2);
  loop_.advance(1);
  EXPECT_TRUE(write(3)) << "the start is over";
  EXPECT_GT(failed(FlakyDiskFault::kReadErrorAtStart), 0U);
}

TEST_F(FlakyDiskTest, ExcusesWhatIsUnsyncedAfterAFailedSyncOrADeathUntilTheNextSync) {
  open();
  for (const int value : {0, 1}) {  // a fresh file's first sync begins its log again
    write(value);
    loop_.advance(1);
  }
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), std::nullopt);
  const double written_at = loop_.monotonicSeconds();
  disk_.fail(FlakyDiskFault::kSyncError, 1, 0);
  write(2);
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), std::nullopt) << "it may still be synced in time";
  loop_.advance(1);
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), written_at);
  write(3);
  loop_.advance(1);
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), std::nullopt);
  const double last_written_at = loop_.monotonicSeconds();
  write(4);
  disk_.processDied();
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), last_written_at);
  disk_.powerWasLost();
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), std::nullopt);
  write(5);
  disk_.processDied();
  EXPECT_NE(disk_.unsyncedForAReasonSince(), std::nullopt);
  disk_.storeWasSynced();
  EXPECT_EQ(disk_.unsyncedForAReasonSince(), std::nullopt);
}

}  // namespace
}  // namespace morvik::proofs
