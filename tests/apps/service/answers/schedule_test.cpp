#include "apps/service/answers/schedule.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "apps/service/base/files.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;
using test::TemporaryFolder;

class ScheduleTest : public testing::Test {
 protected:
  void write(const std::string& text) { replaceFile(file_, text, kPublicMode); }
  std::string setUpError() {
    try {
      const Schedule schedule(file_);
    } catch (const SetupError& error) {
      return error.what();
    }
    return "none";
  }

  TemporaryFolder folder_;
  const std::string file_ = folder_.path("schedule.json");
};

TEST(Schedule, WithoutAFileThereIsASmallOne) {
  Schedule schedule;
  const Schedule::Content first = schedule.current();
  EXPECT_FALSE(first.members.empty());
  EXPECT_EQ(64U, first.check_sum.size());
  EXPECT_EQ(first.check_sum, schedule.current().check_sum);
}

TEST_F(ScheduleTest, AFileIsHandedOutWithTheDigestOfItsBytes) {
  write("{\"a\": [1]}\n");
  Schedule schedule(file_);
  EXPECT_EQ(Json({{"a", {1}}}), schedule.current().members);
  // printf '{"a": [1]}\n' | sha256sum
  EXPECT_EQ("72a62b62b733416948377757ae62fca5259863fd5d939a3dfceed55c39022356", schedule.current().check_sum);
}

TEST_F(ScheduleTest, AChangedFileIsReadAgain) {
  write("{\"a\":1}");
  Schedule schedule(file_);
  const std::string first = schedule.current().check_sum;
  write("{\"a\":2}");
  EXPECT_EQ(2, schedule.current().members["a"]);
  EXPECT_NE(first, schedule.current().check_sum);
  write("{\"a\":1}");
  EXPECT_EQ(first, schedule.current().check_sum);
  EXPECT_EQ(1, schedule.current().members["a"]);
}

TEST_F(ScheduleTest, AFileThatCannotBeUsedAtTheStartIsAComplaint) {
  EXPECT_EQ("cannot open " + file_ + ": No such file or directory", setUpError());
  write("[1]");
  EXPECT_EQ("--schedule: the JSON is not an object; write one JSON object into the file", setUpError());
  write("{");
  EXPECT_EQ("--schedule: not JSON: byte 2 cannot be read; send one JSON document in UTF-8", setUpError());
  write(std::string(kMaxInputFileBytes + 1, ' '));
  EXPECT_EQ(file_ + " is larger than 1048576 bytes; is it the right file?", setUpError());
}

TEST_F(ScheduleTest, AFileThatBreaksLaterIsSaidAndTakenAgainOnceItIsMended) {
  write("{\"a\":1}");
  Schedule schedule(file_);
  const std::string first = schedule.current().check_sum;
  write("{\"a\":");
  Refusal refusal = refusalOf([&] { schedule.current(); });
  EXPECT_EQ(503, refusal.status());
  EXPECT_STREQ("the schedule cannot be used: not JSON: byte 6 cannot be read", refusal.what());
  EXPECT_EQ("the file given with --schedule", refusal.where());
  std::filesystem::remove(file_);
  EXPECT_EQ(503, refusalOf([&] { schedule.current(); }).status());
  write("{\"a\":1}");
  EXPECT_EQ(first, schedule.current().check_sum);
}

}  // namespace
}  // namespace morvik_service
