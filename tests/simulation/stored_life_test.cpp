// What a version wrote, every later one takes over: tests/golden/store-1 was made by programs/golden_store.cpp when the
// store had version 1, and stays as it is.
#include "simulation/stored_life.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/paths.h"

namespace morvik::simulation {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

/// Of the device whose store was kept.
constexpr const char* kGoldenInstallId = "b9b501d1-d854-4b71-8002-1590ff0b4dc3";

std::vector<std::string> allEvents() {
  std::vector<std::string> all;
  for (size_t number = 0; number < kStoredLifeEvents; ++number)
    all.push_back(storedLifeEvent(number));
  all.emplace_back("later event");
  return all;
}

StoreFilesKept goldenFiles() {
  StoreFilesKept files;
  for (const auto& entry : std::filesystem::directory_iterator(test::sourceDir() + "/tests/golden/store-1")) {
    std::ifstream in(entry.path(), std::ios::binary);
    files[entry.path().filename()] = {std::istreambuf_iterator<char>(in), {}};
  }
  return files;
}

void expectAllArrived(const StoredLifeContinued& life) {
  EXPECT_THAT(life.store_lines, IsEmpty());
  EXPECT_EQ(life.events, allEvents());
  for (const char* kept :
       {kStoredLifeImpression, kStoredLifeClick, kStoredLifeCommerceClick, kStoredLifeCrash, kStoredLifeUser}) {
    EXPECT_THAT(life.arrived, HasSubstr(kept));
  }
  for (const char* delivered :
       {"kept event", "later event", kStoredLifeImpression, kStoredLifeCrash, kStoredLifeCommerceClick}) {
    EXPECT_THAT(life.stored, Not(HasSubstr(delivered)));
  }
  EXPECT_EQ(life.installs, 0U) << "the device is known already";
}

TEST(StoredLife, OfToday) {
  const StoreFilesKept files = storeOfADeviceThatDied();
  EXPECT_THAT(files, SizeIs(2)) << "the file and its log";
  expectAllArrived(continueStoredLife(files));
}

TEST(StoredLife, OfTheFirstVersionGoesOnAsTheSameDevice) {
  const StoreFilesKept files = goldenFiles();
  ASSERT_THAT(files, SizeIs(2));
  const StoredLifeContinued life = continueStoredLife(files);
  expectAllArrived(life);
  EXPECT_EQ(life.install_id, kGoldenInstallId);
}

TEST(StoredLife, WhoseFilesAreLostIsAnotherDevice) {
  const StoredLifeContinued life = continueStoredLife({});
  EXPECT_EQ(life.events, std::vector<std::string>{"later event"});
  EXPECT_EQ(life.installs, 1U);
  EXPECT_NE(life.install_id, kGoldenInstallId);
}

}  // namespace
}  // namespace morvik::simulation
