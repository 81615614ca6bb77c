#include "host/store/wish_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/store/wish_sectors.h"
#include "runtime/privacy/wish_store.h"
#include "tests/support/child.h"
#include "tests/support/held_file.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using State = runtime::MachineWishFile::State;
using Word = runtime::MachineWishFile::Word;

/// As WishStore does.
std::optional<kit::Error> write(WishFile& file, bool is_forgotten, Word word) {
  return file.write(is_forgotten, word, file.takeTurn(runtime::kMaxWishTurn));
}

/// However long the others take: turns are granted in no order, and on a busy machine a process may miss many.
std::optional<kit::Error> writePatiently(WishFile& file, bool is_forgotten) {
  return file.write(is_forgotten, Word::kNew, file.takeTurn(std::chrono::minutes(5)));
}

class WishFileTest : public ::testing::Test {
 protected:
  StorePlace place() const { return {.folder = folder_.path()}; }
  std::string path() const { return WishFile::pathFor(place()); }
  /// As the next process reads it.
  runtime::MachineWishFile::Reading reread() const { return WishFile(place()).read(); }

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
  EXPECT_FALSE(std::filesystem::exists(WishFile::newPathFor(place())));
  struct stat facts {};
  ASSERT_EQ(::stat(path().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);
}

TEST_F(WishFileTest, TakesEachWishIntoTheSectorOfTheOlderOne) {
  for (int round = 0; round < 5; ++round) {
    const bool is_forgotten = round % 2 == 0;
    const std::string before = test::bytesOf(path());
    EXPECT_EQ(write(file_, is_forgotten, Word::kNew), std::nullopt);
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
  ASSERT_EQ(write(file_, true, Word::kNew), std::nullopt);
  WishFile next(place());
  const auto reading = next.read();
  EXPECT_TRUE(reading.is_forgotten);
  next.goOnFrom(reading);
  EXPECT_EQ(write(next, false, Word::kNew), std::nullopt);
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
    EXPECT_EQ(write(next, is_forgotten, Word::kNew), std::nullopt);
    EXPECT_EQ(test::bytesOf(path()), wishFileBytes(is_forgotten));
  }
}

TEST_F(WishFileTest, ThatWasRemovedMeanwhileIsWrittenWholeAgain) {
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  ASSERT_EQ(file_.sync(), std::nullopt);
  ASSERT_TRUE(std::filesystem::remove(path()));
  EXPECT_EQ(write(file_, true, Word::kNew), std::nullopt);
  EXPECT_EQ(test::bytesOf(path()), wishFileBytes(true));
  EXPECT_EQ(write(file_, false, Word::kNew), std::nullopt);
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
  ASSERT_NE(write(file_, true, Word::kNew), std::nullopt);
  EXPECT_EQ(write(file_, true, Word::kNew)->message, "Is a directory");
}

TEST_F(WishFileTest, ThatSaysNothingIsMadeWholeByTheNextWish) {
  test::writeBytes(path(), "half");
  EXPECT_EQ(file_.read().state, State::kUnreadable);
  EXPECT_EQ(write(file_, false, Word::kNew), std::nullopt);
  EXPECT_EQ(test::bytesOf(path()), wishFileBytes(false));
}

TEST_F(WishFileTest, ThatIsNotThereCannotBeSynced) {
  EXPECT_NE(file_.sync(), std::nullopt);
}

TEST_F(WishFileTest, ComesBehindWhatAnotherProcessHasWrittenMeanwhile) {
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  WishFile other(place());
  other.goOnFrom(other.read());
  for (int wish = 0; wish < 3; ++wish)
    ASSERT_EQ(write(other, wish % 2 == 1, Word::kNew), std::nullopt);
  EXPECT_EQ(write(file_, true, Word::kNew), std::nullopt);
  EXPECT_EQ(newestWishSector(test::bytesOf(path())), (WishSector{kFirstWishSequence + 4, true}));
  EXPECT_EQ(write(other, false, Word::kNew), std::nullopt);
  EXPECT_FALSE(reread().is_forgotten);
}

TEST_F(WishFileTest, NotForgottenThatIsRetriedIsReplacedByAnotherProcesssWish) {
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  WishFile other(place());
  other.goOnFrom(other.read());
  ASSERT_EQ(write(other, true, Word::kNew), std::nullopt);
  EXPECT_EQ(write(file_, false, Word::kAgain), std::nullopt);
  EXPECT_TRUE(reread().is_forgotten);
  EXPECT_EQ(write(file_, false, Word::kNew), std::nullopt) << "what the user says now is the last word";
  EXPECT_FALSE(reread().is_forgotten);
}

TEST_F(WishFileTest, OfAProcessThatIsHeldUpWaitsShortlyAndThenTakesForgottenAlone) {
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  const auto of_the_other = wishSectorBytes({kFirstWishSequence + 1, false});
  const test::Held held(path());
  const auto begun = std::chrono::steady_clock::now();
  const auto refused = write(file_, false, Word::kNew);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, runtime::kMaxWishTurn);
  ASSERT_NE(refused, std::nullopt);
  EXPECT_EQ(refused->message, "another process is writing it");
  EXPECT_EQ(write(file_, true, Word::kNew), std::nullopt);
  EXPECT_TRUE(reread().is_forgotten);
  // It continues its work.
  std::string bytes = test::bytesOf(path());
  bytes.replace(WishSector{kFirstWishSequence + 1}.offset(), kWishSectorBytes, of_the_other);
  test::writeBytes(path(), bytes);
  EXPECT_TRUE(reread().is_forgotten);
}

TEST_F(WishFileTest, NotForgottenThatWasHeldUpReplacesAllThatWasThereWhenItWasSaid) {
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  WishFile other(place());
  other.goOnFrom(other.read());
  ASSERT_EQ(write(other, true, Word::kNew), std::nullopt);
  const test::Held held(path());
  ASSERT_NE(file_.write(false, Word::kNew, file_.takeTurn(std::chrono::milliseconds(0))), std::nullopt);
  held.letGo();
  EXPECT_EQ(write(file_, false, Word::kAgain), std::nullopt);
  EXPECT_FALSE(reread().is_forgotten);
}

TEST_F(WishFileTest, LosesNoNumberToProcessesThatWriteAtOnce) {
  constexpr int kProcesses = 4;
  constexpr int kWishes = 500;
  ASSERT_EQ(write(file_, false, Word::kNew), std::nullopt);
  std::vector<std::unique_ptr<test::Child>> children;
  for (int child = 0; child < kProcesses; ++child) {
    children.push_back(std::make_unique<test::Child>([this] {
      WishFile mine(place());
      mine.goOnFrom(mine.read());
      int written = 0;
      for (int wish = 0; wish < kWishes; ++wish)
        written += writePatiently(mine, wish % 2 == 0) ? 0 : 1;
      return written == kWishes ? 3 : 1;
    }));
  }
  for (const auto& child : children)
    EXPECT_EQ(child->status(), 3);
  const auto newest = newestWishSector(test::bytesOf(path()));
  ASSERT_TRUE(newest);
  EXPECT_EQ(newest->sequence, kFirstWishSequence + kProcesses * kWishes);
}

TEST_F(WishFileTest, PreparedIsReplacedByOneThatAnotherProcessHasMadeMeanwhile) {
  ASSERT_EQ(file_.prepare(false), std::nullopt);
  WishFile other(place());
  ASSERT_EQ(write(other, true, Word::kNew), std::nullopt);
  EXPECT_NE(file_.adopt(), std::nullopt);
  EXPECT_TRUE(reread().is_forgotten);
}

}  // namespace
}  // namespace morvik::host
