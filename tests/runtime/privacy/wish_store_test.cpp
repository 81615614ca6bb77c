// A store with the file of the wish, on the store's own thread.
#include "runtime/privacy/wish_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/store/sqlite_store.h"
#include "host/store/wish_file.h"
#include "host/store/wish_sectors.h"
#include "services/MorvikGVUserDefaults.h"
#include "testing/recording_log.h"
#include "tests/support/held_file.h"
#include "tests/support/scratch_folder.h"

namespace morvik::runtime {
namespace {

constexpr std::string_view kWishKey = services::property::MorvikCoreUserInfo_isGDPRForgetMe;

/// Cannot be read at first. Whoever reads it again waits until it is released.
class SlowFile final : public MachineWishFile {
 public:
  std::string path() const override { return "slow"; }
  Reading read() override {
    if (!std::exchange(was_read_, true))
      return {State::kNotRead, true, "an I/O error"};
    begun_.set_value();
    let_go_.get_future().wait();
    return {State::kRead, true, "", 1};
  }
  void goOnFrom(const Reading&) override {}
  Turn takeTurn(std::chrono::milliseconds) override { return {}; }
  std::optional<kit::Error> write(bool is_forgotten, Word, const Turn&) override {
    written = is_forgotten;
    return std::nullopt;
  }
  bool isThere() const override { return true; }
  std::optional<kit::Error> sync() override { return std::nullopt; }
  std::optional<kit::Error> prepare(bool) override { return std::nullopt; }
  std::optional<kit::Error> adopt() override { return std::nullopt; }
  void discard() override {}

  void waitUntilItIsRead() { begun_.get_future().wait(); }
  void letGo() { let_go_.set_value(); }
  std::optional<bool> written;

 private:
  bool was_read_ = false;
  std::promise<void> begun_;
  std::promise<void> let_go_;
};

TEST(WishStore, KeepsNobodyWaitingForTheFileToBeReadAgain) {
  const test::ScratchFolder folder;
  testing::RecordingLog log;
  const kit::LogLevels levels;
  const services::Logger logger(levels, log);
  SlowFile file;
  host::SqliteStore bare({.place = {.folder = folder.path()}}, log);
  WishStore store(bare, &file, logger);
  EXPECT_EQ(store.get(kWishKey), kit::Value(true));
  store.flushNow();
  file.waitUntilItIsRead();

  EXPECT_EQ(store.fileState(), WishFileState::kNotRead);
  store.set(kWishKey, false);
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(file.written, false);
  file.letGo();
  store.shutdown();
  store.takeReadAgain();
  EXPECT_EQ(store.get(kWishKey), kit::Value(false)) << "what was read is older than what was said";
}

/// A file that somebody may remove just before it is synced.
class VanishingFile final : public MachineWishFile {
 public:
  explicit VanishingFile(const host::StorePlace& place) : file_(place) {}
  std::string path() const override { return file_.path(); }
  Reading read() override { return file_.read(); }
  void goOnFrom(const Reading& reading) override { file_.goOnFrom(reading); }
  Turn takeTurn(std::chrono::milliseconds longest) override { return file_.takeTurn(longest); }
  std::optional<kit::Error> write(bool is_forgotten, Word word, const Turn& turn) override {
    return file_.write(is_forgotten, word, turn);
  }
  bool isThere() const override { return file_.isThere(); }
  std::optional<kit::Error> sync() override {
    if (vanishes.exchange(false))
      std::filesystem::remove(path());
    return file_.sync();
  }
  std::optional<kit::Error> prepare(bool is_forgotten) override { return file_.prepare(is_forgotten); }
  std::optional<kit::Error> adopt() override { return file_.adopt(); }
  void discard() override { file_.discard(); }

  std::atomic<bool> vanishes{false};

 private:
  host::WishFile file_;
};

/// With its file, on the store's own thread.
class WishStoreWithFile : public ::testing::Test {
 protected:
  host::StorePlace place() const { return {.folder = folder_.path()}; }
  std::string path() const { return host::WishFile::pathFor(place()); }
  /// True once the latest wish is on the disk.
  bool isOnDiskSoon() {
    for (int flush = 0; flush < 50 && !store_.isOnDisk(); ++flush)
      bare_.flushAndWait();
    return store_.isOnDisk();
  }
  void say(bool is_forgotten) {
    store_.set(kWishKey, is_forgotten);
    EXPECT_TRUE(store_.synchronize());
  }

  test::ScratchFolder folder_;
  testing::RecordingLog log_;
  const kit::LogLevels levels_;
  const services::Logger logger_{levels_, log_};
  VanishingFile file_{place()};
  host::SqliteStore bare_{{.place = place()}, log_};
  WishStore store_{bare_, &file_, logger_};
};

TEST_F(WishStoreWithFile, WritesAgainWhatWasRemovedBeforeItWasSynced) {
  ASSERT_TRUE(isOnDiskSoon());
  for (const bool is_forgotten : {true, false}) {
    file_.vanishes = true;
    say(is_forgotten);
    EXPECT_TRUE(isOnDiskSoon()) << store_.problem();
    const auto found = host::newestWishSector(test::bytesOf(path()));
    ASSERT_TRUE(found);
    EXPECT_FALSE(file_.vanishes);
    EXPECT_EQ(found->is_forgotten, is_forgotten);
    EXPECT_EQ(store_.fileState(), WishFileState::kGood);
  }
}

TEST_F(WishStoreWithFile, WritesAgainWhatWasRemovedAfterItWasSynced) {
  for (const bool is_forgotten : {true, false}) {
    say(is_forgotten);
    ASSERT_TRUE(isOnDiskSoon());
    std::filesystem::remove(path());
    bare_.flushAndWait();
    auto found = host::newestWishSector(test::bytesOf(path()));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->is_forgotten, is_forgotten);
    EXPECT_TRUE(store_.isOnDisk());

    std::filesystem::remove_all(folder_.path());
    bare_.flushAndWait();
    found = host::newestWishSector(test::bytesOf(path()));
    ASSERT_TRUE(found) << "with the whole folder";
    EXPECT_EQ(found->is_forgotten, is_forgotten);
    EXPECT_TRUE(store_.isOnDisk());
    EXPECT_EQ(store_.fileState(), WishFileState::kGood);
  }
  EXPECT_EQ(log_.countContaining("cannot be written"), 0U);
}

TEST_F(WishStoreWithFile, LeavesRemovedWhatIsRemovedOnceTheEndHasBegun) {
  say(true);
  ASSERT_TRUE(isOnDiskSoon());
  store_.beginToEnd();
  std::filesystem::remove(path());
  bare_.flushAndWait();
  EXPECT_FALSE(std::filesystem::exists(path()));
  std::filesystem::remove_all(folder_.path());
  store_.shutdown();
  EXPECT_FALSE(std::filesystem::exists(folder_.path()));
  EXPECT_EQ(log_.countContaining("cannot be written"), 0U);
}

TEST_F(WishStoreWithFile, LeavesRemovedWhatIsRemovedBeforeItIsSyncedAtTheEnd) {
  say(true);
  ASSERT_TRUE(isOnDiskSoon());
  store_.beginToEnd();
  file_.vanishes = true;
  say(false);
  store_.shutdown();
  EXPECT_FALSE(file_.vanishes);
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(log_.countContaining("cannot be written"), 0U);
}

TEST_F(WishStoreWithFile, DoesNotUndoAnotherProcesssWishByTryingAnEarlierOneAgain) {
  ASSERT_TRUE(isOnDiskSoon());
  say(true);
  ASSERT_TRUE(isOnDiskSoon());
  const test::Held held(path());
  say(false);  // cannot be written: another process is in the middle of a wish
  EXPECT_FALSE(store_.isOnDisk());
  test::writeBytes(path(), host::wishSectorBytes({10, true}) + host::wishSectorBytes({9, false}));
  held.letGo();
  EXPECT_TRUE(isOnDiskSoon());
  EXPECT_EQ(host::newestWishSector(test::bytesOf(path())), (host::WishSector{10, true}));
}

/// Says "forgotten" at first; then another process has its turn until it ends it.
class BusyFile final : public MachineWishFile {
 public:
  std::string path() const override { return "busy"; }
  Reading read() override { return {State::kRead, true, "", 1}; }
  void goOnFrom(const Reading&) override {}
  /// A caller that would wait for the other process waits until callers may give up, or the turn ends.
  Turn takeTurn(std::chrono::milliseconds longest) override {
    std::unique_lock lock(mutex_);
    ++turns_[longest > std::chrono::milliseconds(0) ? kWaiting : kAtOnce];
    changed_.notify_all();
    if (longest > std::chrono::milliseconds(0))
      changed_.wait(lock, [this] { return give_up_ || !is_busy_; });
    return is_busy_ ? Turn{.held_up = kit::Error{"another process is writing it"}} : Turn{};
  }
  std::optional<kit::Error> write(bool is_forgotten, Word, const Turn& turn) override {
    const std::scoped_lock lock(mutex_);
    if (turn.held_up && !is_forgotten)
      return turn.held_up;
    written_ = is_forgotten;
    return std::nullopt;
  }
  bool isThere() const override { return true; }
  std::optional<kit::Error> sync() override { return std::nullopt; }
  std::optional<kit::Error> prepare(bool) override { return std::nullopt; }
  std::optional<kit::Error> adopt() override { return std::nullopt; }
  void discard() override {}

  enum Patience : size_t { kAtOnce, kWaiting };
  int turns(Patience patience) {
    const std::scoped_lock lock(mutex_);
    return turns_[patience];
  }
  void waitUntilSomebodyWaits() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return turns_[kWaiting] > 0; });
  }
  void letWaitersGiveUp() {
    const std::scoped_lock lock(mutex_);
    give_up_ = true;
    changed_.notify_all();
  }
  void letGo() {
    const std::scoped_lock lock(mutex_);
    is_busy_ = false;
    changed_.notify_all();
  }
  std::optional<bool> written() {
    const std::scoped_lock lock(mutex_);
    return written_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_busy_ = true;
  bool give_up_ = false;
  int turns_[2] = {0, 0};
  std::optional<bool> written_;
};

class WishStoreWithBusyFile : public ::testing::Test {
 protected:
  WishStoreWithBusyFile() { levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vTrace; }
  ~WishStoreWithBusyFile() override { file_.letGo(); }
  bool say(bool is_forgotten) {
    store_.set(kWishKey, is_forgotten);
    return store_.synchronize();
  }
  bool record(int number) {
    store_.append("events", kit::Value(number));
    return store_.synchronize();
  }

  test::ScratchFolder folder_;
  testing::RecordingLog log_;
  kit::LogLevels levels_;
  const services::Logger logger_{levels_, log_};
  BusyFile file_;
  host::SqliteStore bare_{{.place = {.folder = folder_.path()}, .flush_delay = std::chrono::hours(1)}, log_};
  WishStore store_{bare_, &file_, logger_};
};

TEST_F(WishStoreWithBusyFile, TriesAWithdrawalOnceAtItsCommitAndThenOnTheStoresThreadAlone) {
  EXPECT_TRUE(say(false));
  EXPECT_EQ(file_.turns(BusyFile::kAtOnce), 1);
  file_.waitUntilSomebodyWaits();  // the store's thread
  for (int event = 0; event < 20; ++event)
    EXPECT_TRUE(record(event));
  EXPECT_EQ(file_.turns(BusyFile::kAtOnce), 1);
  EXPECT_EQ(file_.turns(BusyFile::kWaiting), 1) << "nobody who records waits for another process";
  EXPECT_EQ(store_.fileState(), WishFileState::kGood) << "nor does who asks";
  EXPECT_FALSE(store_.isOnDisk());
  file_.letGo();
  bare_.flushAndWait();
  EXPECT_EQ(file_.written(), false);
  EXPECT_TRUE(store_.isOnDisk());
}

TEST_F(WishStoreWithBusyFile, WritesForgottenAtOnceAlthoughAnotherProcessHasItsTurn) {
  EXPECT_TRUE(say(false));
  file_.waitUntilSomebodyWaits();  // the store's thread
  auto set = std::async(std::launch::async, [this] { store_.set(kWishKey, true); });
  EXPECT_EQ(set.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "it holds a lock of the core's";
  EXPECT_EQ(file_.written(), true);
  file_.letGo();
}

TEST_F(WishStoreWithBusyFile, CallsAWithdrawalKeptOnceTheFileSaysItToo) {
  file_.letWaitersGiveUp();
  EXPECT_TRUE(say(false));
  EXPECT_FALSE(store_.isWishKept(true)) << "the store has it, but the next start would follow the file";
  store_.writeOnceMore();
  EXPECT_FALSE(store_.isWishKept(true));
  file_.letGo();
  store_.writeOnceMore();
  EXPECT_TRUE(store_.isWishKept(true));
  EXPECT_TRUE(say(true));
  EXPECT_TRUE(store_.isWishKept(true));
}

TEST_F(WishStoreWithBusyFile, SaysThatItIsNotWrittenUntilItIs) {
  file_.letWaitersGiveUp();
  EXPECT_TRUE(say(false));
  for (int flush = 0; flush < 3; ++flush) {
    bare_.flushAndWait();
    EXPECT_EQ(store_.fileState(), WishFileState::kNotWritten) << "what lay in it before can be synced all the same";
  }
  EXPECT_EQ(log_.countContaining("cannot be written (another process is writing it): it is tried again; end the other "
                                 "program that keeps the file locked"),
            1U);
  EXPECT_EQ(log_.countContaining("free some space"), 0U);
  EXPECT_EQ(log_.countContaining("can be written again"), 0U);
  EXPECT_FALSE(store_.commitTurn()) << "it is to be tried again";
  file_.letGo();
  bare_.flushAndWait();
  EXPECT_EQ(store_.fileState(), WishFileState::kGood);
  EXPECT_EQ(log_.countContaining("can be written again"), 1U);
  EXPECT_TRUE(store_.commitTurn());
}

}  // namespace
}  // namespace morvik::runtime
