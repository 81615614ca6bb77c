#include "host/store/store_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using test::bytesOf;
using test::ScratchFolder;
using test::writeBytes;

unsigned modeOf(const std::string& path) {
  struct stat found {};
  EXPECT_EQ(::stat(path.c_str(), &found), 0) << path;
  return found.st_mode & 0777u;
}

TEST(StoreFiles, TheFolderAndThoseAboveItAreMadeForTheirOwnerAlone) {
  const ScratchFolder scratch;
  EXPECT_FALSE(systemFiles().makeFolder(scratch / "a/b/c").has_value());
  for (const char* made : {"a", "a/b", "a/b/c"})
    EXPECT_EQ(modeOf(scratch / made), 0700u) << made;
  EXPECT_FALSE(systemFiles().makeFolder(scratch / "a/b/c/").has_value());
}

TEST(StoreFiles, AFileInTheFoldersPlaceIsAProblem) {
  const ScratchFolder scratch;
  writeBytes(scratch / "taken", "text");
  EXPECT_TRUE(systemFiles().makeFolder(scratch / "taken").has_value());
  EXPECT_TRUE(systemFiles().makeFolder(scratch / "taken/deeper").has_value());
  EXPECT_EQ(bytesOf(scratch / "taken"), "text");
}

TEST(StoreFiles, AFolderIsSyncedAndOneThatIsMissingIsAProblem) {
  const ScratchFolder scratch;
  EXPECT_FALSE(systemFiles().syncFolder(scratch.path()).has_value());
  EXPECT_TRUE(systemFiles().syncFolder(scratch / "missing").has_value());
}

TEST(StoreFiles, AFileThatExistsKeepsItsBytesAndIsClosedToOthers) {
  const ScratchFolder scratch;
  const StorePlace place{.folder = scratch.path()};
  writeBytes(place.path(), "text");
  ::chmod(place.path().c_str(), 0644);
  EXPECT_FALSE(makeStoreFile(place).has_value());
  EXPECT_EQ(bytesOf(place.path()), "text");
  EXPECT_EQ(modeOf(place.path()), 0600u);
}

TEST(StoreFiles, AMissingAnEmptyAndAZeroedFileGetTheFirstPage) {
  const ScratchFolder scratch;
  const StorePlace place{.folder = scratch.path()};
  ASSERT_FALSE(makeStoreFile(place).has_value());
  const std::string page = bytesOf(place.path());
  EXPECT_EQ(page.size(), kStorePageBytes);
  EXPECT_EQ(page.substr(0, 15), "SQLite format 3");
  EXPECT_EQ(page.find_first_not_of('\0', 512), std::string::npos) << "a torn write must not be able to halve it";
  for (const size_t size : {size_t{0}, size_t{512}, kStorePageBytes}) {
    writeBytes(place.path(), std::string(size, '\0'));
    ASSERT_FALSE(makeStoreFile(place).has_value());
    EXPECT_EQ(bytesOf(place.path()), page);
  }
}

TEST(StoreFiles, SettingAsideNeverOverwrites) {
  const ScratchFolder scratch;
  const StorePlace place{.folder = scratch.path()};
  writeBytes(place.path() + ".unreadable-1", "older");
  writeBytes(place.path() + ".unreadable-2-wal", "log of an older one");
  writeBytes(place.path(), "file");
  writeBytes(place.path() + "-wal", "log");
  std::string new_path;
  ASSERT_FALSE(setStoreAside(place, new_path).has_value());
  EXPECT_EQ(new_path, place.path() + ".unreadable-3");
  EXPECT_EQ(bytesOf(new_path), "file");
  EXPECT_EQ(bytesOf(new_path + "-wal"), "log");
  EXPECT_EQ(bytesOf(place.path() + ".unreadable-1"), "older");
  EXPECT_FALSE(std::filesystem::exists(place.path()));
  EXPECT_FALSE(std::filesystem::exists(place.path() + "-wal"));
}

TEST(StoreFiles, TheLockIsHeldByOneAndFreeAfterwards) {
  const ScratchFolder scratch;
  const StorePlace place{.folder = scratch.path()};
  StoreProblem problem;
  StoreLock second;
  {
    StoreLock first;
    EXPECT_EQ(first.take(place, problem), LockResult::kTaken);
    EXPECT_EQ(first.take(place, problem), LockResult::kTaken);
    EXPECT_EQ(second.take(place, problem), LockResult::kHeldHere);
    EXPECT_EQ(modeOf(place.path() + ".lock"), 0600u);
  }
  EXPECT_EQ(second.take(place, problem), LockResult::kTaken);
}

TEST(StoreFiles, ALockThatCannotBeMadeIsAProblemWithAReason) {
  const ScratchFolder scratch;
  StoreProblem problem;
  StoreLock lock;
  EXPECT_EQ(lock.take({.folder = scratch / "missing"}, problem), LockResult::kFailed);
  EXPECT_FALSE(problem.message.empty());
  EXPECT_EQ(problem.kind, StoreProblem::Kind::kUnavailable);
}

}  // namespace
}  // namespace morvik::host
