#include "host/store/file_eraser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/make_instance.h"
#include "runtime/siblings/kept_identifier.h"
#include "testing/recording_log.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;

class Erased : public ::testing::Test {
 protected:
  StartOptions optionsFor(const std::string& store_folder) {
    StartOptions options;
    options.store_folder = store_folder;
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 0;
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";  // nothing listens there
    options.main_queue = MainQueueMode::kPumped;
    return options;
  }
  static std::unique_ptr<runtime::Instance> start(const StartOptions& options) {
    auto made = makeInstance(options);
    if (auto* instance = std::get_if<std::unique_ptr<runtime::Instance>>(&made))
      return std::move(*instance);
    return nullptr;
  }
  static std::string errorOf(const StartOptions& options) {
    auto made = makeInstance(options);
    const auto* error = std::get_if<kit::Error>(&made);
    return error != nullptr ? error->message : "it started";
  }

  test::ScratchFolder folder;
};

TEST_F(Erased, KilledAtAnyMomentIsFinishedByTheNextStartAndKeepsTheWish) {
  int finished = 0;
  int not_begun = 0;
  for (int round = 0; round < 30; ++round) {
    const StartOptions options = optionsFor(folder / ("store-" + std::to_string(round)));
    std::string id;
    {
      const auto first = start(options);
      ASSERT_NE(first, nullptr);
      first->addActivity("shop", "purchase", std::nullopt);
      first->gdprForgetMe(true);
      id = std::string(first->storedValue(runtime::kInstallIdKey).string());
    }
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const auto instance = start(options);
      const char byte = 'x';
      if (instance == nullptr || ::write(ready[1], &byte, 1) != 1)
        ::_exit(1);
      instance->eraseLocalData();
      ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    const auto killed_at = steady_clock::now() + microseconds(200 * round);
    while (steady_clock::now() < killed_at) {
    }
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(ready[0]);
    ::close(ready[1]);
    const auto next = start(options);
    ASSERT_NE(next, nullptr);
    EXPECT_TRUE(next->isGdprForgetMe()) << round;
    const bool is_new = next->storedValue(runtime::kInstallIdKey).string() != id;
    EXPECT_EQ(next->properties().fendoActivityInfos().size(), is_new ? 0u : 1u) << round;
    EXPECT_FALSE(std::filesystem::exists(FileEraser::markerPath({.folder = options.store_folder}))) << round;
    ++(is_new ? finished : not_begun);
  }
  EXPECT_EQ(finished + not_begun, 30);
}

TEST_F(Erased, ThatCannotBeFinishedRefusesTheStartAndSaysWhy) {
  const StartOptions options = optionsFor(folder / "store");
  const std::string in_the_way = folder / "store/crash-reports";
  {
    const auto first = start(options);
    ASSERT_NE(first, nullptr);
    first->addActivity("shop", "purchase", std::nullopt);
    std::filesystem::create_directories(in_the_way + "/something");
    EXPECT_FALSE(first->eraseLocalData());
  }
  EXPECT_THAT(errorOf(options), HasSubstr("cannot be erased (crash-reports: "));
  std::filesystem::remove_all(in_the_way);
  const auto next = start(options);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->properties().fendoActivityInfos().size(), 0u);
}

TEST_F(Erased, NothingIsWhereNotEvenANoteOfItCanBeMadeAndTheKitRunsOnAndSaysSo) {
  StartOptions options = optionsFor(folder / "store");
  std::vector<std::string> lines;
  options.log_level = 2;
  options.log_sink = [&lines](std::string_view line) { lines.emplace_back(line); };
  const auto instance = start(options);
  ASSERT_NE(instance, nullptr);
  instance->addActivity("shop", "purchase", std::nullopt);
  // No folder can be created in place of a file, whoever runs this.
  std::filesystem::rename(folder / "store", folder / "elsewhere");
  std::ofstream(folder / "store").flush();
  EXPECT_FALSE(instance->eraseLocalData());
  std::filesystem::remove(folder / "store");
  std::filesystem::rename(folder / "elsewhere", folder / "store");
  EXPECT_TRUE(instance->status().is_running);
  EXPECT_FALSE(std::filesystem::exists(FileEraser::markerPath({.folder = options.store_folder})));
  // In memory, if a flush found the folder missing.
  EXPECT_THAT(instance->addActivity("shop", "purchase", std::nullopt), AnyOf(Recorded::kKept, Recorded::kKeptInMemory));
  EXPECT_EQ(instance->properties().fendoActivityInfos().size(), 2u);
  EXPECT_TRUE(instance->eraseLocalData());
  // The main queue writes the line; all are written by now.
  EXPECT_THAT(lines, Contains(AllOf(HasSubstr("Morvik host: nothing was erased: no note of it can be made in"),
                                    HasSubstr("the kit goes on"), HasSubstr("and erase again"))));
}

TEST_F(Erased, MarkedWithoutAWordKeepsTheWishOfTheStore) {
  const StartOptions options = optionsFor(folder / "store");
  {
    const auto first = start(options);
    ASSERT_NE(first, nullptr);
    first->addActivity("shop", "purchase", std::nullopt);
    first->gdprForgetMe(true);
  }
  std::ofstream(FileEraser::markerPath({.folder = options.store_folder})).flush();
  const auto next = start(options);
  ASSERT_NE(next, nullptr);
  EXPECT_TRUE(next->isGdprForgetMe());
  EXPECT_EQ(next->properties().fendoActivityInfos().size(), 0u);
}

TEST_F(Erased, MarkedWhileAnotherUsesItIsLeftToThatOne) {
  const StartOptions options = optionsFor(folder / "store");
  const auto first = start(options);
  ASSERT_NE(first, nullptr);
  first->addActivity("shop", "purchase", std::nullopt);
  std::ofstream(FileEraser::markerPath({.folder = options.store_folder})).flush();
  EXPECT_THAT(errorOf(options), HasSubstr("in use"));
  EXPECT_EQ(first->properties().fendoActivityInfos().size(), 1u);
}

}  // namespace
}  // namespace morvik::host
