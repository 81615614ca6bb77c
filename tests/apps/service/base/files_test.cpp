#include "apps/service/base/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "apps/service/base/refusal.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status));
  return status.st_mode & 0777U;
}

TEST(Files, AWrittenFileCanBeReadAndHasItsMode) {
  const TemporaryFolder folder;
  const std::string content("one\0two", 7);
  replaceFile(folder.path("secret"), content, kPrivateMode);
  EXPECT_EQ(content, readSmallFile(folder.path("secret")));
  EXPECT_EQ(kPrivateMode, modeOf(folder.path("secret")));
}

TEST(Files, ReplacingLeavesNoDraftBehind) {
  const TemporaryFolder folder;
  replaceFile(folder.path("file"), "old", kPublicMode);
  replaceFile(folder.path("file"), "new", kPublicMode);
  EXPECT_EQ("new", readSmallFile(folder.path("file")));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(folder.path()), {}));
}

TEST(Files, AMissingFileIsNamed) {
  const TemporaryFolder folder;
  try {
    readSmallFile(folder.path("nothing"));
    ADD_FAILURE() << "it was read";
  } catch (const SetupError& error) {
    EXPECT_EQ("cannot open " + folder.path("nothing") + ": No such file or directory", error.what());
  }
}

TEST(Files, AFileBeyondTheLimitIsRefused) {
  const TemporaryFolder folder;
  replaceFile(folder.path("fits"), std::string(kMaxInputFileBytes, 'x'), kPublicMode);
  EXPECT_EQ(kMaxInputFileBytes, readSmallFile(folder.path("fits")).size());
  replaceFile(folder.path("big"), std::string(kMaxInputFileBytes + 1, 'x'), kPublicMode);
  EXPECT_THROW(readSmallFile(folder.path("big")), SetupError);
}

TEST(Files, AFolderThatCannotBeIsNamed) {
  const TemporaryFolder folder;
  replaceFile(folder.path("file"), "", kPublicMode);
  EXPECT_THROW(makeFolder(folder.path("file/inside")), SetupError);
  EXPECT_THROW(replaceFile(folder.path("file/inside"), "", kPublicMode), SetupError);
  makeFolder(folder.path("a/b"));
  makeFolder(folder.path("a/b"));
  EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b")));
}

TEST(Files, APrivateFolderIsItsOwnersAloneAndOneThatIsThereKeepsItsMode) {
  const TemporaryFolder folder;
  makePrivateFolder(folder.path("deep/private/"));
  EXPECT_EQ(kPrivateFolderMode, modeOf(folder.path("deep/private")));
  makeFolder(folder.path("open"));
  const mode_t before = modeOf(folder.path("open"));
  makePrivateFolder(folder.path("open"));
  EXPECT_EQ(before, modeOf(folder.path("open")));
}

}  // namespace
}  // namespace morvik_service
