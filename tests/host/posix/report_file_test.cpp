#include "host/posix/report_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "host/json/simdjson_codec.h"
#include "testing/recording_log.h"
#include "tests/support/report_shelf_contract.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using test::bytesOf;
using test::reportOf;
using test::writeBytes;

class ReportFileHarness {
 public:
  ReportFileHarness() { killAndRestart(); }
  kit::ReportShelf& shelf() { return *shelf_; }
  void killAndRestart() { shelf_.emplace(folder_.path(), json_, log_); }

 private:
  test::ScratchFolder folder_;
  SimdjsonCodec json_;
  testing::RecordingLog log_;
  std::optional<ReportFile> shelf_;
};

}  // namespace
}  // namespace morvik::host

namespace morvik::test {
INSTANTIATE_TYPED_TEST_SUITE_P(ReportFile, ReportShelfContract, host::ReportFileHarness);
}  // namespace morvik::test

namespace morvik::host {
namespace {

class ReportFileTest : public ::testing::Test {
 protected:
  test::ScratchFolder folder;
  SimdjsonCodec json;
  testing::RecordingLog log;
  ReportFile shelf{folder.path(), json, log};
};

TEST_F(ReportFileTest, IsForItsOwnerAloneAndMadeByTheFirstReport) {
  EXPECT_FALSE(std::filesystem::exists(shelf.path()));
  EXPECT_FALSE(shelf.append(reportOf("one")).has_value());
  struct stat facts {};
  ASSERT_EQ(stat(shelf.path().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777, 0600U);
  shelf.clear();
  EXPECT_FALSE(std::filesystem::exists(shelf.path()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReportFileTest, ReadsTheOthersWhenOneLineIsTornAndSetsTheFileAside) {
  EXPECT_FALSE(shelf.append(reportOf("before")).has_value());
  const std::string torn = bytesOf(shelf.path()) + "{\"exception_reason\":\"to";
  writeBytes(shelf.path(), torn);
  EXPECT_FALSE(shelf.append(reportOf("after")).has_value());
  const kit::Array reports = shelf.reports();
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reports[0], reportOf("before"));
  EXPECT_EQ(reports[1], reportOf("after"));
  EXPECT_EQ(log.messages(), std::vector<std::string>{"Morvik host: the file of crash reports \"" + shelf.path() +
                                                     "\" holds 1 reports that cannot be read: the file is kept as \"" +
                                                     shelf.unreadablePath() + "\", delete it if it does not matter."});
  shelf.clear();
  EXPECT_TRUE(shelf.reports().empty());
  EXPECT_EQ(bytesOf(shelf.unreadablePath()).substr(0, torn.size()), torn);
}

TEST_F(ReportFileTest, CountsWhatIsNoObjectAsUnreadable) {
  writeBytes(shelf.path(), "7\n[]\nnull\n");
  EXPECT_TRUE(shelf.reports().empty());
  EXPECT_EQ(log.countContaining("holds 3 reports that cannot be read"), 1U);
}

TEST_F(ReportFileTest, RefusesAReportThatWouldPassItsLimitAndStaysAsItWas) {
  const std::string almost_full = std::string(kMaxReportFileBytes - 100, ' ') + '\n';
  writeBytes(shelf.path(), almost_full);
  const auto error = shelf.append(reportOf(std::string(200, 'x')));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message, "The file of crash reports \"" + shelf.path() + "\" is full (" +
                                std::to_string(almost_full.size()) + " bytes).");
  EXPECT_EQ(std::filesystem::file_size(shelf.path()), almost_full.size());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReportFileTest, SaysWhyAReportCannotBeKept) {
  ReportFile nowhere(folder / "missing", json, log);
  const auto error = nowhere.append(reportOf("x"));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message,
            "The file of crash reports \"" + nowhere.path() + "\" cannot be opened (No such file or directory).");
  EXPECT_TRUE(shelf.append(kit::Dictionary{{"at", kit::Date{}}}).has_value());
  EXPECT_FALSE(std::filesystem::exists(shelf.path()));
}

TEST_F(ReportFileTest, LeavesWhatItCannotReadWhereItIs) {
  std::filesystem::create_directory(shelf.path());
  EXPECT_TRUE(shelf.reports().empty());
  shelf.clear();
  EXPECT_TRUE(std::filesystem::is_directory(shelf.path()));
  std::filesystem::remove(shelf.path());
  // What cannot be opened can still be removed.
  std::filesystem::create_symlink(shelf.path(), shelf.path());
  EXPECT_TRUE(shelf.reports().empty());
  shelf.clear();
  EXPECT_TRUE(std::filesystem::is_symlink(shelf.path()));
  const std::string head = "Morvik host: the file of crash reports \"" + shelf.path() + "\" cannot be ";
  EXPECT_EQ(
      log.messages(),
      (std::vector<std::string>{
          head + "read (Is a directory) and stays where it is: check the disk.",
          head + "opened (Too many levels of symbolic links) and stays where it is: make it readable for the app."}));
}

TEST_F(ReportFileTest, TellsThatItCannotRemoveWhatItHasRead) {
  EXPECT_FALSE(shelf.append(reportOf("one")).has_value());
  EXPECT_EQ(shelf.reports().size(), 1U);
  std::filesystem::remove(shelf.path());
  std::filesystem::create_directory(shelf.path());
  shelf.clear();
  EXPECT_EQ(log.messages(), std::vector<std::string>{"Morvik host: the file of crash reports \"" + shelf.path() +
                                                     "\" cannot be removed (Is a directory), and its reports are sent "
                                                     "again: delete it."});
}

}  // namespace
}  // namespace morvik::host
