#include "host/store/store_snapshot.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
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

void appendBigEndian(uint32_t number, std::string& out) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<char>(number >> static_cast<unsigned>(shift)));
}

/// A log of one page and one commit, with valid check sums.
std::string logOfOneCommit(uint32_t page, uint32_t pages_after_commit) {
  constexpr uint32_t kPageBytes = 1024;
  uint32_t first = 0;
  uint32_t second = 0;
  const auto add = [&](const std::string& bytes) {
    const auto number = [&bytes](size_t place) {
      uint32_t all = 0;
      for (size_t i = 0; i < 4; ++i)
        all = all << 8U | static_cast<uint8_t>(bytes[place + i]);
      return all;
    };
    for (size_t place = 0; place < bytes.size(); place += 8) {
      first += number(place) + second;
      second += number(place + 4) + first;
    }
  };
  std::string log;
  for (const uint32_t number : {0x377f0683U, 3007000U, kPageBytes, 0U, 17U, 18U})
    appendBigEndian(number, log);
  add(log);
  appendBigEndian(first, log);
  appendBigEndian(second, log);
  std::string place;
  appendBigEndian(page, place);
  appendBigEndian(pages_after_commit, place);
  const std::string content(kPageBytes, 'p');
  add(place);
  add(content);
  log += place;
  for (const uint32_t number : {17U, 18U, first, second})
    appendBigEndian(number, log);
  return log + content;
}

/// A flush of the owner would touch its files too.
constexpr std::chrono::hours kNeverByItself{24};

class StoreSnapshot : public ::testing::Test {
 protected:
  std::unique_ptr<SqliteStore> open() {
    return std::make_unique<SqliteStore>(
        SqliteStoreOptions{.place = {.folder = folder_.path()}, .flush_delay = kNeverByItself}, log_);
  }
  std::unique_ptr<SqliteStore> inspect() {
    return std::make_unique<SqliteStore>(SqliteStoreOptions{.place = {.folder = folder_.path()}, .read_only = true},
                                         log_);
  }
  /// The same, and nothing in the folder is touched by it.
  std::unique_ptr<SqliteStore> inspectWithoutATrace() {
    const auto before = stateOf(folder_.path());
    auto inspector = inspect();
    EXPECT_EQ(inspector->opening(), runtime::StoreOpening::kOpened) << inspector->openingLine();
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
  /// A process that dies at once, with this many elements committed, most of them only in the log.
  void liveAndBeKilled(int count) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const auto owner = open();
      append(*owner, count);
      owner->set("length", -1);  // never committed
      ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  std::string path() const { return folder_ / "morvik.store"; }
  std::string logPath() const { return path() + "-wal"; }
  StoreOutcome read() { return readStoreSnapshot({.folder = folder_.path()}, image_); }
  /// What the system's own engine reads from copies of file and log.
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
  // Everything in the file, as in a backup of a store.
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

// The log is written, written back and restarted all the time; each reading is one whole commit.
TEST_F(StoreSnapshot, IsOneCommitAlsoWhileTheOwnerCommitsWritesBackAndRestartsTheLog) {
  constexpr int kReadings = 12;
  constexpr int kRoundsAReading = 40;  // more would only make the log longer and the readings slower
  constexpr int kFillers = 12;
  const auto owner = open();
  append(*owner, 1);
  // A long file takes long to read, so that much happens meanwhile.
  owner->set("ballast", std::string(size_t{4} << 20, 'b'));
  owner->flushAndWait();
  // Reading and writing wait for each other, so that each reading begins in the middle of some rounds.
  std::atomic<int> readings{1};
  std::atomic<int64_t> rounds{0};
  std::thread busy([&] {
    const std::string padding(3000, 'p');
    for (int64_t round = 1; readings <= kReadings; ++round) {
      for (int now = readings; round > int64_t{now} * kRoundsAReading && now <= kReadings; now = readings)
        readings.wait(now);
      kit::MutableArray list(owner->get("list"));
      list.append(Value(padding + std::to_string(round)));
      if (list.size() > 50)
        list = kit::MutableArray();
      owner->set("length", static_cast<int64_t>(list.size()));
      owner->set("list", Value(std::move(list)));
      owner->set("first", round);
      for (int filler = 0; filler < kFillers; ++filler)
        owner->set("filler " + std::to_string(filler), padding + std::to_string(round));
      owner->set("last", round);
      owner->synchronize();
      if (round % 4 == 0)
        owner->flushNow();
      rounds = round;
      rounds.notify_one();
    }
  });
  int seen = 0;
  int64_t latest = 0;
  while (readings <= kReadings) {
    const int64_t middle = int64_t{readings} * kRoundsAReading - kRoundsAReading / 2;
    for (int64_t now = rounds; now < middle; now = rounds)
      rounds.wait(now);
    const auto inspector = inspect();
    ++readings;
    readings.notify_one();
    // A reader on a busy machine may be overtaken again and again, and then says so.
    if (inspector->opening() == runtime::StoreOpening::kNothingToRead) {
      EXPECT_NE(inspector->openingLine().find("changes it faster than it can be read"), std::string::npos)
          << inspector->openingLine();
      continue;
    }
    ++seen;
    EXPECT_EQ(inspector->get("first"), inspector->get("last"));
    EXPECT_EQ(inspector->get("length"), Value(static_cast<int64_t>(inspector->get("list").size())));
    for (int filler = 1; filler < kFillers; ++filler)
      EXPECT_EQ(inspector->get("filler " + std::to_string(filler)), inspector->get("filler 0"));
    EXPECT_GE(inspector->get("last").integer(), latest);
    latest = inspector->get("last").integer();
  }
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
    if (inspector->opening() != runtime::StoreOpening::kOpened)
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

TEST_F(StoreSnapshot, PutsAPageWhereItsFrameSays) {
  std::string image(4096, 'i');
  EXPECT_TRUE(playLog(logOfOneCommit(2, 3), image));
  EXPECT_EQ(image, std::string(1024, 'i') + std::string(1024, 'p') + std::string(1024, 'i'));
  // A page that the commit does not keep, and one that does not exist.
  for (const uint32_t page : {4U, 0U, 0xFFFFFFFFU}) {
    EXPECT_TRUE(playLog(logOfOneCommit(page, 3), image));
    EXPECT_EQ(image, std::string(1024, 'i') + std::string(1024, 'p') + std::string(1024, 'i')) << page;
  }
}

TEST_F(StoreSnapshot, RefusesALogThatNamesMorePagesThanAreRead) {
  std::string image(1024, 'i');
  EXPECT_FALSE(playLog(logOfOneCommit(1, kMaxSnapshotBytes / 1024 + 1), image));
  writeBytes(path(), image);
  writeBytes(logPath(), logOfOneCommit(1, 0xFFFFFFFFU));
  const StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "its log names more pages than are read");
}

TEST_F(StoreSnapshot, GivesUpOnALogThatIsRestartedAtEachLook) {
  writeBytes(path(), std::string(4096, 'i'));
  // A file of the system that reads differently each time.
  std::filesystem::create_symlink("/proc/sys/kernel/random/uuid", logPath());
  const StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "its owner changes it faster than it can be read; try again");
}

TEST_F(StoreSnapshot, SaysWhatTheSystemSays) {
  StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "No such file or directory");
  std::filesystem::create_directory(path());
  failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "it is not a file");
}

TEST_F(StoreSnapshot, APipeInTheStoresPlaceKeepsNobodyWaiting) {
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  const StoreOutcome failed = read();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->message, "it is not a file");
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
  EXPECT_EQ(inspector->opening(), runtime::StoreOpening::kNothingToRead);
  EXPECT_NE(inspector->openingLine().find("(it is empty)"), std::string::npos) << inspector->openingLine();
}

}  // namespace
}  // namespace morvik::host
