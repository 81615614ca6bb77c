#include "runtime/ledger/ledger_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "testing/recording_log.h"
#include "tests/runtime/ledger/book_rig.h"

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Value;
using ::testing::ElementsAre;
using ::testing::Pair;

class LedgerStoreTest : public ::testing::Test, protected BookRig {
 protected:
  LedgerStore counted_{store, *book, list_lock};
};

TEST_F(LedgerStoreTest, CountsWhatTheKitSets) {
  counted_.set("commerceConversionInfos", Array{1, 2});
  EXPECT_EQ(of("commerce clicks").recorded, 2U);
  EXPECT_EQ(store.get("commerceConversionInfos"), Value(Array{1, 2}));
  EXPECT_EQ(counted_.get("commerceConversionInfos"), Value(Array{1, 2}));
}

TEST_F(LedgerStoreTest, KeepsTheBookInOneCommitWithWhatItCounts) {
  book->recorded(LedgerKind::kCommerceClicks, 2);
  counted_.set("commerceConversionInfos", Array{1, 2});
  EXPECT_TRUE(counted_.synchronize());
  const auto all = counted_.all();
  EXPECT_THAT(all, ElementsAre(Pair("commerceConversionInfos", Value(Array{1, 2})), Pair("host.ledger", ::testing::_)));
}

TEST_F(LedgerStoreTest, LetsADyingProcessWriteWithoutWaitingForTheBook) {
  EXPECT_TRUE(counted_.trySetAndSynchronize("MorvikCoreUserInfo_Crash", Array{1}));
  EXPECT_EQ(counted_.tryGet("MorvikCoreUserInfo_Crash"), Value(Array{1}));
  EXPECT_EQ(of("crash reports").recorded, 1U);
}

/// Could not be read when it was opened. Notes for each commit whether lists could be changed meanwhile.
class UnavailableStore final : public NotingStore {
 public:
  UnavailableStore(const std::string& folder, kit::LogSink& log, kit::ListLock& list_lock)
      : NotingStore(folder, log), list_lock_(list_lock) {}
  StoreOpening opening() const override { return StoreOpening::kUnavailable; }
  void setWhenTakenOver(kit::Block hook) override { hook_ = std::move(hook); }
  bool synchronizeUntold() override {
    note();
    return true;
  }
  bool commitTurn() override {
    note();
    return true;
  }
  void shutdown() override { note(); }
  void recover() { hook_(); }
  std::vector<bool> were_lists_still;

 private:
  void note() {
    const std::unique_lock free(list_lock_.mutex, std::try_to_lock);
    were_lists_still.push_back(!free.owns_lock());
  }
  kit::ListLock& list_lock_;
  kit::Block hook_;
};

TEST(UnavailableLedgerStore, LetsNoListBeChangedWhileACommitMayTakeOverWhatTheFileHolds) {
  const test::ScratchFolder folder;
  ::morvik::testing::RecordingLog log;
  kit::LogLevels levels;
  kit::ListLock list_lock;
  const host::SystemClock clock;
  UnavailableStore store(folder.path(), log, list_lock);
  LedgerBook book({.store = store, .list_lock = list_lock, .logger = services::Logger(levels, log), .clock = clock});
  LedgerStore counted(store, book, list_lock);
  int told = 0;
  counted.setWhenTakenOver([&told] { ++told; });
  counted.synchronize();
  counted.commitTurn();
  counted.shutdown();
  EXPECT_THAT(store.were_lists_still, ElementsAre(true, true, true));
  store.recover();
  EXPECT_EQ(told, 1);
  counted.synchronize();
  counted.commitTurn();
  EXPECT_THAT(store.were_lists_still, ElementsAre(true, true, true, false, false));
}

#ifndef NDEBUG
using LedgerStoreDeathTest = LedgerStoreTest;

TEST_F(LedgerStoreDeathTest, TellsWithTheNextCommitWhatNoRuleExplains) {
  append(kImpressions, 1);
  counted_.set(kImpressions, Array());
  EXPECT_DEATH(counted_.synchronize(), "no rule gives up \\(impressions\\)");
  EXPECT_DEATH(counted_.commitTurn(), "no rule gives up \\(impressions\\)");
}
#endif

}  // namespace
}  // namespace morvik::runtime
