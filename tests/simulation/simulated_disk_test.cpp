#include "simulation/simulated_disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/store/sqlite_store.h"
#include "host/store/store_files.h"
#include "simulation/virtual_flusher.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"

namespace morvik::simulation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SimulatedDiskTest : public ::testing::Test {
 protected:
  std::unique_ptr<host::SqliteStore> open() {
    return std::make_unique<host::SqliteStore>(
        host::SqliteStoreOptions{.place = disk_.place(), .make_flusher = flushesOn(loop_)}, log_);
  }
  /// The process dies in this way, and the next one opens the store.
  std::unique_ptr<host::SqliteStore> reopenAfter(std::unique_ptr<host::SqliteStore> store, const DiskCut& cut) {
    disk_.cutNow();
    loop_.kill();
    store.reset();
    disk_.restart(cut);
    return open();
  }
  std::string storePath() { return disk_.place().path(); }

  ::morvik::testing::VirtualLoop loop_;
  SimulatedDisk disk_;
  ::morvik::testing::RecordingLog log_;
};

TEST_F(SimulatedDiskTest, HoldsAStoreThatTheNextProcessFinds) {
  auto store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kCreated);
  store->set("age", 33);
  store->shutdown();
  store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(store->get("age"), kit::Value(33));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(SimulatedDiskTest, SyncsWhatWasWrittenBeforeASyncAndNotWhatIsWrittenWhileItLasts) {
  auto store = open();
  for (const int value : {0, 1}) {  // a new file's first sync starts its log again
    store->set("age", value);
    store->synchronize();
    loop_.advance(1);
  }
  store->set("age", 2);
  store->synchronize();
  bool is_first = true;
  disk_.decide([&](const DiskCall& call) {
    if (call.kind == DiskCall::Kind::kSync && std::exchange(is_first, false)) {
      store->set("age", 3);
      store->synchronize();
    }
    return SQLITE_OK;
  });
  loop_.advance(0.7);
  EXPECT_FALSE(is_first);
  disk_.decide({});
  store = reopenAfter(std::move(store), DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
  EXPECT_EQ(store->get("age"), kit::Value(2));
}

TEST_F(SimulatedDiskTest, CountsNoFileThatIsPutOrRemovedBetweenProcessesAsAChange) {
  disk_.put(storePath(), "bytes");
  EXPECT_EQ(disk_.bytesOf(storePath()), "bytes");
  disk_.remove(storePath());
  EXPECT_TRUE(disk_.paths().empty());
  EXPECT_EQ(disk_.changes(), 0U);
}

TEST_F(SimulatedDiskTest, LetsOneProcessAtATimeHaveTheStore) {
  const auto store = open();
  EXPECT_EQ(open()->opening(), runtime::StoreOpening::kLocked);
}

TEST_F(SimulatedDiskTest, KeepsWhatAKilledProcessWroteAndNoMore) {
  auto store = open();
  store->set("age", 33);
  store->synchronize();
  store->set("gender", 1);
  store = reopenAfter(std::move(store), DiskCut::killed());
  EXPECT_EQ(store->get("age"), kit::Value(33));
  EXPECT_TRUE(store->get("gender").isAbsent());
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
}

TEST_F(SimulatedDiskTest, LosesWithThePowerWhatWasNotSynced) {
  auto store = open();
  store->set("age", 33);
  store->synchronize();
  loop_.advance(1);
  store->set("age", 34);
  store->synchronize();
  store = reopenAfter(std::move(store), DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
  EXPECT_EQ(store->get("age"), kit::Value(33));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(SimulatedDiskTest, LosesWithThePowerTheNameOfAFileThatWasNeverSynced) {
  auto store = open();
  EXPECT_THAT(disk_.paths(), ElementsAre(storePath(), storePath() + "-wal"));
  disk_.cutNow();
  store.reset();
  disk_.restart(DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
  EXPECT_THAT(disk_.paths(), IsEmpty());
}

TEST_F(SimulatedDiskTest, NumbersEveryChangeAndIsCutOffBeforeTheOneNamed) {
  auto store = open();
  loop_.advance(1);
  const uint64_t before = disk_.changes();
  disk_.cutAt(before + 2);
  store->set("age", 33);
  store->synchronize();
  EXPECT_TRUE(disk_.isCut());
  EXPECT_EQ(disk_.changes(), before + 1);
  EXPECT_EQ(store->get("age"), kit::Value(33)) << "the process does not notice";
  store = reopenAfter(std::move(store), DiskCut::killed());
  EXPECT_TRUE(store->get("age").isAbsent()) << "half a commit does not count";
  EXPECT_FALSE(disk_.isCut());
}

TEST_F(SimulatedDiskTest, IsCutOffAtItsNumberInALaterProcessToo) {
  auto store = open();
  disk_.cutAt(disk_.changes() + 20);
  store = reopenAfter(std::move(store), DiskCut::killed());
  for (int i = 0; i < 20; ++i) {
    store->set("age", i);
    store->synchronize();
  }
  EXPECT_TRUE(disk_.isCut());
  store = reopenAfter(std::move(store), DiskCut::killed());
  store->set("age", 33);
  store->synchronize();
  EXPECT_FALSE(disk_.isCut()) << "once is enough";
}

TEST_F(SimulatedDiskTest, TearsTheWriteThatThePowerCutMeets) {
  std::set<std::string> left;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SimulatedDisk disk;
    ASSERT_FALSE(disk.place().files->makeFile("/disk/a").has_value());
    disk.cutAt(disk.changes() + 1);
    sqlite3_vfs* const vfs = sqlite3_vfs_find(disk.place().vfs.c_str());
    std::vector<char> room(static_cast<size_t>(vfs->szOsFile));
    auto* const file = reinterpret_cast<sqlite3_file*>(room.data());
    ASSERT_EQ(vfs->xOpen(vfs, "/disk/a", file, SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    const std::string bytes(1024, 'x');
    file->pMethods->xWrite(file, bytes.data(), 1024, 0);
    file->pMethods->xClose(file);
    disk.restart(DiskCut::powerLost(PowerLoss::kTorn, seed));
    left.insert(disk.bytesOf("/disk/a"));
  }
  EXPECT_THAT(left, ElementsAre("", std::string(512, '\0') + std::string(512, 'x'), std::string(512, 'x'),
                                std::string(1024, 'x')));
}

TEST_F(SimulatedDiskTest, FailsWhatItIsToldToAndChangesNothing) {
  auto store = open();
  loop_.advance(1);
  disk_.decide([](const DiskCall& call) { return call.kind == DiskCall::Kind::kWrite ? SQLITE_FULL : SQLITE_OK; });
  store->set("age", 33);
  EXPECT_FALSE(store->synchronize());
  disk_.decide({});
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(log_.lines().size(), 2U);
}

TEST_F(SimulatedDiskTest, DropsAWriteThatItSaysItMade) {
  auto store = open();
  loop_.advance(1);
  disk_.decide(
      [](const DiskCall& call) { return call.kind == DiskCall::Kind::kWrite ? SimulatedDisk::kDropped : SQLITE_OK; });
  store->set("age", 33);
  EXPECT_TRUE(store->synchronize());
  store = reopenAfter(std::move(store), DiskCut::killed());
  EXPECT_TRUE(store->get("age").isAbsent());
}

TEST_F(SimulatedDiskTest, GoesThroughTheSameChangesEveryTime) {
  const auto changesOf = [] {
    ::morvik::testing::VirtualLoop loop;
    ::morvik::testing::RecordingLog log;
    SimulatedDisk disk;
    std::string all;
    disk.decide([&all](const DiskCall& call) {
      all += std::string(call.path) + " " + std::to_string(static_cast<int>(call.kind)) + " " +
             std::to_string(call.offset) + " " + std::to_string(call.size) + "\n";
      return SQLITE_OK;
    });
    host::SqliteStore store({.place = disk.place(), .make_flusher = flushesOn(loop)}, log);
    for (int i = 0; i < 50; ++i) {
      store.set("list", kit::Value(kit::Array{i, "text", i * 2}));
      store.synchronize();
      loop.advance(0.2);
    }
    store.shutdown();
    return all;
  };
  EXPECT_EQ(changesOf(), changesOf());
}

}  // namespace
}  // namespace morvik::simulation
