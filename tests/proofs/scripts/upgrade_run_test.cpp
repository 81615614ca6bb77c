// What a version wrote, every later one takes over: the folders in tests/golden were made by programs/golden_store.cpp
// and stay as they are.
#include "proofs/scripts/upgrade_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/store/store_database.h"
#include "runtime/ledger/ledger_accounts.h"
#include "tests/support/paths.h"

namespace morvik::proofs {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

/// Of the devices whose stores were kept.
constexpr const char* kGoldenInstallId = "b9b501d1-d854-4b71-8002-1590ff0b4dc3";

struct KeptStore {
  const char* folder;  ///< below tests/golden
  int64_t version;     ///< of the file's layout
  bool has_ledger;     ///< the version that wrote it counted what it recorded
};

// Oldest first. One more for each rise of host::kStoreVersion, and for each new record that a store keeps.
constexpr KeptStore kKeptStores[] = {
    {"store-1", 1, false},
    {"store-1-ledger", 1, true},
};

std::string goldenFolder() {
  return test::sourceDir() + "/tests/golden";
}

StoreFilesKept goldenFiles(const std::string& folder) {
  StoreFilesKept files;
  for (const auto& entry : std::filesystem::directory_iterator(goldenFolder() + "/" + folder)) {
    std::ifstream in(entry.path(), std::ios::binary);
    files[entry.path().filename()] = {std::istreambuf_iterator<char>(in), {}};
  }
  return files;
}

/// SQLite's user version, four bytes of the file's header.
int64_t versionInHeader(const std::string& file) {
  constexpr size_t kPlace = 60;
  int64_t version = 0;
  for (const char byte : file.substr(kPlace, 4))
    version = version * 256 + static_cast<unsigned char>(byte);
  return version;
}

std::vector<std::string> allEvents() {
  std::vector<std::string> all;
  for (size_t number = 0; number < kUpgradeRunEvents; ++number)
    all.push_back(upgradeRunEvent(number));
  all.emplace_back("later event");
  return all;
}

void expectAllArrived(const UpgradeRunContinued& run) {
  EXPECT_THAT(run.store_lines, IsEmpty());
  EXPECT_EQ(run.events, allEvents());
  for (const char* kept :
       {kUpgradeRunImpression, kUpgradeRunClick, kUpgradeRunCommerceClick, kUpgradeRunCrash, kUpgradeRunUser}) {
    EXPECT_THAT(run.arrived, HasSubstr(kept));
  }
  for (const char* delivered :
       {"kept event", "later event", kUpgradeRunImpression, kUpgradeRunCrash, kUpgradeRunCommerceClick}) {
    EXPECT_THAT(run.stored, Not(HasSubstr(delivered)));
  }
  EXPECT_EQ(run.installs, 0U) << "the device is known already";
}

/// What the next process finds is counted, each once, and nothing else is.
void expectAllFound(const Ledger& found) {
  EXPECT_TRUE(found.isSound());
  EXPECT_EQ(found.of("activities").stored, kUpgradeRunEvents + 2) << "and a session's end and a session's start";
  for (const char* kind : {"impressions", "re-engagement clicks", "commerce clicks", "crash reports", "demographics"}) {
    EXPECT_EQ(found.of(kind).stored, 1U) << kind;
  }
}

/// A ledger that starts from what an older version stored.
void expectCountedFromNowOn(const Ledger& found) {
  expectAllFound(found);
  for (const Ledger::Account& account : found.accounts)
    EXPECT_EQ(account.recorded, account.stored) << account.kind;
}

/// A ledger that knows of earlier processes too.
void expectCountedFromTheBeginning(const Ledger& found) {
  expectAllFound(found);
  for (const Ledger::Account& account : found.accounts) {
    EXPECT_EQ(account.delivered, account.kind == "activities" ? kUpgradeRunDelivered : 0U) << account.kind;
    EXPECT_EQ(account.givenUp(), account.kind == "demographics" ? kUpgradeRunReplaced : 0U) << account.kind;
  }
  ASSERT_THAT(found.of("demographics").given_up, SizeIs(1));
  EXPECT_EQ(found.of("demographics").given_up[0].reason, "replaced by a newer value before they were delivered");
}

/// What the ledger held at first it holds at the end, and what was stored then is delivered.
void expectGoneOnWith(const Ledger& found, const Ledger& end) {
  EXPECT_TRUE(end.isSound());
  for (const Ledger::Account& account : end.accounts) {
    const Ledger::Account before = found.of(account.kind);
    EXPECT_GE(account.recorded, before.recorded) << account.kind;
    EXPECT_GE(account.delivered, before.delivered + before.stored) << account.kind;
    EXPECT_EQ(account.givenUp(), before.givenUp()) << account.kind;
  }
  EXPECT_EQ(end.of("activities").stored, 1U) << "the last session's end";
  EXPECT_EQ(end.of("activities").recorded, found.of("activities").recorded + 6) << "two sessions and the later event";
  EXPECT_EQ(end.of("commerce clicks").recorded, 2U);
}

TEST(UpgradeRun, OfToday) {
  const StoreFilesKept files = storeOfADeviceThatDied();
  EXPECT_THAT(files, SizeIs(3)) << "the file, its log, and the file of the wish to be forgotten";
  const UpgradeRunContinued run = continueUpgradeRun(files);
  expectAllArrived(run);
  expectCountedFromTheBeginning(run.ledger_found);
  expectGoneOnWith(run.ledger_found, run.ledger);
}

TEST(UpgradeRun, WhoseFilesAreLostIsAnotherDevice) {
  const UpgradeRunContinued run = continueUpgradeRun({});
  EXPECT_EQ(run.events, std::vector<std::string>{"later event"});
  EXPECT_EQ(run.installs, 1U);
  EXPECT_NE(run.install_id, kGoldenInstallId);
  EXPECT_EQ(run.ledger_found.of("activities").recorded, 0U);
}

class EarlierStore : public ::testing::TestWithParam<KeptStore> {};

TEST_P(EarlierStore, GoesOnAsTheSameDeviceWithAllItHeldAndCounted) {
  const StoreFilesKept files = goldenFiles(GetParam().folder);
  ASSERT_THAT(files, SizeIs(2));
  const UpgradeRunContinued run = continueUpgradeRun(files);
  expectAllArrived(run);
  EXPECT_EQ(run.install_id, kGoldenInstallId);
  if (GetParam().has_ledger) {
    expectCountedFromTheBeginning(run.ledger_found);
  } else {
    expectCountedFromNowOn(run.ledger_found);
  }
  expectGoneOnWith(run.ledger_found, run.ledger);
}

TEST_P(EarlierStore, IsWhatItsNameSays) {
  const StoreFilesKept files = goldenFiles(GetParam().folder);
  ASSERT_EQ(files.count("morvik.store"), 1U);
  EXPECT_EQ(versionInHeader(files.at("morvik.store")), GetParam().version);
  std::string all;
  for (const auto& [name, bytes] : files)
    all += bytes;
  EXPECT_EQ(all.find(runtime::kLedgerKey) != std::string::npos, GetParam().has_ledger);
}

INSTANTIATE_TEST_SUITE_P(Kept, EarlierStore, ::testing::ValuesIn(kKeptStores), [](const auto& tested) {
  std::string name = tested.param.folder;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

TEST(EarlierStores, AreKeptOfEveryVersionUpToTodays) {
  std::vector<int64_t> versions;
  for (const KeptStore& kept : kKeptStores)
    versions.push_back(kept.version);
  for (int64_t version = 1; version <= host::kStoreVersion; ++version)
    EXPECT_THAT(versions, Contains(version)) << "docs/testing.md tells how a store is kept";
}

TEST(EarlierStores, AreAllOpened) {
  std::vector<std::string> opened;
  for (const KeptStore& kept : kKeptStores)
    opened.emplace_back(kept.folder);
  std::vector<std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator(goldenFolder()))
    kept.push_back(entry.path().filename());
  EXPECT_THAT(kept, UnorderedElementsAreArray(opened));
}

}  // namespace
}  // namespace morvik::proofs
