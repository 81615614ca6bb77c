#include "host/store/sqlite_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <initializer_list>
#include <iterator>
#include <latch>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/store/background_flusher.h"
#include "runtime/store/value_codec.h"
#include "testing/recording_log.h"
#include "tests/support/faulty_vfs.h"
#include "tests/support/key_value_store_contract.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::MutableArray;
using kit::Value;
using test::bytesOf;
using test::FaultyVfs;
using test::ScratchFolder;
using test::VfsCall;
using test::writeBytes;

/// Flush only when a test asks for it.
constexpr std::chrono::hours kNeverByItself{24};

SqliteStoreOptions optionsFor(const std::string& folder) {
  SqliteStoreOptions options;
  options.place.folder = folder;
  options.flush_delay = kNeverByItself;
  return options;
}

SqliteStoreOptions optionsFor(const std::string& folder, const FaultyVfs& vfs) {
  SqliteStoreOptions options = optionsFor(folder);
  options.place.vfs = vfs.name();
  return options;
}

void append(kit::KeyValueStore& store, const char* key, Value element) {
  MutableArray list(store.get(key));
  list.append(std::move(element));
  store.set(key, Value(std::move(list)));
}

Value numbers(int from, int to) {
  MutableArray all;
  for (int i = from; i < to; ++i)
    all.append(Dictionary{{"id", i}, {"text", "number " + std::to_string(i)}});
  return Value(std::move(all));
}

/// Nested one level deeper than a store takes.
Value tooDeep() {
  Value deep = 1;
  for (size_t i = 0; i <= runtime::kMaxStoredDepth; ++i)
    deep = Array{deep};
  return deep;
}

/// Flushes when a test says so, on its thread, and uses a clock of the test.
class FlusherOnDemand final : public StoreFlusher {
 public:
  using Moment = std::chrono::steady_clock::time_point;
  explicit FlusherOnDemand(Flush run, const Moment* now = nullptr) : run_(std::move(run)), now_(now) {}
  void flush(Urgency urgency) { run_(urgency); }
  void flushSoon() override {}
  void flushNow(Urgency) override {}
  void flushAndWait(Urgency urgency) override {
    if (!stopped_)
      run_(urgency);
  }
  Moment now() const override { return now_ == nullptr ? Moment() : *now_; }
  void stop() override { stopped_ = true; }

 private:
  const Flush run_;
  const Moment* const now_;
  bool stopped_ = false;
};

/// A store in its own folder, with ways to inspect and damage its file.
class SqliteStoreTest : public ::testing::Test {
 protected:
  std::unique_ptr<SqliteStore> open() { return std::make_unique<SqliteStore>(optionsFor(folder_.path()), log_); }
  std::unique_ptr<SqliteStore> openOn(const FaultyVfs& vfs) {
    return std::make_unique<SqliteStore>(optionsFor(folder_.path(), vfs), log_);
  }
  std::string path() const { return folder_ / "morvik.store"; }

  void sql(const std::string& text) { run(text, false); }
  /// Like the kit: what is written stays in the log.
  void sqlLeavingTheLog(const std::string& text) { run(text, true); }
  void run(const std::string& text, bool leaves_the_log) {
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, leaves_the_log ? 1 : 0, nullptr);
    EXPECT_EQ(sqlite3_exec(handle, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    sqlite3_close(handle);
  }
  int64_t ask(const std::string& text) {
    sqlite3* handle = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(handle, text.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t number = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(handle);
    return number;
  }
  /// A store that was closed with this many records in its list.
  void leaveStore(int count) {
    const auto store = open();
    store->set("list", numbers(0, count));
    store->set("text", "kept");
    store->flushAndWait();
  }
  /// What turns out unreadable in a commit is given up by it, and replaced on the store's own thread.
  static void commitIntoAFreshFile(SqliteStore& store) {
    EXPECT_FALSE(store.synchronize());
    store.flushAndWait();
    EXPECT_TRUE(store.isKept());
  }
  /// What another process would find if this one died now.
  Value inTheFile(const char* key) {
    SqliteStoreOptions options = optionsFor(folder_.path());
    options.read_only = true;
    testing::RecordingLog unused;
    return SqliteStore(options, unused).get(key);
  }
  void forbidToWriteByTheHeader() {
    constexpr off_t kWriteVersion = 18;
    const int file = ::open(path().c_str(), O_WRONLY);
    ASSERT_EQ(::pwrite(file, "\xFD", 1, kWriteVersion), 1);
    ::close(file);
  }
  /// Moves everything into the file itself, so that a test can damage it there.
  void emptyTheLog() { sql("PRAGMA wal_checkpoint(TRUNCATE)"); }

  ScratchFolder folder_;
  testing::RecordingLog log_;
};

// ------------------------------------------------------------------------------------------------------------ contract

/// The process dies: the next one finds what is in the kernel's hands at that moment.
class SqliteHarness {
 public:
  kit::KeyValueStore& store() { return *store_; }
  void killAndRestart() {
    const std::string next = folder_ / std::to_string(++lives_);
    std::filesystem::create_directory(next);
    for (const char* name : {"morvik.store", "morvik.store-wal"})
      std::filesystem::copy_file(current_ + "/" + name, next + "/" + name);
    current_ = next;
    store_ = std::make_unique<SqliteStore>(optionsFor(current_), log_);
  }

 private:
  ScratchFolder folder_;
  testing::RecordingLog log_;
  int lives_ = 0;
  std::string current_ = folder_ / "0";
  std::unique_ptr<SqliteStore> store_ = std::make_unique<SqliteStore>(optionsFor(current_), log_);
};

}  // namespace
}  // namespace morvik::host

namespace morvik::test {
INSTANTIATE_TYPED_TEST_SUITE_P(SqliteStore, KeyValueStoreContract, host::SqliteHarness);
}

namespace morvik::host {
namespace {

// ------------------------------------------------------------------------------------------------------------- opening

TEST_F(SqliteStoreTest, AFreshStoreIsMadeForItsOwnerAlone) {
  const std::string place = folder_ / "deep/store";
  SqliteStore store(optionsFor(place), log_);
  EXPECT_EQ(store.opening(), runtime::StoreOpening::kCreated);
  EXPECT_EQ(store.openingLine(), "");
  store.set("key", 1);
  store.synchronize();
  for (const auto& entry : std::filesystem::directory_iterator(place)) {
    struct stat found {};
    ASSERT_EQ(::stat(entry.path().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777u, 0600u) << entry.path();
  }
  struct stat found {};
  ASSERT_EQ(::stat(place.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777u, 0700u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SqliteStoreTest, ASecondStartFindsEverythingAndSaysNothing) {
  leaveStore(300);
  const auto store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(store->get("list"), numbers(0, 300));
  EXPECT_EQ(store->get("text"), Value("kept"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SqliteStoreTest, AllShowsWhatIsThereInTheOrderOfItsNames) {
  const auto store = open();
  store->set("b", 2);
  store->set("a", 1);
  store->set("gone", 3);
  store->set("gone", Value());
  EXPECT_EQ(store->all(), (std::vector<std::pair<std::string, Value>>{{"a", 1}, {"b", 2}}));
}

TEST_F(SqliteStoreTest, ASecondStoreIsToldWithoutALogLineAndLivesInMemory) {
  leaveStore(3);
  const auto first = open();
  {
    testing::RecordingLog log;
    SqliteStore second(optionsFor(folder_.path()), log);
    EXPECT_EQ(second.opening(), runtime::StoreOpening::kLocked);
    EXPECT_EQ(second.openingLine(),
              "the store in \"" + folder_.path() +
                  "\" is in use by another kit of this process: stop that one first (one that was "
                  "stopped while a callback or the disk kept it busy has the store until that is "
                  "over), or give this one a folder of its own");
    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(second.get("list").isAbsent());
    second.set("list", Array{1});
    second.synchronize();
    EXPECT_EQ(second.get("list"), Value(Array{1}));
  }
  EXPECT_EQ(first->get("list"), numbers(0, 3));
  first->shutdown();
  EXPECT_EQ(open()->get("list"), numbers(0, 3));
}

TEST_F(SqliteStoreTest, AKilledProcessLosesNothingThatWasSynchronized) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    testing::RecordingLog log;
    SqliteStore store(optionsFor(folder_.path()), log);
    for (int i = 0; i < 100; ++i) {
      append(store, "list", Dictionary{{"id", i}});
      store.synchronize();
    }
    store.set("uncommitted", true);
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  const auto store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
  ASSERT_EQ(store->get("list").size(), 100u);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(store->get("list").array()[static_cast<size_t>(i)]["id"], Value(i));
  EXPECT_TRUE(store->get("uncommitted").isAbsent());
}

// Power failed before the first sync: the log reached the disk, the earlier page did not.
TEST_F(SqliteStoreTest, AFirstPageThatNeverReachedTheDiskIsWrittenAgainUnderTheLog) {
  const auto store = open();
  store->set("list", numbers(0, 50));
  store->synchronize();
  const std::string next = folder_ / "next";
  std::filesystem::create_directory(next);
  std::filesystem::copy_file(path() + "-wal", next + "/morvik.store-wal");
  SqliteStore after(optionsFor(next), log_);
  EXPECT_EQ(after.opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(after.get("list"), numbers(0, 50));
}

// --------------------------------------------------------------------------------------------------- unreadable, newer

TEST_F(SqliteStoreTest, GarbageIsSetAsideUntouchedAndAFreshStoreBegins) {
  const std::string garbage(10000, 'g');
  const std::string log_garbage = "no log either";
  for (const char* number : {"1", "2"}) {
    writeBytes(path(), garbage);
    writeBytes(path() + "-wal", log_garbage);
    log_.clear();
    {
      const auto store = open();
      EXPECT_EQ(store->opening(), runtime::StoreOpening::kSetAside);
      const std::string aside = path() + ".unreadable-" + number;
      EXPECT_EQ(bytesOf(aside), garbage);
      EXPECT_EQ(bytesOf(aside + "-wal"), log_garbage);
      const std::string line = "Morvik host: the store \"" + path() +
                               "\" cannot be read (file is not a database). It was set aside as \"" + aside +
                               "\" and a fresh one begins: keep that file if its contents matter, delete it if not.";
      EXPECT_EQ(log_.messages(), std::vector<std::string>{line});
      EXPECT_EQ(store->openingLine(), line);
      store->set("key", "value");
      store->synchronize();
    }
    EXPECT_EQ(open()->get("key"), Value("value"));
  }
}

TEST_F(SqliteStoreTest, ATruncatedFileIsSetAside) {
  leaveStore(1000);
  emptyTheLog();
  const std::string half = bytesOf(path()).substr(0, 20000);
  writeBytes(path(), half);
  const auto store = open();
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kSetAside);
  EXPECT_EQ(bytesOf(path() + ".unreadable-1"), half);
  EXPECT_TRUE(store->get("list").isAbsent());
}

TEST_F(SqliteStoreTest, SomebodyElsesDatabaseIsSetAside) {
  sql("CREATE TABLE theirs(a); PRAGMA application_id=12345; PRAGMA user_version=99");
  EXPECT_EQ(open()->opening(), runtime::StoreOpening::kSetAside);
  EXPECT_EQ(log_.countContaining("(it is not a store of the kit)"), 1u);
}

TEST_F(SqliteStoreTest, AStoreWithoutItsTablesIsSetAside) {
  leaveStore(1);
  sql("DROP TABLE elements");
  EXPECT_EQ(open()->opening(), runtime::StoreOpening::kSetAside);
}

TEST_F(SqliteStoreTest, AStoreOfANewerVersionStaysUntouchedAndTheProcessLivesInMemory) {
  leaveStore(10);
  sqlLeavingTheLog("PRAGMA user_version=2");
  const std::string before = bytesOf(path());
  const std::string log_before = bytesOf(path() + "-wal");
  ASSERT_NE(log_before, "");
  {
    const auto store = open();
    EXPECT_EQ(store->opening(), runtime::StoreOpening::kNewerVersion);
    const std::string line =
        "Morvik host: the store \"" + path() +
        "\" has version 2, this program knows versions up to 1. It stays untouched and nothing is kept beyond this "
        "process: update the program or give it another folder.";
    EXPECT_EQ(log_.messages(), std::vector<std::string>{line});
    store->set("key", 1);
    EXPECT_FALSE(store->synchronize());
    EXPECT_TRUE(store->commitTurn()) << "no later try would keep it";
    store->flushNow();
    EXPECT_EQ(store->get("key"), Value(1));
  }
  EXPECT_EQ(bytesOf(path()), before);
  EXPECT_EQ(bytesOf(path() + "-wal"), log_before);
  EXPECT_EQ(ask("PRAGMA user_version"), 2);
  EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(SqliteStoreTest, ADamagedRecordIsKeptApartAndTheRestIsUsed) {
  leaveStore(5);
  sql("UPDATE elements SET value=x'FF00' WHERE id=(SELECT id FROM elements ORDER BY id LIMIT 1 OFFSET 2)");
  sql("UPDATE properties SET value='no value' WHERE name='text'");
  sql("INSERT INTO elements VALUES(5,x'0101'), (-7,x'0101')");
  {
    const auto store = open();
    EXPECT_EQ(store->opening(), runtime::StoreOpening::kOpened);
    EXPECT_EQ(log_.messages(),
              std::vector<std::string>{"Morvik host: 4 records of the store \"" + path() +
                                       "\" are damaged. They are kept in its table \"unreadable\" and everything else "
                                       "is in use: nothing needs to be done."});
    ASSERT_EQ(store->get("list").size(), 4u);
    EXPECT_EQ(store->get("list").array()[2]["id"], Value(3));
    EXPECT_TRUE(store->get("text").isAbsent());
    append(*store, "list", Dictionary{{"id", 5}});
    store->set("text", "anew");
    store->synchronize();
  }
  EXPECT_EQ(ask("SELECT count(*) FROM unreadable"), 4);
  EXPECT_EQ(ask("SELECT count(*) FROM unreadable WHERE property='list' AND value=x'FF00'"), 1);
  EXPECT_EQ(ask("SELECT count(*) FROM unreadable WHERE property='text' AND value='no value'"), 1);
  log_.clear();
  const auto store = open();
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(store->get("list").size(), 5u);
  EXPECT_EQ(store->get("text"), Value("anew"));
}

TEST_F(SqliteStoreTest, AFileThatTurnsOutUnreadableInUseIsReplacedFromMemory) {
  leaveStore(2000);
  emptyTheLog();
  const auto store = open();
  append(*store, "list", Dictionary{{"id", 2000}});
  store->synchronize();
  {
    const int file = ::open(path().c_str(), O_WRONLY);
    const std::string harm(8 * kStorePageBytes, '\xEE');
    ASSERT_EQ(::pwrite(file, harm.data(), harm.size(), 16 * kStorePageBytes), static_cast<ssize_t>(harm.size()));
    ::close(file);
  }
  store->flushAndWait();
  EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
  EXPECT_EQ(log_.countContaining("was set aside as"), 1u);
  append(*store, "list", Dictionary{{"id", 2001}});
  store->shutdown();
  const auto next = open();
  EXPECT_EQ(next->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(next->get("list").size(), 2002u);
  EXPECT_EQ(next->get("list"), store->get("list"));
  EXPECT_EQ(next->get("text"), Value("kept"));
}

// A reader of SQLite's format takes a file whose header names a later way of writing, and changes nothing in it.
TEST_F(SqliteStoreTest, AFileThatHidesARecordFromItsRemovalIsReplacedFromMemory) {
  leaveStore(20);
  {
    const auto store = open();
    // Like a damaged page that makes a lookup miss a row which a walk over all rows finds.
    sql("DELETE FROM elements WHERE id=(SELECT id FROM elements ORDER BY id LIMIT 1 OFFSET 7)");
    store->set("list", numbers(10, 12));
    commitIntoAFreshFile(*store);
    EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
    EXPECT_EQ(log_.countContaining("cannot be read (it does not find again what it showed)"), 1u);
  }
  const auto next = open();
  EXPECT_EQ(next->get("list"), numbers(10, 12));
  EXPECT_EQ(next->get("text"), Value("kept"));
}

TEST_F(SqliteStoreTest, AFileThatCannotTakeItsDamagedRecordsInIsReplacedFromMemory) {
  leaveStore(20);
  sql("UPDATE elements SET value=x'FF00' WHERE id=(SELECT id FROM elements ORDER BY id LIMIT 1 OFFSET 2);"
      "DROP TABLE unreadable; CREATE TABLE unreadable(property TEXT, id INTEGER)");
  {
    const auto store = open();
    EXPECT_EQ(store->get("list").size(), 19u);
    store->set("text", "newer");
    commitIntoAFreshFile(*store);
    EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
  }
  const auto next = open();
  EXPECT_EQ(next->get("list").size(), 19u);
  EXPECT_EQ(next->get("text"), Value("newer"));
}

TEST_F(SqliteStoreTest, AFileWhoseLogCannotBeRestartedIsReplacedFromMemory) {
  leaveStore(20);
  sql("DROP TABLE log");
  {
    const auto store = open();
    std::string text(static_cast<size_t>(kLogRestartBytes), 'x');
    store->set("text", Value(text));
    EXPECT_TRUE(store->synchronize());
    store->flushAndWait();
    EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
  }
  const auto next = open();
  EXPECT_EQ(next->get("list").size(), 20u);
  EXPECT_EQ(next->get("text").string().size(), static_cast<size_t>(kLogRestartBytes));
}

TEST_F(SqliteStoreTest, AFileThatHidesADamagedRecordIsReplacedFromMemory) {
  leaveStore(20);
  sql("UPDATE elements SET value=x'FF00' WHERE id=(SELECT id FROM elements ORDER BY id LIMIT 1 OFFSET 2)");
  {
    FaultyVfs vfs("unix");
    vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
    const auto store = openOn(vfs);
    EXPECT_EQ(store->get("list").size(), 19u);
    vfs.heal();
    sql("DELETE FROM elements WHERE value=x'FF00'");
    store->set("text", "newer");
    commitIntoAFreshFile(*store);
    EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
  }
  EXPECT_EQ(open()->get("list").size(), 19u);
}

TEST_F(SqliteStoreTest, AFileWhoseHeaderForbidsToWriteIsReplacedFromMemory) {
  leaveStore(20);
  emptyTheLog();
  forbidToWriteByTheHeader();
  {
    const auto store = open();
    EXPECT_EQ(store->get("list").size(), 20u);
    append(*store, "list", Dictionary{{"id", 20}, {"text", "number 20"}});
    commitIntoAFreshFile(*store);
    EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1"));
    EXPECT_EQ(log_.countContaining("was set aside as"), 1u);
  }
  const auto next = open();
  EXPECT_EQ(next->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(next->get("list"), numbers(0, 21));
  EXPECT_EQ(next->get("text"), Value("kept"));
}

TEST_F(SqliteStoreTest, AFileThatCannotBeReplacedInUseStaysUntilItCanBe) {
  leaveStore(20);
  emptyTheLog();
  forbidToWriteByTheHeader();
  const std::string before = bytesOf(path());
  FaultyVfs vfs;
  auto store = openOn(vfs);
  append(*store, "list", Dictionary{{"id", 20}, {"text", "number 20"}});
  vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
  for (int flush = 0; flush < 2; ++flush) {
    store->flushAndWait();
    EXPECT_EQ(bytesOf(path()), before);
    EXPECT_EQ(inTheFile("list"), numbers(0, 20));
    EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
  }
  EXPECT_EQ(log_.countContaining("cannot be written (attempt to write a readonly database)"), 1U);
  EXPECT_EQ(log_.countContaining("was set aside as"), 0U);
  vfs.heal();
  store->flushAndWait();
  EXPECT_EQ(bytesOf(path() + ".unreadable-1"), before);
  EXPECT_EQ(inTheFile("list"), numbers(0, 21));
  EXPECT_EQ(log_.countContaining("was set aside as"), 1U);
}

TEST_F(SqliteStoreTest, AFileThatCannotBeReplacedAtAStartStaysUntilItCanBe) {
  const std::string garbage(3000, 'x');
  writeBytes(path(), garbage);
  writeBytes(path() + "-wal", "its log");
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
  auto store = openOn(vfs);
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
  EXPECT_EQ(bytesOf(path()), garbage);
  EXPECT_EQ(bytesOf(path() + "-wal"), "its log");
  EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
  store->set("text", "new");
  EXPECT_FALSE(store->synchronize());
  vfs.heal();
  store->flushAndWait();
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(bytesOf(path() + ".unreadable-1"), garbage);
  EXPECT_EQ(bytesOf(path() + ".unreadable-1-wal"), "its log");
  EXPECT_EQ(inTheFile("text"), Value("new"));
}

// ----------------------------------------------------------------------------------------------------- a refusing disk

TEST_F(SqliteStoreTest, AFullDiskIsToldOnceAndEverythingIsStoredWhenThereIsRoomAgain) {
  FaultyVfs vfs;
  {
    const auto store = openOn(vfs);
    store->set("list", numbers(0, 10));
    store->synchronize();
    vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
    for (int i = 10; i < 20; ++i) {
      MutableArray list(store->get("list"));
      list.append(numbers(i, i + 1).array()[0]);
      store->set("list", Value(std::move(list)));
      store->synchronize();
    }
    store->set("text", "pending");
    store->commitTurn();
    EXPECT_EQ(log_.messages(),
              std::vector<std::string>{"Morvik host: the store \"" + path() +
                                       "\" cannot be written (database or disk is full). Everything is kept in memory "
                                       "and tried again with the next writes: free some space, or make the folder "
                                       "writable."});
    EXPECT_EQ(store->get("list").size(), 20u);
    vfs.heal();
    store->set("other", 1);
    store->synchronize();
    EXPECT_EQ(log_.messages().back(),
              "Morvik host: the store \"" + path() + "\" can be written again: everything that was pending is stored.");
    EXPECT_EQ(log_.lines().size(), 2u);
  }
  const auto next = open();
  EXPECT_EQ(next->get("list"), numbers(0, 20));
  EXPECT_EQ(next->get("text"), Value("pending"));
}

TEST_F(SqliteStoreTest, AFileThatMayNotBeWrittenAnyMoreStaysAndTakesEverythingOnceItMayBe) {
  FaultyVfs vfs;
  auto store = openOn(vfs);
  store->set("text", "before");
  EXPECT_TRUE(store->synchronize());
  vfs.failAll(VfsCall::Kind::kWrite, SQLITE_READONLY);
  store->set("text", "meanwhile");
  EXPECT_FALSE(store->synchronize());
  store->flushAndWait();
  EXPECT_EQ(inTheFile("text"), Value("before"));
  vfs.heal();
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(inTheFile("text"), Value("meanwhile"));
  EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
  store->flushAndWait();
  EXPECT_EQ(log_.countContaining("cannot be written (attempt to write a readonly database)"), 1U);
  EXPECT_EQ(log_.countContaining("can be written again"), 1U);
  EXPECT_EQ(log_.countContaining("can be synced to the disk again"), 1U);
  EXPECT_EQ(log_.countContaining("cannot be read"), 0U);
}

TEST_F(SqliteStoreTest, AWriteThatFailsAtAnyPointLosesNothingAndLeavesTheFileWhole) {
  for (uint64_t failing = 1; failing <= 12; ++failing) {
    FaultyVfs vfs;
    const ScratchFolder folder;
    std::atomic<uint64_t> writes{0};
    {
      SqliteStore store(optionsFor(folder.path(), vfs), log_);
      store.set("list", numbers(0, 40));
      store.synchronize();
      vfs.decide([&](const VfsCall& call) {
        return call.kind == VfsCall::Kind::kWrite && ++writes == failing ? SQLITE_IOERR_WRITE : SQLITE_OK;
      });
      MutableArray list(store.get("list"));
      list.retainIf([](const Value& record) { return record["id"].integer() % 2 == 0; });
      store.set("list", Value(std::move(list)));
      store.set("text", std::string(5000, 'x'));
      store.synchronize();
      store.synchronize();
      EXPECT_EQ(store.get("list").size(), 20u);
    }
    vfs.heal();
    SqliteStore next(optionsFor(folder.path()), log_);
    EXPECT_EQ(next.opening(), runtime::StoreOpening::kOpened);
    EXPECT_EQ(next.get("list").size(), 20u) << "write " << failing;
    EXPECT_EQ(next.get("text").string().size(), 5000u);
  }
}

TEST_F(SqliteStoreTest, AStoreThatCannotBeOpenedLivesInMemoryAndIsStoredLater) {
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kOpen, SQLITE_CANTOPEN);
  {
    const auto store = openOn(vfs);
    EXPECT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
    EXPECT_EQ(store->openingLine(),
              "Morvik host: the store \"" + path() +
                  "\" cannot be opened (unable to open database file). Everything is kept in memory and tried again "
                  "with the next writes: free some space, or make the folder writable.");
    store->set("list", numbers(0, 3));
    store->synchronize();
    store->flushAndWait();
    EXPECT_EQ(log_.lines().size(), 1u);
    vfs.heal();
    store->set("text", "later");
    store->flushAndWait();
    EXPECT_EQ(log_.countContaining("can be written again"), 1u);
  }
  const auto next = open();
  EXPECT_EQ(next->get("list"), numbers(0, 3));
  EXPECT_EQ(next->get("text"), Value("later"));
}

TEST_F(SqliteStoreTest, WhatWasStoredBeforeComesBackWhenTheFileCanBeOpenedAgain) {
  leaveStore(5);
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_IOERR_READ);
  {
    const auto store = openOn(vfs);
    EXPECT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
    append(*store, "list", numbers(5, 6).array()[0]);
    store->synchronize();
    EXPECT_EQ(store->get("list").size(), 1u);
    vfs.heal();
    store->set("count", 1);
    store->flushAndWait();
    EXPECT_EQ(store->get("list"), numbers(0, 6));
    EXPECT_EQ(store->get("text"), Value("kept"));
  }
  EXPECT_EQ(open()->get("list"), numbers(0, 6));
  EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
}

TEST_F(SqliteStoreTest, AFileThatTurnsOutToBeOfANewerVersionWhenItCanBeReadIsLeftAloneFromThenOn) {
  leaveStore(5);
  sql("PRAGMA user_version=2");
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_IOERR_READ);
  const auto store = openOn(vfs);
  ASSERT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
  vfs.heal();
  for (int event = 0; event < 3; ++event) {
    store->set("count", event);
    store->flushAndWait();
    EXPECT_TRUE(store->commitTurn()) << "no later try may keep it";
  }
  EXPECT_EQ(store->opening(), runtime::StoreOpening::kNewerVersion);
  EXPECT_FALSE(store->isKept());
  EXPECT_EQ(log_.countContaining("this program knows versions up to"), 1U);
}

TEST_F(SqliteStoreTest, WhatAnotherOneTookMeanwhileIsTriedAgainAndItsRecordsAreKept) {
  leaveStore(5);
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_IOERR_READ);
  const auto store = openOn(vfs);
  ASSERT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
  vfs.heal();
  auto other = open();
  ASSERT_EQ(other->opening(), runtime::StoreOpening::kOpened);
  append(*other, "list", numbers(5, 6).array()[0]);
  for (const kit::Value& number : numbers(6, 8).array()) {
    append(*store, "list", number);
    store->flushAndWait();
    EXPECT_FALSE(store->commitTurn()) << "a later try may keep it";
  }
  EXPECT_EQ(log_.countContaining("was taken while it could not be opened here: it is in use by another kit"), 1u);
  other->shutdown();
  store->flushAndWait();
  EXPECT_TRUE(store->commitTurn());
  EXPECT_EQ(log_.countContaining("can be written again"), 1u);
  EXPECT_EQ(store->get("list"), numbers(0, 8));
  store->shutdown();
  EXPECT_EQ(open()->get("list"), numbers(0, 8));
}

/// A store that lost its file and its lock while in use, and whose file comes back.
class SqliteStoreWithALostFile : public SqliteStoreTest {
 protected:
  SqliteStoreWithALostFile() {
    leaveStore(5);
    open()->set("launches", 3);
    SqliteStoreOptions options = optionsFor(folder_.path(), vfs_);
    options.take_over.rows = {{"launches", runtime::TakeOver::kAdd}};
    store_ = std::make_unique<SqliteStore>(options, log_);
    store_->flushAndWait();
    vfs_.failAll(VfsCall::Kind::kWrite, SQLITE_CORRUPT);
    std::filesystem::rename(folder_.path(), folder_.path() + ".away");
    writeBytes(folder_.path(), "no folder");
    append(*store_, "list", numbers(5, 6).array()[0]);
    store_->set("launches", 4);
    EXPECT_FALSE(store_->synchronize());
    store_->flushAndWait();
  }
  void putTheFolderBack() {
    std::filesystem::remove(folder_.path());
    std::filesystem::rename(folder_.path() + ".away", folder_.path());
  }
  void recover() {
    vfs_.heal();
    store_->flushAndWait();
    EXPECT_TRUE(store_->isKept());
  }

  FaultyVfs vfs_;
  std::unique_ptr<SqliteStore> store_;
};

TEST_F(SqliteStoreWithALostFile, HasOnceWhatBothKnewOfItAndWhatEachAdded) {
  putTheFolderBack();
  {
    const auto other = open();
    ASSERT_EQ(other->get("list"), numbers(0, 5));
    append(*other, "list", numbers(6, 7).array()[0]);
    other->set("launches", 5);
    other->flushAndWait();
    store_->flushAndWait();
    EXPECT_EQ(log_.countContaining("it is in use by another kit"), 1U);
  }
  recover();
  MutableArray all(numbers(0, 5));
  all.append(numbers(6, 7).array()[0]);
  all.append(numbers(5, 6).array()[0]);
  EXPECT_EQ(store_->get("list"), Value(std::move(all)));
  EXPECT_EQ(store_->get("launches"), Value(6));
  EXPECT_EQ(inTheFile("list"), store_->get("list"));
}

TEST_F(SqliteStoreWithALostFile, TakesEqualRecordsThatItAddedItselfForRecordsOfTheirOwn) {
  putTheFolderBack();
  {
    const auto other = open();
    store_->flushAndWait();
  }
  append(*store_, "list", numbers(0, 1).array()[0]);
  append(*store_, "list", numbers(0, 1).array()[0]);
  recover();
  EXPECT_EQ(store_->get("list").size(), 8U) << "five, one, and two that are like the first";
  EXPECT_EQ(store_->get("launches"), Value(4));
}

TEST_F(SqliteStoreWithALostFile, AddsUpWithOneThatBeganAgain) {
  putTheFolderBack();
  for (const char* end : {"", "-wal"})
    std::filesystem::remove(path() + end);
  {
    const auto other = open();
    ASSERT_TRUE(other->get("list").isAbsent());
    append(*other, "list", numbers(6, 7).array()[0]);
    other->set("launches", 1);
    store_->flushAndWait();
  }
  recover();
  EXPECT_EQ(store_->get("list").size(), 7U);
  EXPECT_EQ(store_->get("launches"), Value(5));
}

// ------------------------------------------------------------------------------------------------------ removed in use

size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

/// What somebody does to the files of a store in use in this folder, and how it is reported.
struct Removal {
  const char* name;
  void (*happens)(const std::string& folder);
  const char* line;
};

constexpr const char* kRemovedLine = "were removed or replaced while it was in use";
constexpr const char* kStaysRemovedLine = "were removed or replaced before the kit had stopped";
constexpr const char* kSetAsideLine = "a part of it was removed or replaced while in use";

void removeFiles(const std::string& folder, std::initializer_list<const char*> endings) {
  for (const char* ending : endings)
    std::filesystem::remove(folder + "/morvik.store" + ending);
}

void replaceFile(const std::string& folder, const char* ending, const std::string& bytes) {
  writeBytes(folder + "/other", bytes);
  std::filesystem::rename(folder + "/other", folder + "/morvik.store" + ending);
}

std::string bytesOfAnotherStore() {
  const ScratchFolder folder;
  testing::RecordingLog unused;
  SqliteStore other(optionsFor(folder.path()), unused);
  other.set("list", numbers(90, 95));
  other.set("of another", 1);
  other.shutdown();
  return bytesOf(folder / "morvik.store");
}

const Removal kRemovals[] = {
    {"Folder", [](const std::string& folder) { std::filesystem::remove_all(folder); }, kRemovedLine},
    {"FolderThatIsMadeAgain",
     [](const std::string& folder) {
       std::filesystem::remove_all(folder);
       std::filesystem::create_directory(folder);
     },
     kRemovedLine},
    {"FolderThatGetsAnotherName", [](const std::string& folder) { std::filesystem::rename(folder, folder + ".away"); },
     kRemovedLine},
    {"FileAndLog",
     [](const std::string& folder) {
       removeFiles(folder, {"", "-wal"});
     },
     kRemovedLine},
    {"File", [](const std::string& folder) { removeFiles(folder, {""}); }, kSetAsideLine},
    {"Log", [](const std::string& folder) { removeFiles(folder, {"-wal"}); }, kRemovedLine},
    {"Lock", [](const std::string& folder) { removeFiles(folder, {".lock"}); }, kRemovedLine},
    {"FileByGarbage", [](const std::string& folder) { replaceFile(folder, "", "garbage"); }, kSetAsideLine},
    {"FileByAnotherStore", [](const std::string& folder) { replaceFile(folder, "", bytesOfAnotherStore()); },
     kSetAsideLine},
    {"LogByAnother", [](const std::string& folder) { replaceFile(folder, "-wal", "garbage"); }, kSetAsideLine},
};

class SqliteStoreWithoutIts : public SqliteStoreTest, public ::testing::WithParamInterface<Removal> {
 protected:
  ~SqliteStoreWithoutIts() override { std::filesystem::remove_all(folder_.path() + ".away"); }
};

TEST_P(SqliteStoreWithoutIts, NameOnTheDiskIsWrittenAgainWithTheNextFlush) {
  {
    const auto store = open();
    store->set("list", numbers(0, 1000));
    store->set("text", "kept");
    store->set("gone", 1);
    store->flushAndWait();
    append(*store, "list", numbers(1000, 1001).array()[0]);
    store->set("gone", Value());
    EXPECT_TRUE(store->synchronize());
    const size_t descriptors = openDescriptors();

    for (int time = 1; time <= 3; ++time) {
      GetParam().happens(folder_.path());
      append(*store, "list", numbers(1000 + time, 1001 + time).array()[0]);
      EXPECT_TRUE(store->synchronize()) << "nobody has looked yet";
      store->flushAndWait();
      EXPECT_TRUE(store->isKept());
      EXPECT_EQ(inTheFile("list"), numbers(0, 1001 + time)) << "what the next process finds if this one dies now";
      EXPECT_EQ(inTheFile("text"), Value("kept"));
      EXPECT_TRUE(inTheFile("gone").isAbsent());
      EXPECT_TRUE(inTheFile("of another").isAbsent());
      EXPECT_LE(openDescriptors(), descriptors);
      EXPECT_EQ(log_.messages().size(), static_cast<size_t>(time)) << "one line each time";
      EXPECT_EQ(log_.countContaining(GetParam().line), static_cast<size_t>(time));
      EXPECT_EQ(open()->opening(), runtime::StoreOpening::kLocked);
      std::filesystem::remove_all(folder_.path() + ".away");
    }
    append(*store, "list", numbers(1004, 1005).array()[0]);
    EXPECT_TRUE(store->synchronize());
    store->flushAndWait();
    EXPECT_EQ(log_.messages().size(), 3U);
  }
  EXPECT_EQ(open()->get("list"), numbers(0, 1005));
}

std::set<std::string> namesIn(const std::string& folder) {
  std::set<std::string> names;
  if (!std::filesystem::exists(folder))
    return names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename());
  return names;
}

TEST_P(SqliteStoreWithoutIts, NameIsLeftAsItIsOnceTheEndHasBegun) {
  const auto store = open();
  store->set("list", numbers(0, 1000));
  store->flushAndWait();
  store->beginToEnd();
  GetParam().happens(folder_.path());
  const bool is_there = std::filesystem::exists(folder_.path());
  const std::set<std::string> left = namesIn(folder_.path());
  append(*store, "list", numbers(1000, 1001).array()[0]);
  store->flushAndWait();
  store->shutdown();
  EXPECT_EQ(std::filesystem::exists(folder_.path()), is_there);
  EXPECT_EQ(namesIn(folder_.path()), left);
  EXPECT_EQ(log_.messages().size(), 1U);
  EXPECT_EQ(log_.countContaining(kStaysRemovedLine), 1U);
}

INSTANTIATE_TEST_SUITE_P(Any, SqliteStoreWithoutIts, ::testing::ValuesIn(kRemovals),
                         [](const auto& removal) { return removal.param.name; });

/// Somebody removes the folder while the shutdown waits for the disk.
class FlusherThatComesLate final : public StoreFlusher {
 public:
  FlusherThatComesLate(Flush run, std::string folder) : run_(std::move(run)), folder_(std::move(folder)) {}
  void flushSoon() override {}
  void flushNow(Urgency) override {}
  void flushAndWait(Urgency urgency) override {
    std::filesystem::remove_all(folder_);
    run_(urgency);
  }
  void stop() override {}

 private:
  const Flush run_;
  const std::string folder_;
};

TEST_F(SqliteStoreTest, StaysRemovedWhereItsFolderGoesWhileItIsShutDown) {
  SqliteStoreOptions options = optionsFor(folder_.path());
  options.make_flusher = [this](StoreFlusher::Flush run, std::chrono::milliseconds) {
    return std::make_unique<FlusherThatComesLate>(std::move(run), folder_.path());
  };
  SqliteStore store(options, log_);
  store.set("list", numbers(0, 5));
  EXPECT_TRUE(store.synchronize());
  store.shutdown();
  EXPECT_FALSE(std::filesystem::exists(folder_.path()));
  EXPECT_EQ(log_.countContaining(kStaysRemovedLine), 1U);
}

TEST_F(SqliteStoreTest, NamesTheLogThatItSetAsideWhereTheFileIsGone) {
  const auto store = open();
  store->set("list", numbers(0, 5));
  store->flushAndWait();
  store->set("list", numbers(0, 6));
  EXPECT_TRUE(store->synchronize());
  removeFiles(folder_.path(), {""});
  store->flushAndWait();
  EXPECT_TRUE(std::filesystem::exists(path() + ".unreadable-1-wal"));
  EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
  EXPECT_EQ(log_.countContaining("It was set aside as \"" + path() + ".unreadable-1-wal\""), 1U);
}

TEST_F(SqliteStoreTest, AFlushAfterWhichNothingWasCommittedSyncsNothing) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("list", numbers(0, 5));
  store->flushAndWait();
  store->set("list", numbers(0, 6));
  store->flushAndWait();
  const uint64_t syncs = vfs.count(VfsCall::Kind::kSync);
  for (int time = 0; time < 5; ++time)
    store->flushAndWait();
  EXPECT_EQ(vfs.count(VfsCall::Kind::kSync), syncs);
  store->set("list", numbers(0, 7));
  store->flushAndWait();
  EXPECT_EQ(vfs.count(VfsCall::Kind::kSync), syncs + 1);
}

TEST_F(SqliteStoreTest, ASyncThatFailedIsMadeWithTheNextFlushAlthoughNothingWasCommitted) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("list", numbers(0, 5));
  store->flushAndWait();
  store->set("list", numbers(0, 6));
  vfs.failAll(VfsCall::Kind::kSync, SQLITE_IOERR_FSYNC);
  store->flushAndWait();
  vfs.heal();
  const uint64_t syncs = vfs.count(VfsCall::Kind::kSync);
  store->flushAndWait();
  EXPECT_EQ(vfs.count(VfsCall::Kind::kSync), syncs + 1);
}

TEST_F(SqliteStoreTest, WithoutItsFolderIsInMemoryUntilThereCanBeOne) {
  const auto store = open();
  store->set("list", numbers(0, 5));
  store->flushAndWait();
  std::filesystem::remove_all(folder_.path());
  writeBytes(folder_.path(), "no folder");
  append(*store, "list", numbers(5, 6).array()[0]);
  store->flushAndWait();
  EXPECT_FALSE(store->isKept());
  EXPECT_FALSE(store->synchronize());
  EXPECT_FALSE(store->commitTurn()) << "a later try may keep it";
  store->flushAndWait();
  EXPECT_EQ(log_.countContaining(kRemovedLine), 1U);
  EXPECT_EQ(log_.countContaining("cannot be written"), 1U);

  std::filesystem::remove(folder_.path());
  store->flushAndWait();
  EXPECT_TRUE(store->isKept());
  EXPECT_EQ(log_.countContaining("can be written again: everything that was pending is stored"), 1U);
  EXPECT_EQ(inTheFile("list"), numbers(0, 6));
}

TEST_F(SqliteStoreTest, JoinsTheStoreThatAnotherOneBeganInThePlaceOfItsRemovedFolder) {
  const auto store = open();
  store->set("list", numbers(0, 5));
  store->flushAndWait();
  std::filesystem::remove_all(folder_.path());
  {
    const auto other = open();
    ASSERT_EQ(other->opening(), runtime::StoreOpening::kCreated);
    other->set("list", numbers(5, 6));
    store->flushAndWait();
    EXPECT_EQ(log_.countContaining("it is in use by another kit"), 1U);
    EXPECT_FALSE(store->isKept());
  }
  append(*store, "list", numbers(6, 7).array()[0]);
  store->flushAndWait();
  EXPECT_EQ(store->get("list").size(), 7U);
  EXPECT_EQ(inTheFile("list"), store->get("list"));

  std::filesystem::remove_all(folder_.path());
  open()->set("list", numbers(7, 8));  // begins, records and ends before anybody looks
  append(*store, "list", numbers(8, 9).array()[0]);
  store->flushAndWait();
  EXPECT_EQ(store->get("list").size(), 9U);
  EXPECT_EQ(inTheFile("list"), store->get("list"));
}

TEST_F(SqliteStoreTest, IsReadByInspectorsWhileItIsRemovedAndWrittenAgain) {
  const auto store = open();
  store->set("list", numbers(0, 100));
  store->flushAndWait();
  std::atomic<bool> is_over{false};
  std::atomic<int> read{0};
  std::thread inspector([&] {
    do {
      const Value list = inTheFile("list");
      EXPECT_TRUE(list.isAbsent() || list == numbers(0, 100));
      ++read;
    } while (!is_over);
  });
  for (int time = 0; time < 20 || read < 20; ++time) {
    std::filesystem::remove_all(folder_.path());
    store->set("time", time);
    store->flushAndWait();
    EXPECT_TRUE(store->isKept());
  }
  is_over = true;
  inspector.join();
  EXPECT_EQ(inTheFile("list"), numbers(0, 100));
}

TEST_F(SqliteStoreTest, AFolderThatCannotBeMadeIsToldAndTheAppLivesOn) {
  writeBytes(folder_ / "file", "in the way");
  SqliteStore store(optionsFor(folder_ / "file/store"), log_);
  EXPECT_EQ(store.opening(), runtime::StoreOpening::kUnavailable);
  store.set("key", 1);
  store.synchronize();
  EXPECT_EQ(store.get("key"), Value(1));
  EXPECT_EQ(log_.countContaining("cannot be opened (Not a directory)"), 1u);
}

TEST_F(SqliteStoreTest, AFailingSyncIsToldOnceAndSoIsItsEnd) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->flushAndWait();
  vfs.failAll(VfsCall::Kind::kSync, SQLITE_IOERR_FSYNC);
  for (int i = 0; i < 3; ++i) {
    store->set("count", i);
    store->flushAndWait();
  }
  EXPECT_EQ(log_.messages(), std::vector<std::string>{
                                 "Morvik host: the store \"" + path() +
                                 "\" cannot be synced to the disk (disk I/O error). A power cut would lose what was "
                                 "written since; it is tried again with the next writes: free some space, or check "
                                 "the disk."});
  vfs.heal();
  store->flushAndWait();
  EXPECT_EQ(log_.messages().back(), "Morvik host: the store \"" + path() + "\" can be synced to the disk again.");
  EXPECT_EQ(log_.lines().size(), 2u);
}

// ---------------------------------------------------------------------------------------------------- disk and threads

TEST_F(SqliteStoreTest, AFileThatIsBusyForAMomentIsSyncedAgainSoonAndNobodyIsTold) {
  FaultyVfs vfs;
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.flush_delay = std::chrono::milliseconds(1);
  SqliteStore store(options, log_);
  store.set("text", "one");
  store.flushAndWait();
  const uint64_t syncs = vfs.count(VfsCall::Kind::kSync);
  vfs.decide([left = std::make_shared<std::atomic<int>>(kMaxBusyFlushes - 1)](const VfsCall& call) {
    return call.kind == VfsCall::Kind::kSync && (*left)-- > 0 ? SQLITE_BUSY : SQLITE_OK;
  });
  store.set("text", "two");
  store.synchronize();
  vfs.waitForCount(VfsCall::Kind::kSync, syncs + kMaxBusyFlushes);  // by itself
  store.flushAndWait();
  EXPECT_TRUE(log_.lines().empty()) << log_.lines().front().text;
}

TEST_F(SqliteStoreTest, AFileThatStaysBusyIsToldLikeOneThatCannotBeSynced) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("text", "one");
  store->flushAndWait();
  vfs.failAll(VfsCall::Kind::kSync, SQLITE_BUSY);
  store->set("text", "two");
  for (int flush = 1; flush < kMaxBusyFlushes; ++flush)
    store->flushAndWait();
  EXPECT_TRUE(log_.lines().empty());
  store->flushAndWait();
  EXPECT_EQ(log_.countContaining("cannot be synced to the disk (database is locked)"), 1U);
  vfs.heal();
  store->flushAndWait();
  EXPECT_EQ(log_.countContaining("can be synced to the disk again"), 1U);
}

TEST_F(SqliteStoreTest, TheCheckOfAnEarlierProcessesFileKeepsTheFirstSyncWaitingForNothing) {
  constexpr int kRecords = 20'000;
  leaveStore(kRecords);
  emptyTheLog();
  const auto pages = static_cast<uint64_t>(std::filesystem::file_size(path()) / kStorePageBytes);
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("text", "new");
  store->synchronize();
  auto reads = std::make_shared<std::atomic<uint64_t>>(0);
  auto reads_before_the_sync = std::make_shared<std::atomic<uint64_t>>(0);
  vfs.decide([reads, reads_before_the_sync](const VfsCall& call) {
    if (call.kind == VfsCall::Kind::kRead && !call.isOfLog())
      ++*reads;
    if (call.kind == VfsCall::Kind::kSync && call.isOfLog() && *reads_before_the_sync == 0)
      *reads_before_the_sync = reads->load();
    return SQLITE_OK;
  });
  store->flushAndWait();
  EXPECT_GE(reads->load(), pages) << "the file was checked, all of it";
  EXPECT_GE(reads_before_the_sync->load(), 1U);
  EXPECT_LE(reads_before_the_sync->load(), pages / 10);
}

TEST_F(SqliteStoreTest, AStoreWhoseThreadTheSystemRefusesOpensAndSaysThatNothingIsSynced) {
  SqliteStoreOptions options = optionsFor(folder_.path());
  options.make_flusher = [](StoreFlusher::Flush flush, std::chrono::milliseconds delay) {
    return std::make_unique<BackgroundFlusher>(
        std::move(flush), delay, [](const char*, const std::function<void()>&) -> BackgroundFlusher::Started {
          return kit::Error{"the system gave no thread"};
        });
  };
  SqliteStore store(options, log_);
  EXPECT_EQ(store.opening(), runtime::StoreOpening::kCreated);
  store.set("text", "kept");
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(log_.countContaining("cannot be synced to the disk (the system gave no thread)"), 1U);
  store.flushAndWait();
  EXPECT_EQ(log_.countContaining("can be synced to the disk again"), 1U);
}

TEST_F(SqliteStoreTest, CommitsGoOnWhileTheDiskIsSyncing) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->flushAndWait();
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  vfs.decide([released](const VfsCall& call) {
    if (call.kind == VfsCall::Kind::kSync)
      released.wait();
    return SQLITE_OK;
  });
  const uint64_t before = vfs.count(VfsCall::Kind::kSync);
  store->set("count", 0);
  store->synchronize();
  store->flushNow();
  vfs.waitForCount(VfsCall::Kind::kSync, before + 1);
  // The background thread hangs in the sync now; if a commit waited for it, this test would not end.
  for (int i = 1; i <= 100; ++i) {
    store->set("count", i);
    store->synchronize();
  }
  release.set_value();
  store->shutdown();
  EXPECT_EQ(open()->get("count"), Value(100));
}

TEST_F(SqliteStoreTest, NoCallerEverSyncs) {
  FaultyVfs vfs;
  std::atomic<int> mine{0};
  std::atomic<int> all{0};
  const std::thread::id me = std::this_thread::get_id();
  vfs.decide([&](const VfsCall& call) {
    if (call.kind == VfsCall::Kind::kSync) {
      ++all;
      mine += std::this_thread::get_id() == me ? 1 : 0;
    }
    return SQLITE_OK;
  });
  for (int start = 0; start < 3; ++start) {
    const auto store = openOn(vfs);
    // Long enough for the log to be written back and restarted.
    for (int i = 0; i < 40; ++i) {
      append(*store, "list", std::string(200'000, 'x'));
      store->synchronize();
      if (i % 10 == 9)
        store->flushAndWait();
    }
  }
  EXPECT_EQ(mine.load(), 0);
  EXPECT_GT(all.load(), 3);
}

TEST_F(SqliteStoreTest, NoCallerOpensAFileAgain) {
  leaveStore(5);
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_BUSY);
  const auto store = openOn(vfs);
  ASSERT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
  std::atomic<bool> is_busy{true};
  std::atomic<int> mine{0};
  std::atomic<int> others{0};
  const std::thread::id me = std::this_thread::get_id();
  vfs.decide([&](const VfsCall& call) {
    if (call.kind != VfsCall::Kind::kOpen && call.kind != VfsCall::Kind::kRead)
      return SQLITE_OK;
    ++(std::this_thread::get_id() == me ? mine : others);
    return is_busy && call.kind == VfsCall::Kind::kRead ? SQLITE_BUSY : SQLITE_OK;
  });
  for (int number = 5; number < 8; ++number) {
    append(*store, "list", numbers(number, number + 1).array()[0]);
    EXPECT_FALSE(store->synchronize());
    EXPECT_FALSE(store->commitTurn());
  }
  store->flushAndWait();
  EXPECT_GT(others.load(), 0);
  EXPECT_EQ(mine.load(), 0);
  is_busy = false;
  store->flushAndWait();
  EXPECT_EQ(store->get("list"), numbers(0, 8));
  EXPECT_EQ(inTheFile("list"), numbers(0, 8));
}

TEST_F(SqliteStoreTest, AFileThatAnotherProgramHoldsIsTriedOnceAtTheOpening) {
  leaveStore(5);
  const auto opens = [this](int error) {
    FaultyVfs vfs;
    std::atomic<int> count{0};
    vfs.decide([&count, error](const VfsCall& call) {
      count += call.kind == VfsCall::Kind::kOpen ? 1 : 0;
      return call.kind == VfsCall::Kind::kRead ? error : SQLITE_OK;
    });
    const auto store = openOn(vfs);
    EXPECT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
    return count.load();
  };
  const int busy = opens(SQLITE_BUSY);
  EXPECT_GT(busy, 0);
  EXPECT_EQ(3 * busy, opens(SQLITE_IOERR_READ)) << "a disk that fails for a moment is tried again";
}

TEST_F(SqliteStoreTest, CallsGoOnWhileTheFileIsBeingOpenedAgain) {
  leaveStore(5);
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_IOERR_READ);
  const auto store = openOn(vfs);
  ASSERT_EQ(store->opening(), runtime::StoreOpening::kUnavailable);
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  std::atomic<int> mine{0};
  const std::thread::id me = std::this_thread::get_id();
  vfs.decide([&, released](const VfsCall& call) {
    if (std::this_thread::get_id() == me)
      ++mine;
    else if (call.kind == VfsCall::Kind::kRead)
      released.wait();
    return SQLITE_OK;
  });
  const uint64_t before = vfs.count(VfsCall::Kind::kRead);
  store->flushNow();
  vfs.waitForCount(VfsCall::Kind::kRead, before + 1);
  // The background thread hangs in the opening now; if a call waited for it, this test would not end.
  for (int number = 5; number < 8; ++number) {
    append(*store, "list", numbers(number, number + 1).array()[0]);
    EXPECT_FALSE(store->synchronize());
    EXPECT_FALSE(store->isKept());
  }
  EXPECT_EQ(mine.load(), 0);
  release.set_value();
  store->shutdown();
  EXPECT_EQ(open()->get("list"), numbers(0, 8));
}

TEST_F(SqliteStoreTest, WhatIsWrittenAfterAFileWasOpenedAgainJoinsItWithTheNextCommit) {
  leaveStore(5);
  FaultyVfs vfs;
  vfs.failAll(VfsCall::Kind::kRead, SQLITE_IOERR_READ);
  std::function<void()> flush;
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.make_flusher = [&flush](StoreFlusher::Flush run, std::chrono::milliseconds) {
    auto made = std::make_unique<FlusherOnDemand>(std::move(run));
    flush = [flusher = made.get()] { flusher->flush(StoreFlusher::Urgency::kRoutine); };
    return made;
  };
  SqliteStore store(options, log_);
  int taken_over = 0;
  store.setWhenTakenOver([&taken_over] { ++taken_over; });
  append(store, "list", numbers(5, 6).array()[0]);
  EXPECT_FALSE(store.synchronize());
  vfs.heal();
  flush();
  EXPECT_EQ(taken_over, 0) << "whoever commits keeps the lists still for it";
  EXPECT_EQ(store.get("list"), numbers(5, 6));
  append(store, "list", numbers(6, 7).array()[0]);
  EXPECT_TRUE(store.commitTurn());
  EXPECT_EQ(taken_over, 1);
  EXPECT_EQ(store.get("list"), numbers(0, 7));
  EXPECT_EQ(inTheFile("list"), numbers(0, 7));
}

TEST_F(SqliteStoreTest, WhoComesDuringACommitWaitsForItAndForOneMoreAtMost) {
  constexpr int kWaiting = 3;
  FaultyVfs vfs;
  std::latch all_wait(kWaiting);
  std::atomic<int> waits{0};
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.when_waiting = [&all_wait, &waits] {
    if (++waits <= kWaiting)
      all_wait.count_down();
  };
  SqliteStore store(options, log_);
  store.flushAndWait();
  std::atomic<int> commits{0};
  std::promise<void> first_began;
  vfs.decide([&](const VfsCall& call) {
    if (call.kind != VfsCall::Kind::kWrite)
      return SQLITE_OK;
    if (++commits == 1) {
      first_began.set_value();
      all_wait.wait();
    }
    return SQLITE_FULL;  // the first write of each commit is its last
  });
  const auto record = [&store](const char* key) {
    store.set(key, 1);
    EXPECT_FALSE(store.synchronizeUntold());
  };
  std::thread first([&record] { record("first"); });
  first_began.get_future().wait();
  std::vector<std::thread> waiting;
  for (const char* key : {"one", "two", "three"})
    waiting.emplace_back([&record, key] { record(key); });
  first.join();
  for (std::thread& thread : waiting)
    thread.join();
  EXPECT_EQ(commits.load(), 2) << "the one that was under way, and one that had the writes of all who waited";
  vfs.heal();
}

TEST_F(SqliteStoreTest, WhoWaitsForAnothersCommitHearsOfAnElementThatItCouldNotKeep) {
  FaultyVfs vfs;
  std::latch both_wait(2);
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.when_waiting = [&both_wait, waits = std::make_shared<std::atomic<int>>(0)] {
    if (++*waits <= 2)
      both_wait.count_down();
  };
  SqliteStore store(options, log_);
  store.flushAndWait();
  std::promise<void> first_began;
  vfs.decide([&, has_begun = std::make_shared<std::atomic<bool>>(false)](const VfsCall& call) {
    if (call.kind == VfsCall::Kind::kWrite && !has_begun->exchange(true)) {
      first_began.set_value();
      both_wait.wait();
    }
    return SQLITE_OK;
  });
  std::thread first([&store] {
    store.set("first", 1);
    EXPECT_TRUE(store.synchronizeUntold());
  });
  first_began.get_future().wait();
  std::vector<std::thread> waiting;
  for (int i = 0; i < 2; ++i) {
    waiting.emplace_back([&store, i] {
      store.set("list " + std::to_string(i), Array{tooDeep()});
      EXPECT_FALSE(store.synchronizeUntold());
    });
  }
  first.join();
  for (std::thread& thread : waiting)
    thread.join();
}

TEST_F(SqliteStoreTest, ACommitIsFlushedByItself) {
  FaultyVfs vfs;
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.flush_delay = std::chrono::milliseconds(1);
  SqliteStore store(options, log_);
  store.flushAndWait();
  const uint64_t before = vfs.count(VfsCall::Kind::kSync);
  store.set("key", 1);
  store.synchronize();
  vfs.waitForCount(VfsCall::Kind::kSync, before + 1);
}

TEST_F(SqliteStoreTest, NothingIsWrittenWhenNothingChanged) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("list", Array{1, 2});
  store->synchronize();
  const uint64_t before = vfs.count(VfsCall::Kind::kWrite);
  store->synchronize();
  store->commitTurn();
  store->set("list", store->get("list"));
  store->synchronize();
  EXPECT_EQ(vfs.count(VfsCall::Kind::kWrite), before);
}

TEST_F(SqliteStoreTest, TheLogIsRestartedAndStaysShort) {
  const auto store = open();
  for (int round = 0; round < 6; ++round) {
    for (int i = 0; i < 60; ++i) {
      store->set("text", std::string(100'000, static_cast<char>('a' + i % 26)));
      store->synchronize();
    }
    store->flushAndWait();
  }
  // Each round writes 6 MB into it.
  EXPECT_LT(std::filesystem::file_size(path() + "-wal"), 20u << 20);
  store->shutdown();
  EXPECT_GE(ask("SELECT restarts FROM log"), 6);
}

/// Commits from inside the first write-backs of a flush, so that these never find the log completely written back.
class SqliteStoreUnderARestlessWriter : public SqliteStoreTest {
 protected:
  void flushWithWriter(SqliteStore& store, FaultyVfs& vfs, int commits) {
    std::atomic<int> left{commits};
    vfs.decide([&](const VfsCall& call) {
      if (call.kind == VfsCall::Kind::kSync && !call.isOfLog() && left.fetch_sub(1) > 0) {
        store.set("count", left.load());
        store.synchronize();
      }
      return SQLITE_OK;
    });
    store.flushAndWait();
    vfs.heal();
    EXPECT_LE(left.load(), 0);
  }
  uint64_t logFileBytes() const { return std::filesystem::file_size(path() + "-wal"); }
  /// Whether the next commit comes after all others in the log's file.
  bool nextCommitMakesTheLogLonger(SqliteStore& store) {
    const uint64_t before = logFileBytes();
    store.set("count", -1 - store.get("count").integer());
    store.synchronize();
    return logFileBytes() > before;
  }
};

TEST_F(SqliteStoreUnderARestlessWriter, ALogBelowTheHardLimitIsLeftToTheNextFlush) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->flushAndWait();
  store->set("text", std::string(1 << 20, 'x'));
  flushWithWriter(*store, vfs, kCatchUpRounds);
  EXPECT_TRUE(nextCommitMakesTheLogLonger(*store));
  flushWithWriter(*store, vfs, 0);
  EXPECT_FALSE(nextCommitMakesTheLogLonger(*store));
  store->shutdown();
  EXPECT_EQ(open()->get("text").string().size(), 1u << 20);
}

constexpr int64_t kHardBytes = int64_t{8} << 20;

TEST_F(SqliteStoreUnderARestlessWriter, ALogPastTheHardLimitIsRestartedNevertheless) {
  FaultyVfs vfs;
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.log_hard_bytes = kHardBytes;
  options.make_flusher = [](StoreFlusher::Flush run, std::chrono::milliseconds) {
    return std::make_unique<FlusherOnDemand>(std::move(run));
  };
  const auto store = std::make_unique<SqliteStore>(options, log_);
  store->flushAndWait();
  vfs.failAll(VfsCall::Kind::kSync, SQLITE_IOERR_FSYNC);  // the log cannot be written back while it grows
  for (int i = 0; i <= kHardBytes >> 22; ++i) {
    store->set("text", std::string(4 << 20, static_cast<char>('a' + i)));
    store->synchronize();
  }
  store->flushAndWait();
  ASSERT_GT(logFileBytes(), static_cast<uint64_t>(kHardBytes));
  flushWithWriter(*store, vfs, 1);
  EXPECT_FALSE(nextCommitMakesTheLogLonger(*store));
  store->shutdown();
  EXPECT_EQ(open()->get("text").string().back(), static_cast<char>('a' + (kHardBytes >> 22)));
}

/// On a disk whose syncs take as long as a test says.
class SqliteStoreOnASlowDisk : public SqliteStoreTest {
 protected:
  void openIt(int64_t log_most_bytes = kLogMostBytes) {
    SqliteStoreOptions options = optionsFor(folder_.path(), vfs_);
    options.log_hard_bytes = kHardBytes;
    options.log_most_bytes = log_most_bytes;
    options.make_flusher = [this](StoreFlusher::Flush run, std::chrono::milliseconds) {
      auto made = std::make_unique<FlusherOnDemand>(std::move(run), &now_);
      flusher_ = made.get();
      return made;
    };
    store_ = std::make_unique<SqliteStore>(options, log_);
    vfs_.decide([this](const VfsCall& call) {
      if (call.kind != VfsCall::Kind::kSync)
        return SQLITE_OK;
      now_ += sync_time_;
      if (!call.isOfLog() && commits_in_between_-- > 0)
        commit(1);
      return SQLITE_OK;
    });
    flusher_->flushAndWait(StoreFlusher::Urgency::kSessionEnd);
  }
  void commit(size_t bytes) {
    store_->set("text", std::string(bytes, static_cast<char>('a' + ++commits_ % 26)));
    EXPECT_TRUE(store_->synchronizeUntold());
  }
  /// Whether the flush restarts the log. A restarted log has a new header.
  bool flushRestartsLog(StoreFlusher::Urgency urgency) {
    constexpr size_t kHeaderBytes = 32;
    const std::string before = bytesOf(path() + "-wal").substr(0, kHeaderBytes);
    flusher_->flush(urgency);
    return bytesOf(path() + "-wal").substr(0, kHeaderBytes) != before;
  }

  FaultyVfs vfs_;
  std::chrono::steady_clock::time_point now_;
  std::chrono::milliseconds sync_time_{0};
  std::atomic<int> commits_in_between_{0};
  int commits_ = 0;
  FlusherOnDemand* flusher_ = nullptr;
  std::unique_ptr<SqliteStore> store_;
};

constexpr auto kLongLog = static_cast<size_t>(kLogRestartBytes) + 100'000;

TEST_F(SqliteStoreOnASlowDisk, HoldsNoCommitOffForASyncWhileASessionIsOpen) {
  openIt();
  sync_time_ = kMaxHeldTime;
  for (int flush = 0; flush < 3; ++flush) {
    commit(kLongLog);
    EXPECT_FALSE(flushRestartsLog(StoreFlusher::Urgency::kRoutine)) << "flush " << flush;
  }
  EXPECT_TRUE(flushRestartsLog(StoreFlusher::Urgency::kSessionEnd));
}

TEST_F(SqliteStoreOnASlowDisk, LeavesNoLogForACommitToRestartByItself) {
  openIt();
  sync_time_ = kMaxHeldTime;
  commit(kLongLog);
  flusher_->flush(StoreFlusher::Urgency::kRoutine);
  const uint64_t syncs = vfs_.count(VfsCall::Kind::kSync);
  commit(1);
  EXPECT_EQ(vfs_.count(VfsCall::Kind::kSync), syncs) << "it would be synced, by the caller";
}

TEST_F(SqliteStoreOnASlowDisk, TakesAFlushThatHasNothingToWriteBackForNoSignOfAQuickOne) {
  openIt();
  sync_time_ = kMaxHeldTime;
  commit(kLongLog);
  flusher_->flush(StoreFlusher::Urgency::kRoutine);
  EXPECT_FALSE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
}

TEST_F(SqliteStoreOnASlowDisk, RestartsTheLogOnceTheDiskIsQuickAgain) {
  openIt();
  sync_time_ = kMaxHeldTime;
  commit(kLongLog);
  EXPECT_FALSE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
  sync_time_ = kMaxHeldTime / 2;
  commit(1);
  EXPECT_TRUE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
}

TEST_F(SqliteStoreOnASlowDisk, RestartsALogPastItsGreatestLengthNevertheless) {
  openIt(static_cast<int64_t>(2 * kLongLog));
  sync_time_ = kMaxHeldTime;
  commit(kLongLog);
  EXPECT_FALSE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
  commit(kLongLog);
  EXPECT_TRUE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
  store_->shutdown();
  EXPECT_EQ(open()->get("text"), store_->get("text"));
}

TEST_F(SqliteStoreOnASlowDisk, HoldsNoCommitOffForAWriteBackAlthoughCommitsKeepComing) {
  openIt();
  sync_time_ = kMaxHeldTime;
  for (int i = 0; i <= kHardBytes >> 22; ++i)
    commit(size_t{4} << 20);
  commits_in_between_ = kCatchUpRounds;
  EXPECT_FALSE(flushRestartsLog(StoreFlusher::Urgency::kRoutine));
  sync_time_ = std::chrono::milliseconds(0);
  commits_in_between_ = 1;
  EXPECT_TRUE(flushRestartsLog(StoreFlusher::Urgency::kRoutine)) << "quick, they may wait";
}

TEST_F(SqliteStoreTest, TheFileOfTheLogIsShortAgainAfterABurst) {
  const auto store = open();
  store->flushAndWait();
  const std::string log = path() + "-wal";
  for (int i = 0; i < 12; ++i) {
    store->set("long " + std::to_string(i), std::string(size_t{1} << 20, 'x'));
    store->synchronize();
  }
  store->flushAndWait();
  store->set("text", "after");
  store->flushAndWait();
  EXPECT_LE(static_cast<int64_t>(std::filesystem::file_size(log)), kLogKeptBytes + (int64_t{1} << 16));
  EXPECT_EQ(inTheFile("long 11"), Value(std::string(size_t{1} << 20, 'x')));
}

/// Many runs: the truncating thread may get the lock again before the commit that waits for it.
class SqliteStoreWithALongLog : public SqliteStoreTest, public ::testing::WithParamInterface<int> {};

TEST_P(SqliteStoreWithALongLog, LetsACommitGoBetweenTwoPiecesThatAreCutOff) {
  FaultyVfs vfs;
  std::latch one_commits_and_one_waits(1);
  SqliteStoreOptions options = optionsFor(folder_.path(), vfs);
  options.when_waiting = [&one_commits_and_one_waits] { one_commits_and_one_waits.count_down(); };
  SqliteStore store(options, log_);
  store.flushAndWait();
  for (int64_t bytes = 0; bytes <= kLogKeptBytes + 2 * kLogCutBytes; bytes += int64_t{1} << 20) {
    store.set("long " + std::to_string(bytes), std::string(size_t{1} << 20, 'x'));
    store.synchronizeUntold();
  }
  std::vector<std::thread> threads;
  std::vector<uint64_t> writes_before_cut;
  vfs.decide([&](const VfsCall& call) {
    if (call.kind != VfsCall::Kind::kTruncate || !call.isOfLog())
      return SQLITE_OK;
    writes_before_cut.push_back(vfs.count(VfsCall::Kind::kWrite));
    if (writes_before_cut.size() > 1)
      return SQLITE_OK;
    for (const char* key : {"one", "other"}) {
      threads.emplace_back([&store, key] {
        store.set(key, 1);
        EXPECT_TRUE(store.synchronizeUntold());
      });
    }
    one_commits_and_one_waits.wait();
    return SQLITE_OK;
  });
  store.flushAndWait();
  for (std::thread& thread : threads)
    thread.join();
  vfs.heal();
  ASSERT_GE(writes_before_cut.size(), 2U);
  EXPECT_GT(writes_before_cut[1], writes_before_cut[0]);
}
INSTANTIATE_TEST_SUITE_P(Again, SqliteStoreWithALongLog, ::testing::Range(0, 8));

TEST_F(SqliteStoreTest, AnySequenceOfChangesIsFoundAgain) {
  std::mt19937 random(11);
  int next = 0;
  auto store = open();
  for (int round = 0; round < 400; ++round) {
    const char* key = random() % 2 == 0 ? "one" : "two";
    MutableArray list(store->get(key));
    switch (random() % 7) {
      case 0:
      case 1:
        for (auto i = random() % 60; i > 0; --i)
          list.append(Dictionary{{"id", next++}, {"text", std::string(random() % 300, 't')}});
        break;
      case 2: {
        auto skip = random() % (list.size() + 1);
        list.retainIf([&skip](const Value&) { return skip == 0 || skip-- == 0; });
        break;
      }
      case 3:
        list.retainIf([&random](const Value&) { return random() % 4 != 0; });
        break;
      case 4:
        if (!list.empty())
          list.replaceAt(random() % list.size(), next++);
        break;
      case 5:
        for (auto i = random() % 5; i > 0 && !list.empty(); --i)
          list.removeAt(random() % list.size());
        break;
      default:
        if (random() % 10 == 0)
          list.removeAll();
    }
    if (random() % 30 == 0)
      store->set(key, random() % 2 == 0 ? Value() : Value("a text for once"));
    else
      store->set(key, Value(std::move(list)));
    if (random() % 3 == 0)
      store->synchronize();
    if (random() % 20 == 0) {
      const Value one = store->get("one");
      const Value two = store->get("two");
      store.reset();
      store = open();
      ASSERT_EQ(store->get("one"), one) << "round " << round;
      ASSERT_EQ(store->get("two"), two) << "round " << round;
    }
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SqliteStoreTest, ThreadsReadWriteCommitAndFlushAtOnce) {
  auto store = open();
  std::vector<std::thread> threads;
  for (const char* key : {"one", "two", "three"}) {
    threads.emplace_back([&store, key] {
      for (int i = 0; i < 200; ++i) {
        append(*store, key, Dictionary{{"id", i}});
        store->get("one");
        if (i % 3 == 0)
          store->synchronize();
        if (i % 50 == 0)
          store->flushNow();
      }
      store->commitTurn();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  store.reset();
  store = open();
  for (const char* key : {"one", "two", "three"}) {
    ASSERT_EQ(store->get(key).size(), 200u);
    EXPECT_EQ(store->get(key).array()[199]["id"], Value(199));
  }
}

// ----------------------------------------------------------------------------------------------------- ends and limits

// ------------------------------------------------------------------------------------------------------ a dying thread

/// Threads that record until released.
class Recorders {
 public:
  explicit Recorders(SqliteStore& store) {
    for (int i = 0; i < kThreads; ++i) {
      threads_.emplace_back([this, &store, i] {
        const std::string name = "recorder-" + std::to_string(i);
        for (int number = 0; !over_; ++number) {
          store.set(name, number);
          store.synchronizeUntold();
        }
      });
    }
  }
  ~Recorders() {
    over_ = true;
    for (std::thread& thread : threads_)
      thread.join();
  }
  Recorders(const Recorders&) = delete;
  Recorders& operator=(const Recorders&) = delete;

 private:
  static constexpr int kThreads = 4;
  std::atomic<bool> over_{false};
  std::vector<std::thread> threads_;
};

TEST_F(SqliteStoreTest, TellsTruthfullyWhatIsKeptWhileThreadsRecord) {
  constexpr int kCalls = 60;
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  const Recorders recorders(*store);
  int number = 0;
  const auto set = [&] {
    store->set("number", ++number);
    return store->synchronizeUntold();
  };
  // An inspector that the writers have overtaken finds nothing.
  const auto found = [this] {
    Value value;
    for (int look = 0; look < 1'000 && value.isAbsent(); ++look)
      value = inTheFile("number");
    return value;
  };
  for (int call = 0; call < kCalls; ++call) {
    ASSERT_TRUE(set()) << "whatever others have written meanwhile, and not committed yet";
    ASSERT_EQ(found(), Value(number));
  }
  vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
  store->synchronizeUntold();  // for one that had begun before
  for (int call = 0; call < kCalls; ++call)
    ASSERT_FALSE(set());
  EXPECT_EQ(found(), Value(kCalls));
  vfs.heal();
  store->synchronizeUntold();
  for (int call = 0; call < kCalls; ++call)
    ASSERT_TRUE(set());
  EXPECT_EQ(found(), Value(number));
}

TEST_F(SqliteStoreTest, TurnsAwayADyingThreadThatIsInTheMiddleOfACommitItself) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("list", Array{1});
  store->synchronize();
  bool asked = false;
  vfs.decide([&](const VfsCall& call) {
    if (call.kind == VfsCall::Kind::kWrite && !std::exchange(asked, true)) {
      EXPECT_FALSE(store->trySetAndSynchronize("list", Array{1, 2}));
      EXPECT_EQ(store->tryGet("list"), Value(Array{1}));
    }
    return SQLITE_OK;
  });
  store->set("other", "text");
  store->synchronize();
  EXPECT_TRUE(asked);
  EXPECT_EQ(store->get("list"), Value(Array{1}));
  EXPECT_TRUE(store->trySetAndSynchronize("list", Array{1, 2}));
}

TEST_F(SqliteStoreTest, ADyingThreadsWriteTakesTheTurnsOtherWritesAlongAndWritesNoLine) {
  const auto store = open();
  store->set("wish", true);
  EXPECT_TRUE(store->trySetAndSynchronize("reports", Array{"one"}));
  EXPECT_EQ(inTheFile("wish"), Value(true));
  EXPECT_EQ(inTheFile("reports"), Value(Array{"one"}));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SqliteStoreTest, RefusesADyingThreadWhenTheDiskIsFullAndStaysAsItWas) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("reports", Array{"one"});
  store->synchronize();
  vfs.decide([](const VfsCall& call) { return call.kind == VfsCall::Kind::kWrite ? SQLITE_FULL : SQLITE_OK; });
  store->set("other", 1);
  EXPECT_FALSE(store->trySetAndSynchronize("reports", Array{"one", "two"}));
  EXPECT_EQ(store->get("reports"), Value(Array{"one"}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_FALSE(store->synchronize());
  vfs.decide([](const VfsCall&) { return SQLITE_OK; });
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(inTheFile("other"), Value(1));
}

TEST_F(SqliteStoreTest, RefusesADyingThreadAValueThatNoStoreCanKeepAndTakesTheOthers) {
  const auto store = open();
  Value deep = 1;
  for (size_t i = 0; i <= runtime::kMaxStoredDepth; ++i)
    deep = Array{deep};
  deep = Dictionary{{"deep", deep}};
  store->set("wish", true);
  EXPECT_FALSE(store->trySetAndSynchronize("reports", deep));
  EXPECT_TRUE(store->get("reports").isAbsent());
  EXPECT_EQ(inTheFile("wish"), Value(true));
  store->set("deep", deep);
  EXPECT_TRUE(store->trySetAndSynchronize("reports", Array{"one"}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_FALSE(store->synchronize());
  EXPECT_EQ(log_.countContaining("the value of \"deep\" cannot be kept"), 1U);
}

TEST_F(SqliteStoreTest, RefusesADyingThreadWhenItLivesInMemory) {
  leaveStore(1);
  sql("PRAGMA user_version = 99");
  const auto store = open();
  ASSERT_EQ(store->opening(), runtime::StoreOpening::kNewerVersion);
  EXPECT_FALSE(store->trySetAndSynchronize("reports", Array{"one"}));
  EXPECT_TRUE(store->get("reports").isAbsent());
  store->set("other", 1);
  EXPECT_FALSE(store->synchronize());
}

TEST_F(SqliteStoreTest, AfterShutdownWritesStayInMemoryAndTheStoreIsFree) {
  const auto store = open();
  store->set("before", 1);
  store->shutdown();
  store->set("after", 2);
  store->synchronize();
  store->flushNow();
  store->flushAndWait();
  store->shutdown();
  EXPECT_EQ(store->get("after"), Value(2));
  const auto next = open();
  EXPECT_EQ(next->opening(), runtime::StoreOpening::kOpened);
  EXPECT_EQ(next->get("before"), Value(1));
  EXPECT_TRUE(next->get("after").isAbsent());
}

TEST_F(SqliteStoreTest, AValueThatCannotBeStoredIsToldOnceAndHoldsNothingElseUp) {
  {
    const auto store = open();
    store->set("scalar", "before");
    store->synchronize();
    store->set("scalar", Dictionary{{"deep", tooDeep()}});
    store->set("other", 5);
    EXPECT_FALSE(store->synchronize());
    store->set("other", 6);
    EXPECT_TRUE(store->synchronize());
    EXPECT_EQ(
        log_.messages(),
        std::vector<std::string>{"Morvik host: the value of \"scalar\" cannot be kept beyond this process, since it is "
                                 "nested deeper than 512 or longer than 67108864 bytes: the store \"" +
                                 path() + "\" keeps the one before it."});
  }
  const auto next = open();
  EXPECT_EQ(next->get("scalar"), Value("before"));
  EXPECT_EQ(next->get("other"), Value(6));
}

TEST_F(SqliteStoreTest, AnElementThatCannotBeStoredKeepsNoNeighbourFromTheDisk) {
  const Value too_long = std::string(runtime::kMaxStoredBytes + 1, 'x');
  {
    const auto store = open();
    store->set("list", Array{1, tooDeep(), 2, too_long, 3});
    EXPECT_FALSE(store->synchronize()) << "not all of it is kept";
    EXPECT_EQ(inTheFile("list"), Value(Array{1, 2, 3}));
    EXPECT_EQ(store->get("list").size(), 5U) << "in memory it is there";
    const std::string line =
        "Morvik host: an element of the list \"list\" cannot be kept beyond this process, since it is nested deeper than "
        "512 or longer than 67108864 bytes: the store \"" +
        path() + "\" keeps everything else of the list.";
    EXPECT_EQ(log_.messages(), std::vector<std::string>{line});
    store->append("list", 4);
    EXPECT_TRUE(store->synchronize());
    append(*store, "list", 5);
    EXPECT_TRUE(store->synchronize());
    EXPECT_EQ(inTheFile("list"), Value(Array{1, 2, 3, 4, 5}));
    EXPECT_EQ(log_.lines().size(), 1U) << "it is told once";
    store->append("list", too_long);
    store->append("list", 6);
    EXPECT_FALSE(store->synchronize());
    EXPECT_EQ(inTheFile("list"), Value(Array{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(log_.messages(), (std::vector<std::string>{line, line}));
  }
  EXPECT_EQ(open()->get("list"), Value(Array{1, 2, 3, 4, 5, 6}));
}

TEST_F(SqliteStoreTest, AListGoesOnWhenAnElementThatCannotBeStoredLeavesIt) {
  {
    const auto store = open();
    store->set("list", Array{1, tooDeep(), 2, tooDeep(), 3});
    store->synchronize();
    const auto removeAt = [&store](size_t place) {
      MutableArray list(store->get("list"));
      list.removeAt(place);
      store->set("list", Value(std::move(list)));
      EXPECT_TRUE(store->synchronize());
    };
    removeAt(1);
    EXPECT_EQ(inTheFile("list"), Value(Array{1, 2, 3}));
    removeAt(1);
    EXPECT_EQ(inTheFile("list"), Value(Array{1, 3}));
    removeAt(0);
    EXPECT_EQ(inTheFile("list"), Value(Array{3}));
    store->set("list", Array{7, 8});
    EXPECT_TRUE(store->synchronize());
    store->set("list", Value());
    EXPECT_TRUE(store->synchronize());
    store->set("list", Array{tooDeep(), 9});
    EXPECT_FALSE(store->synchronize());
    EXPECT_EQ(inTheFile("list"), Value(Array{9}));
    EXPECT_FALSE(std::filesystem::exists(path() + ".unreadable-1"));
  }
  EXPECT_EQ(open()->get("list"), Value(Array{9}));
}

TEST_F(SqliteStoreTest, ADyingThreadIsRefusedAnElementThatCannotBeStoredAndItsNeighboursStay) {
  const auto store = open();
  EXPECT_TRUE(store->trySetAndSynchronize("reports", Array{"one"}));
  EXPECT_FALSE(store->trySetAndSynchronize("reports", Array{"one", tooDeep()}));
  EXPECT_EQ(store->get("reports"), Value(Array{"one"}));
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(store->trySetAndSynchronize("reports", Array{"one", "two"}));
  EXPECT_EQ(inTheFile("reports"), Value(Array{"one", "two"}));
}

TEST_F(SqliteStoreTest, AFullDiskMovesNothingInAListWithAnElementThatCannotBeStored) {
  FaultyVfs vfs;
  const auto store = openOn(vfs);
  store->set("list", Array{1, tooDeep(), 2});
  store->synchronize();
  vfs.failAll(VfsCall::Kind::kWrite, SQLITE_FULL);
  MutableArray list(store->get("list"));
  list.removeAt(0);
  list.append(tooDeep());
  list.append(3);
  store->set("list", Value(std::move(list)));
  EXPECT_FALSE(store->synchronize());
  EXPECT_FALSE(store->synchronize());
  EXPECT_EQ(inTheFile("list"), Value(Array{1, 2}));
  vfs.heal();
  EXPECT_FALSE(store->synchronize()) << "one element is kept in memory alone";
  EXPECT_EQ(inTheFile("list"), Value(Array{2, 3}));
}

TEST_F(SqliteStoreTest, WhenTheNumbersOfPropertiesAreUsedUpANewOneIsRefused) {
  leaveStore(1);
  sql("INSERT INTO properties VALUES(" + std::to_string(kMaxPropertyId) + ",'last',x'0103')");
  {
    const auto store = open();
    EXPECT_EQ(store->get("last"), Value(true));
    store->set("one more", 1);
    store->set("text", "changed");
    store->synchronize();
    EXPECT_EQ(log_.countContaining("the value of \"one more\" cannot be kept"), 1u);
  }
  EXPECT_EQ(open()->get("text"), Value("changed"));
}

// ---------------------------------------------------------------------------------------------------------- inspectors

std::set<std::string> filesIn(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename());
  return names;
}

TEST_F(SqliteStoreTest, AnInspectorReadsAStoreInUseAndChangesNoFile) {
  const auto store = open();
  store->set("list", numbers(0, 100));
  store->flushAndWait();
  append(*store, "list", numbers(100, 101).array()[0]);
  store->synchronize();
  const std::set<std::string> files = filesIn(folder_.path());
  const std::string file_before = bytesOf(path());
  const std::string log_before = bytesOf(path() + "-wal");
  {
    SqliteStoreOptions options = optionsFor(folder_.path());
    options.read_only = true;
    SqliteStore inspector(options, log_);
    EXPECT_EQ(inspector.opening(), runtime::StoreOpening::kOpened);
    EXPECT_EQ(inspector.get("list"), numbers(0, 101));
    inspector.set("list", Value());
    inspector.synchronize();
  }
  EXPECT_EQ(filesIn(folder_.path()), files);
  EXPECT_EQ(bytesOf(path()), file_before);
  EXPECT_EQ(bytesOf(path() + "-wal"), log_before);
  store->set("text", "the owner goes on");
  store->shutdown();
  EXPECT_EQ(open()->get("text"), Value("the owner goes on"));
}

TEST_F(SqliteStoreTest, AnInspectorLeavesDamagedRecordsWhereTheyAre) {
  leaveStore(3);
  sql("UPDATE elements SET value=x'FF' WHERE id=(SELECT max(id) FROM elements)");
  const std::string before = bytesOf(path());
  SqliteStoreOptions options = optionsFor(folder_.path());
  options.read_only = true;
  SqliteStore inspector(options, log_);
  EXPECT_EQ(inspector.get("list"), numbers(0, 2));
  EXPECT_EQ(log_.messages(), std::vector<std::string>{"Morvik host: 1 records of the store \"" + path() +
                                                      "\" are damaged and left out; everything else is shown."});
  EXPECT_EQ(bytesOf(path()), before);
}

TEST_F(SqliteStoreTest, AnInspectorOfNothingMakesNothing) {
  SqliteStoreOptions options = optionsFor(folder_ / "missing");
  options.read_only = true;
  SqliteStore inspector(options, log_);
  EXPECT_EQ(inspector.opening(), runtime::StoreOpening::kNothingToRead);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{"Morvik host: there is no store to read at \"" +
                                                      (folder_ / "missing/morvik.store") +
                                                      "\" (No such file or directory): check the folder."});
  EXPECT_FALSE(std::filesystem::exists(folder_ / "missing"));
}

TEST_F(SqliteStoreTest, AnInspectorOfGarbageOrOfANewerStoreLeavesItAlone) {
  SqliteStoreOptions options = optionsFor(folder_.path());
  options.read_only = true;
  writeBytes(path(), std::string(5000, 'g'));
  EXPECT_EQ(SqliteStore(options, log_).opening(), runtime::StoreOpening::kNothingToRead);
  EXPECT_EQ(bytesOf(path()), std::string(5000, 'g'));
  std::filesystem::remove(path());
  leaveStore(1);
  sql("PRAGMA user_version=7");
  const std::string before = bytesOf(path());
  EXPECT_EQ(SqliteStore(options, log_).opening(), runtime::StoreOpening::kNewerVersion);
  EXPECT_EQ(bytesOf(path()), before);
  EXPECT_EQ(log_.countContaining("has version 7, this program knows versions up to 1: use a newer program"), 1u);
}

}  // namespace
}  // namespace morvik::host
