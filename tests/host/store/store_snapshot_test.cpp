#include "host/store/store_snapshot.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "host/store/sqlite_store.h"
#include "testing/recording_log.h"
#include "tests/support/folder_state.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using kit::Value;
using test::bytesOf;
using test::stateOf;
using test::writeBytes;

class StoreSnapshot : public ::testing::Test {
 protected:
  std::unique_ptr<SqliteStore> open() {
    return std::make_unique<SqliteStore>(SqliteStoreOptions{.place = {.folder = folder_.path()}}, log_);
  }
  std::unique_ptr<SqliteStore> inspect() {
    return std::make_unique<SqliteStore>(SqliteStoreOptions{.place = {.folder = folder_.path()}, .read_only = true},
                                         log_);
  }
  /// The same, and nothing in the folder is touched by it.
  std::unique_ptr<SqliteStore> inspectWithoutATrace() {
    const auto before = stateOf(folder_.path());
    auto inspector = inspect();
    EXPECT_EQ(inspector->opening(), StoreOpening::kOpened) << inspector->openingLine();
    inspector->set("written by the inspector", 1);
    inspector->synchronize();
    EXPECT_EQ(stateOf(folder_.path()), before);
    return inspector;
  }
  static void append(SqliteStore& store, int count) {
    for (int i = 0; i < count; ++i) {
      kit::MutableArray list(store.get("list"));
      list.append("element " + std::to_string(list.size()));
      store.set("list", Value(std::move(list)));
      store.set("length", static_cast<int64_t>(store.get("list").size()));
      store.synchronize();
    }
  }
  /// A process that dies at once, with so many elements committed, most of them in the log alone.
  void liveAndBeKilled(int count) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const auto owner = open();
      append(*owner, count);
      owner->set("length", -1);  // is never committed
      ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  std::string path() const { return folder_ / "morvik.store"; }
  std::string logPath() const { return path() + "-wal"; }
  StoreOutcome read() { return readStoreSnapshot({.folder = folder_.path()}, image_); }
  /// What the system's own engine makes of file and log, on copies of both.
  int64_t lengthBySqlite() {
    const test::ScratchFolder copies;
    std::filesystem::copy(path(), copies / "copy");
    std::filesystem::copy(logPath(), copies / "copy-wal");
    sqlite3* handle = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open((copies / "copy").c_str(), &handle), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(handle, "SELECT count(*) FROM elements", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t length = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(handle);
    return length;
  }

  test::ScratchFolder folder_;
  testing::RecordingLog log_;
  std::string image_;
};

TEST_F(StoreSnapshot, ShowsWhatIsInTheLogAloneAndTouchesNoFile) {
  const auto owner = open();
  append(*owner, 100);
  const auto inspector = inspectWithoutATrace();
  EXPECT_EQ(inspector->get("list"), owner->get("list"));
  EXPECT_EQ(inspector->get("length"), Value(100));
}

TEST_F(StoreSnapshot, TouchesNoFileOfAStoreThatWasClosed) {
  auto owner = open();
  append(*owner, 10);
  owner.reset();
  EXPECT_EQ(inspectWithoutATrace()->get("length"), Value(10));
}

TEST_F(StoreSnapshot, MakesNoLogWhereThereIsNone) {
  auto owner = open();
  append(*owner, 10);
  owner.reset();
  // All of it into the file, as a backup of a store may be.
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(handle, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(handle);
  std::filesystem::remove(logPath());
  EXPECT_EQ(inspectWithoutATrace()->get("length"), Value(10));
  EXPECT_FALSE(std::filesystem::exists(logPath()));
}

TEST_F(StoreSnapshot, ShowsWhatAProcessLeftThatWasKilled) {
  liveAndBeKilled(30);
  const auto inspector = inspectWithoutATrace();
  EXPECT_EQ(inspector->get("length"), Value(30));
  EXPECT_EQ(inspector->get("list").size(), 30u);
}

// The log is written, written back and begun anew all the while; each reading is one commit, whole.
TEST_F(StoreSnapshot, IsOneCommitAlsoWhileTheOwnerCommitsWritesBackAndBeginsTheLogAnew) {
  constexpr int kReadings = 40;
  const auto owner = open();
  append(*owner, 1);
  std::atomic<bool> is_over{false};
  std::promise<void> begun;
  std::thread busy([&] {
    const std::string padding(3000, 'p');
    for (int64_t round = 1; !is_over; ++round) {
      kit::MutableArray list(owner->get("list"));
      list.append(Value(padding + std::to_string(round)));
      if (list.size() > 50)
        list = kit::MutableArray();
      owner->set("length", static_cast<int64_t>(list.size()));
      owner->set("list", Value(std::move(list)));
      owner->set("first", round);
      for (int filler = 0; filler < 20; ++filler)
        owner->set("filler " + std::to_string(filler), padding + std::to_string(round));
      owner->set("last", round);
      owner->synchronize();
      if (round == 1)
        begun.set_value();
      if (round % 20 == 0)
        owner->flushNow();
    }
  });
  begun.get_future().wait();
  int seen = 0;
  int64_t latest = 0;
  for (int reading = 0; reading < kReadings; ++reading) {
    const auto inspector = inspect();
    // A reader on a busy machine may be overtaken again and again, and then says so.
    if (inspector->opening() == StoreOpening::kNothingToRead) {
      EXPECT_NE(inspector->openingLine().find("changes it faster than it can be read"), std::string::npos)
          << inspector->openingLine();
      continue;
    }
    ++seen;
    EXPECT_EQ(inspector->get("first"), inspector->get("last"));
    EXPECT_EQ(inspector->get("length"), Value(static_cast<int64_t>(inspector->get("list").size())));
    for (int filler = 1; filler < 20; ++filler)
      EXPECT_EQ(inspector->get("filler " + std::to_string(filler)), inspector->get("filler 0"));
    EXPECT_GE(inspector->get("last").integer(), latest);
    latest = inspector->get("last").integer();
  }
  is_over = true;
  busy.join();
  EXPECT_GT(seen, kReadings / 2);
  EXPECT_GT(latest, 0);
}

TEST_F(StoreSnapshot, EndsWhereTheLogIsCutAsTheEngineItselfDoes) {
  liveAndBeKilled(40);
  const std::string whole = bytesOf(logPath());
  std::set<int64_t> lengths;
  for (size_t size = whole.size(); size > 40; size -= std::min(size, whole.size() / 23)) {
    writeBytes(logPath(), whole.substr(0, size));
    const auto inspector = inspect();
    if (inspector->opening() != StoreOpening::kOpened)
      continue;  // cut before the tables were made
    lengths.insert(lengthBySqlite());
    EXPECT_EQ(static_cast<int64_t>(inspector->get("list").size()), lengthBySqlite()) << size;
  }
  EXPECT_GT(lengths.size(), 10u);
}

TEST_F(StoreSnapshot, EndsWhereTheLogIsDamagedAsTheEngineItselfDoes) {
  liveAndBeKilled(40);
  const std::string whole = bytesOf(logPath());
  std::set<int64_t> lengths;
  for (size_t place = whole.size() / 2; place < whole.size(); place += 997) {
    std::string damaged = whole;
    damaged[place] = static_cast<char>(damaged[place] ^ 0x20);
    writeBytes(logPath(), damaged);
    lengths.insert(lengthBySqlite());
    EXPECT_EQ(static_cast<int64_t>(inspect()->get("list").size()), lengthBySqlite()) << place;
  }
  EXPECT_GT(lengths.size(), 5u);
}

TEST_F(StoreSnapshot, AnyBytesMayStandInTheLog) {
  const std::string image(2048, 'i');
  for (const std::string& log :
       {std::string(), std::string(31, '\0'), std::string(4096, '\0'), std::string(4096, '\x7f')}) {
    std::string played = image;
    EXPECT_TRUE(playLog(log, played));
    EXPECT_EQ(played, image);
  }
}

TEST_F(StoreSnapshot, SaysWhatTheSystemSays) {
  StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "No such file or directory");
  std::filesystem::create_directory(path());
  failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "it is no file");
}

TEST_F(StoreSnapshot, APipeInTheStoresPlaceKeepsNobodyWaiting) {
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  const StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "it is no file");
}

TEST_F(StoreSnapshot, RefusesAFileThatIsTooLong) {
  writeBytes(path(), "");
  std::filesystem::resize_file(path(), kMaxSnapshotBytes + 1);
  const StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "it has 1073741825 bytes, more than 1073741824 are not read");
}

TEST_F(StoreSnapshot, AnEmptyFileIsNoStore) {
  writeBytes(path(), "");
  const auto inspector = inspect();
  EXPECT_EQ(inspector->opening(), StoreOpening::kNothingToRead);
  EXPECT_NE(inspector->openingLine().find("(it is empty)"), std::string::npos) << inspector->openingLine();
}

}  // namespace
}  // namespace morvik::host
