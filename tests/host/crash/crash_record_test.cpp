#include "host/crash/crash_record.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using ::testing::HasSubstr;

class Record : public ::testing::Test {
 protected:
  CrashRecordFile read() const {
    auto found = readCrashRecord(path_);
    if (const auto* error = std::get_if<kit::Error>(&found)) {
      ADD_FAILURE() << error->message;
      return {};
    }
    const auto& file = std::get<std::optional<CrashRecordFile>>(found);
    EXPECT_TRUE(file);
    return file.value_or(CrashRecordFile());
  }
  std::string refusal() const {
    const auto found = readCrashRecord(path_);
    const auto* error = std::get_if<kit::Error>(&found);
    return error != nullptr ? error->message : "";
  }
  int prepare() const { return std::get<int>(prepareCrashRecord(path_, modules_)); }

  const test::ScratchFolder scratch_;
  const std::string path_ = std::filesystem::path(scratch_.path()) / "record";
  const std::vector<LoadedModule> modules_ = {
      {0x55d0c0a80000, 0x55d0c0a81000, 0x55d0c0a99000, "0a1b", "/opt/my app/run"},
      {0, 0x401000, 0x402000, "", "/lib/old.so"}};
};

TEST_F(Record, WithoutAFileThereIsNone) {
  EXPECT_FALSE(std::get<std::optional<CrashRecordFile>>(readCrashRecord(path_)));
}

TEST_F(Record, APreparedFileHoldsTheModulesAndNoRecord) {
  ::close(prepare());
  EXPECT_EQ(read().modules, modules_);
  EXPECT_FALSE(read().record);
}

TEST_F(Record, IsForThisUserAlone) {
  ::close(prepare());
  struct stat about {};
  ASSERT_EQ(::stat(path_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0600U);
}

TEST_F(Record, WhatIsWrittenBehindTheModulesIsRead) {
  const int file = prepare();
  SignalRecord record;
  record.time_microseconds = 1'700'000'000'123'456;
  record.signal = SIGSEGV;
  record.app_in_focus = 1;
  record.frame_count = 2;
  record.frames[0] = 0x55d0c0a81234;
  record.frames[1] = 0x401010;
  ASSERT_EQ(::write(file, &record, sizeof record), static_cast<ssize_t>(sizeof record));
  ::close(file);
  const auto found = read().record;
  ASSERT_TRUE(found);
  EXPECT_EQ(found->time_microseconds, record.time_microseconds);
  EXPECT_EQ(found->signal, SIGSEGV);
  EXPECT_EQ(found->app_in_focus, 1U);
  EXPECT_EQ(found->frame_count, 2U);
  EXPECT_EQ(found->frames[1], 0x401010U);
}

TEST_F(Record, OfWhichOnlyAPartWasWrittenIsNone) {
  const int file = prepare();
  const SignalRecord record;
  ASSERT_EQ(::write(file, &record, 20), 20);
  ::close(file);
  EXPECT_FALSE(read().record);
}

TEST_F(Record, AFileOfSomethingElseIsRefused) {
  for (const char* bytes :
       {"", "something else", "morvik crash record 1\n", "morvik crash record 1\nno module\n--\n"}) {
    test::writeBytes(path_, bytes);
    EXPECT_EQ(refusal(), path_ + " is no crash record") << bytes;
  }
}

TEST_F(Record, ARecordWithImpossibleContentIsRefused) {
  const int file = prepare();
  SignalRecord record;
  record.frame_count = kMaxCrashFrames + 1;
  ASSERT_EQ(::write(file, &record, sizeof record), static_cast<ssize_t>(sizeof record));
  ::close(file);
  EXPECT_THAT(refusal(), HasSubstr("is no crash record"));
}

TEST_F(Record, AModuleWhoseNameWouldBreakTheFileIsLeftOut) {
  ::close(std::get<int>(prepareCrashRecord(path_, {{1, 2, 3, "aa", "/a\nb"}, modules_[1]})));
  EXPECT_EQ(read().modules, std::vector<LoadedModule>{modules_[1]});
}

TEST(SignalName, IsThatOfTheSystem) {
  EXPECT_EQ(signalName(SIGSEGV), "SIGSEGV");
  EXPECT_EQ(signalName(SIGILL), "SIGILL");
  EXPECT_EQ(signalName(9999), "signal 9999");
}

}  // namespace
}  // namespace morvik::host
