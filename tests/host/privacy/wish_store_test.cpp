// A store with its file of the wish, on the store's own thread.
#include "host/privacy/wish_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/privacy/wish_file.h"
#include "host/privacy/wish_sectors.h"
#include "host/store/sqlite_store.h"
#include "services/MorvikGVUserDefaults.h"
#include "testing/recording_log.h"
#include "tests/host/privacy/held_file.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

constexpr std::string_view kWishKey = services::property::MorvikCoreUserInfo_isGDPRForgetMe;

/// Cannot be read at first. Whoever reads it again waits until it is let go.
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
  std::optional<kit::Error> write(bool is_forgotten, Word) override {
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
  SqliteStore bare({.place = {.folder = folder.path()}}, log);
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
  explicit VanishingFile(const StorePlace& place) : file_(place) {}
  std::string path() const override { return file_.path(); }
  Reading read() override { return file_.read(); }
  void goOnFrom(const Reading& reading) override { file_.goOnFrom(reading); }
  std::optional<kit::Error> write(bool is_forgotten, Word word) override { return file_.write(is_forgotten, word); }
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
  WishFile file_;
};

/// With its file, on the store's own thread.
class WishStoreWithFile : public ::testing::Test {
 protected:
  StorePlace place() const { return {.folder = folder_.path()}; }
  std::string path() const { return WishFile::pathBeside(place()); }
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
  SqliteStore bare_{{.place = place()}, log_};
  WishStore store_{bare_, &file_, logger_};
};

TEST_F(WishStoreWithFile, WritesAnewWhatWasRemovedBeforeItWasSynced) {
  ASSERT_TRUE(isOnDiskSoon());
  for (const bool is_forgotten : {true, false}) {
    file_.vanishes = true;
    say(is_forgotten);
    EXPECT_TRUE(isOnDiskSoon()) << store_.problem();
    const auto found = newestWishSector(test::bytesOf(path()));
    ASSERT_TRUE(found);
    EXPECT_FALSE(file_.vanishes);
    EXPECT_EQ(found->is_forgotten, is_forgotten);
    EXPECT_EQ(store_.fileState(), WishFileState::kGood);
  }
}

TEST_F(WishStoreWithFile, DoesNotUndoAnotherProcesssWishByTryingAnEarlierOneAgain) {
  ASSERT_TRUE(isOnDiskSoon());
  say(true);
  ASSERT_TRUE(isOnDiskSoon());
  const test::Held held(path());
  say(false);  // cannot be written: somebody is in the middle of a wish
  EXPECT_FALSE(store_.isOnDisk());
  test::writeBytes(path(), wishSectorBytes({10, true}) + wishSectorBytes({9, false}));
  held.letGo();
  EXPECT_TRUE(isOnDiskSoon());
  EXPECT_EQ(newestWishSector(test::bytesOf(path())), (WishSector{10, true}));
}

}  // namespace
}  // namespace morvik::host
