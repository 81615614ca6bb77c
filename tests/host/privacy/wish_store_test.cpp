// A store with its file of the wish, on the store's own thread.
#include "host/privacy/wish_store.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/store/sqlite_store.h"
#include "services/MorvikGVUserDefaults.h"
#include "testing/recording_log.h"
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
  std::optional<kit::Error> write(bool is_forgotten) override {
    written = is_forgotten;
    return std::nullopt;
  }
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

}  // namespace
}  // namespace morvik::host
