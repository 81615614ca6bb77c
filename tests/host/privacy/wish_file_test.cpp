#include "host/privacy/wish_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "host/privacy/wish_sectors.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using State = MachineWishFile::State;

class WishFileTest : public ::testing::Test {
 protected:
  StorePlace place() const { return {.folder = folder_.path()}; }
  std::string path() const { return WishFile::pathBeside(place()); }
  /// As the next process reads it.
  MachineWishFile::Reading reread() const { return WishFile(place()).read(); }

  test::ScratchFolder folder_;
  WishFile file_{place()};
};

TEST_F(WishFileTest, ThatIsNotThereIsMissing) {
  EXPECT_EQ(file_.read().state, State::kMissing);
}

TEST_F(WishFileTest, IsMadeWholeUnderAnotherNameAndForItsOwnerAlone) {
  EXPECT_EQ(file_.read().state, State::kMissing);
  EXPECT_EQ(file_.prepare(false), std::nullopt);
  EXPECT_EQ(reread().state, State::kMissing);
  EXPECT_EQ(file_.adopt(), std::nullopt);
  EXPECT_EQ(file_.sync(), std::nullopt);
  EXPECT_EQ(reread().state, State::kRead);
  EXPECT_FALSE(reread().is_forgotten);
  EXPECT_FALSE(std::filesystem::exists(WishFile::newPathBeside(place())));
  struct stat facts {};
  ASSERT_EQ(::stat(path().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);
}

TEST_F(WishFileTest, TakesEachWishIntoTheSectorOfTheOlderOne) {
  for (int round = 0; round < 5; ++round) {
    const bool is_forgotten = round % 2 == 0;
    const std::string before = test::bytesOf(path());
    EXPECT_EQ(file_.write(is_forgotten), std::nullopt);
    EXPECT_EQ(reread().is_forgotten, is_forgotten);
    const std::string after = test::bytesOf(path());
    ASSERT_EQ(after.size(), kWishFileBytes);
    if (round == 0)
      continue;
    const size_t kept = round % 2 == 0 ? kWishSectorBytes : 0;
    EXPECT_EQ(after.substr(kept, kWishSectorBytes), before.substr(kept, kWishSectorBytes)) << round;
    EXPECT_NE(after, before) << round;
  }
}

TEST_F(WishFileTest, OfAnEarlierProcessIsGoneOnWith) {
  ASSERT_EQ(file_.write(true), std::nullopt);
  WishFile next(place());
  const auto reading = next.read();
  EXPECT_TRUE(reading.is_forgotten);
  next.goOnFrom(reading);
  EXPECT_EQ(next.write(false), std::nullopt);
  EXPECT_EQ(newestWishSector(test::bytesOf(path())), (WishSector{3, false}));
}

TEST_F(WishFileTest, BehindTheLastNumberIsWrittenWholeAgain) {
  for (const bool is_forgotten : {true, false}) {
    test::writeBytes(path(), wishSectorBytes({kLastWishSequence - 1, is_forgotten}) +
                                 wishSectorBytes({kLastWishSequence, !is_forgotten}));
    WishFile next(place());
    const auto reading = next.read();
    EXPECT_EQ(reading.is_forgotten, !is_forgotten);
    next.goOnFrom(reading);
    EXPECT_EQ(next.write(is_forgotten), std::nullopt);
    EXPECT_EQ(test::bytesOf(path()), wishFileBytes(is_forgotten));
  }
}

TEST_F(WishFileTest, ThatWasRemovedMeanwhileIsWrittenWholeAgain) {
  ASSERT_EQ(file_.write(false), std::nullopt);
  ASSERT_EQ(file_.sync(), std::nullopt);
  ASSERT_TRUE(std::filesystem::remove(path()));
  EXPECT_EQ(file_.write(true), std::nullopt);
  EXPECT_EQ(test::bytesOf(path()), wishFileBytes(true));
  EXPECT_EQ(file_.write(false), std::nullopt);
  EXPECT_EQ(newestWishSector(test::bytesOf(path())), (WishSector{kFirstWishSequence + 1, false}));
}

TEST_F(WishFileTest, WithNoValidSectorSaysNothing) {
  test::writeBytes(path(), "");
  EXPECT_EQ(reread().state, State::kUnreadable);
  test::writeBytes(path(), std::string(kWishFileBytes, 'x'));
  EXPECT_EQ(reread().state, State::kUnreadable);
  EXPECT_TRUE(reread().is_forgotten);
}

TEST_F(WishFileTest, ThatFailsToBeReadMayBeReadLater) {
  std::filesystem::create_directory(path());
  const auto reading = file_.read();
  EXPECT_EQ(reading.state, State::kNotRead);
  EXPECT_TRUE(reading.is_forgotten);
  EXPECT_EQ(reading.problem, "Is a directory");
  ASSERT_NE(file_.write(true), std::nullopt);
  EXPECT_EQ(file_.write(true)->message, "Is a directory");
}

TEST_F(WishFileTest, ThatSaysNothingIsMadeWholeByTheNextWish) {
  test::writeBytes(path(), "half");
  EXPECT_EQ(file_.read().state, State::kUnreadable);
  EXPECT_EQ(file_.write(false), std::nullopt);
  EXPECT_EQ(test::bytesOf(path()), wishFileBytes(false));
}

TEST_F(WishFileTest, ThatIsNotThereCannotBeSynced) {
  EXPECT_NE(file_.sync(), std::nullopt);
}

}  // namespace
}  // namespace morvik::host
