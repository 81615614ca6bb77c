// The real store on a disk that fails in rare ways.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_flusher.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"

namespace morvik::simulation {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class StoreOnADisk : public ::testing::Test {
 protected:
  void open() {
    store_ = std::make_unique<host::SqliteStore>(
        host::SqliteStoreOptions{.place = disk_.place(),
                                 .take_over = {.rows = {{"identifier", runtime::TakeOver::kFile},
                                                        {"under way", runtime::TakeOver::kProcessAlone},
                                                        {"left under way", runtime::TakeOver::kProcessAlone}}},
                                 .make_flusher = flushesOn(loop_)},
        log_);
  }
  void set(const char* name, kit::Value value) {
    store_->set(name, std::move(value));
    store_->synchronize();
  }
  void die(const DiskCut& cut) {
    disk_.cutNow();
    loop_.kill();
    store_.reset();
    disk_.restart(cut);
  }
  /// The next `count` reads fail.
  void failReads(int count) {
    disk_.decide([count](const DiskCall& call) mutable {
      return call.kind == DiskCall::Kind::kRead && count-- > 0 ? SQLITE_IOERR_READ : SQLITE_OK;
    });
  }
  /// The store's own thread opens the file again and adds what was written without it.
  void recover() {
    disk_.decide({});
    EXPECT_FALSE(store_->synchronize());
    loop_.advance(1);
    EXPECT_TRUE(store_->synchronize());
  }
  static DiskCut powerCut() { return DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1); }

  ::morvik::testing::VirtualLoop loop_;
  ::morvik::testing::RecordingLog log_;
  SimulatedDisk disk_;
  std::unique_ptr<host::SqliteStore> store_;
};

TEST_F(StoreOnADisk, SyncsWhatAKilledProcessLeftUnsyncedAlthoughNothingIsWrittenAnyMore) {
  open();
  set("age", 33);
  die(DiskCut::killed());
  open();
  loop_.advance(1);
  die(powerCut());
  open();
  EXPECT_EQ(store_->get("age"), kit::Value(33));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(StoreOnADisk, OpensOnADiskThatFailsForAMoment) {
  open();
  set("age", 33);
  store_->shutdown();
  failReads(1);
  open();
  EXPECT_EQ(store_->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(store_->get("age"), kit::Value(33));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(StoreOnADisk, KeepsFileAndLogTogetherWhenOneOfThemCannotBeSetAside) {
  open();
  set("age", 33);
  die(DiskCut::killed());
  const std::string file = disk_.place().path();
  const std::string log = disk_.bytesOf(file + "-wal");
  disk_.decide([&file](const DiskCall& call) {
    if (call.kind == DiskCall::Kind::kRead && call.path == file)
      return SQLITE_CORRUPT;
    return call.kind == DiskCall::Kind::kRename && call.path == file ? SQLITE_IOERR : SQLITE_OK;
  });
  open();
  EXPECT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  EXPECT_EQ(disk_.bytesOf(file + "-wal"), log);
  die(DiskCut::killed());
  disk_.decide({});
  open();
  EXPECT_EQ(store_->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(store_->get("age"), kit::Value(33));
}

TEST_F(StoreOnADisk, KeepsTheListOfAFileThatRecoversLaterAlthoughOneWasBegunAndLetGoMeanwhile) {
  open();
  set("list", kit::Array{1, 2});
  set("name", "of the file");
  store_->shutdown();
  failReads(50);
  open();
  ASSERT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  set("list", kit::Array{3});
  set("list", {});
  set("name", {});
  recover();
  EXPECT_EQ(store_->get("list"), kit::Value(kit::Array{1, 2}));
  EXPECT_TRUE(store_->get("name").isAbsent()) << "it was rolled back";
}

TEST_F(StoreOnADisk, StaysTheSameDeviceWhenItsFileRecoversLater) {
  open();
  set("identifier", "first");
  set("age", 33);
  set("list", kit::Array{1, 2});
  set("under way", kit::Array{1, 2});
  store_->shutdown();
  failReads(50);
  open();
  ASSERT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  int taken_over = 0;
  store_->setWhenTakenOver([&taken_over] { ++taken_over; });
  set("identifier", "second");
  set("age", 34);
  set("list", kit::Array{3});
  set("under way", kit::Array{3});
  EXPECT_EQ(taken_over, 0);
  recover();
  EXPECT_EQ(taken_over, 1);
  EXPECT_EQ(store_->get("identifier"), kit::Value("first"));
  EXPECT_EQ(store_->get("age"), kit::Value(34));
  EXPECT_EQ(store_->get("list"), kit::Value(kit::Array{1, 2, 3}));
  EXPECT_EQ(store_->get("under way"), kit::Value(kit::Array{3}));
  store_->shutdown();
  open();
  EXPECT_EQ(store_->get("identifier"), kit::Value("first"));
  EXPECT_THAT(log_.lines(), SizeIs(2)) << "cannot be opened; can be written again";
}

TEST_F(StoreOnADisk, TakesNothingFromALateFileOfWhichTheProcessDecides) {
  open();
  set("left under way", kit::Array{1, 2});
  set("under way", kit::Array{1, 2});
  store_->shutdown();
  open();
  EXPECT_EQ(store_->get("left under way"), kit::Value(kit::Array{1, 2})) << "it is there from the start";
  store_->shutdown();
  failReads(50);
  open();
  ASSERT_EQ(store_->opening(), runtime::StoreOpening::kUnavailable);
  set("under way", kit::Array{3});
  set("under way", {});
  recover();
  EXPECT_TRUE(store_->get("left under way").isAbsent());
  EXPECT_TRUE(store_->get("under way").isAbsent());
  store_->shutdown();
  open();
  EXPECT_TRUE(store_->get("left under way").isAbsent());
  EXPECT_TRUE(store_->get("under way").isAbsent());
}

TEST_F(StoreOnADisk, TellsNobodyOfAStoreThatWasThereFromTheBeginning) {
  open();
  int taken_over = 0;
  store_->setWhenTakenOver([&taken_over] { ++taken_over; });
  set("age", 33);
  loop_.advance(1);
  store_->shutdown();
  EXPECT_EQ(taken_over, 0);
}

}  // namespace
}  // namespace morvik::simulation
