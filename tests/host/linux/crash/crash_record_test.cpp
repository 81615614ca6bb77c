#include "host/linux/crash/crash_record.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
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

SignalPart signalPart() {
  SignalPart signal;
  signal.time_microseconds = 1'700'000'000'123'456;
  signal.signal = SIGSEGV;
  signal.instruction = 0x55d0c0a81234;
  signal.fault_address = 0x10;
  return signal;
}

FramesPart framesPart() {
  FramesPart frames;
  frames.app_in_focus = 1;
  frames.frame_count = 2;
  frames.frames[0] = 0x55d0c0a81234;
  frames.frames[1] = 0x401010;
  frames.register_count = 1;
  frames.registers[0] = 7;
  return frames;
}

TEST_F(Record, WhatIsWrittenBehindTheModulesIsRead) {
  const std::string stack(2 * kMaxStackBytes, 's');
  const int file = prepare();
  writeSignalPart(file, signalPart(), "what was known");
  FramesPart frames = framesPart();
  frames.stack_pointer = reinterpret_cast<uint64_t>(stack.data());
  writeFramesPart(file, frames);
  writeStackPart(file, frames.stack_pointer);
  ::close(file);
  const auto found = read().record;
  ASSERT_TRUE(found);
  EXPECT_EQ(found->time_microseconds, 1'700'000'000'123'456);
  EXPECT_EQ(found->signal, SIGSEGV);
  EXPECT_FALSE(found->is_jump_to_nowhere);
  EXPECT_EQ(found->note, "what was known");
  EXPECT_EQ(found->app_in_focus, true);
  EXPECT_THAT(found->frames, ElementsAre(0x55d0c0a81234, 0x401010));
  EXPECT_THAT(found->registers, ElementsAre(7));
  EXPECT_EQ(found->stack_pointer, frames.stack_pointer);
  EXPECT_EQ(found->stack, stack.substr(0, kMaxStackBytes));
}

TEST_F(Record, OfTheSignalAloneTellsWhatWasInterrupted) {
  const int file = prepare();
  writeSignalPart(file, signalPart());
  ::close(file);
  const auto found = read().record;
  ASSERT_TRUE(found);
  EXPECT_EQ(found->signal, SIGSEGV);
  EXPECT_THAT(found->frames, ElementsAre(0x55d0c0a81234));
  EXPECT_EQ(found->app_in_focus, std::nullopt);
}

TEST_F(Record, TellsAJumpToWhereNoCodeIs) {
  const int file = prepare();
  SignalPart signal = signalPart();
  signal.instruction = signal.fault_address = 0;
  writeSignalPart(file, signal);
  ::close(file);
  EXPECT_TRUE(read().record.value_or(SignalRecord()).is_jump_to_nowhere);
}

TEST_F(Record, OfWhichOnlyAPartWasWrittenHoldsThePartsBeforeIt) {
  ::close(prepare());
  const auto prepared = std::filesystem::file_size(path_);
  const int file = prepare();
  writeSignalPart(file, signalPart());
  const auto with_signal = std::filesystem::file_size(path_);
  writeFramesPart(file, framesPart());
  const auto with_frames = std::filesystem::file_size(path_);
  writeStackPart(file, reinterpret_cast<uint64_t>(&file));
  ::close(file);
  std::filesystem::resize_file(path_, with_frames + 20);
  EXPECT_EQ(read().record.value_or(SignalRecord()).app_in_focus, true);
  std::filesystem::resize_file(path_, with_frames - 1);
  EXPECT_EQ(read().record.value_or(SignalRecord()).signal, SIGSEGV);
  EXPECT_EQ(read().record.value_or(SignalRecord()).app_in_focus, std::nullopt);
  std::filesystem::resize_file(path_, with_signal - 1);
  EXPECT_FALSE(read().record);
  std::filesystem::resize_file(path_, prepared + 1);
  EXPECT_FALSE(read().record);
}

TEST_F(Record, KeepsAsMuchOfTheStackAsThereIs) {
  constexpr size_t kPage = 4096;
  void* const pages = ::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(::munmap(static_cast<char*>(pages) + kPage, kPage), 0);
  const int file = prepare();
  writeSignalPart(file, signalPart());
  writeStackPart(file, reinterpret_cast<uint64_t>(pages) + kPage - 100);
  ::close(file);
  EXPECT_EQ(read().record.value_or(SignalRecord()).stack.size(), 100U);
  ::munmap(pages, kPage);
}

/// As stored in a file of version 1.
struct RecordOfVersion1 {
  uint64_t magic = 0x6d72766b5f736967;
  int64_t time_microseconds = 1'600'000'000'000'000;
  uint64_t frames[64] = {0x401010, 0x401020};
  int32_t signal = SIGFPE;
  uint32_t frame_count = 2;
  uint32_t app_in_focus = 1;
  uint32_t reserved = 0;
};

TEST_F(Record, OfTheVersionBeforeIsRead) {
  const RecordOfVersion1 record;
  const std::string head = "morvik crash record 1\n0 401000 402000 - /lib/old.so\n--\n";
  const std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
  test::writeBytes(path_, head + bytes);
  const auto found = read().record;
  ASSERT_TRUE(found);
  EXPECT_EQ(found->time_microseconds, record.time_microseconds);
  EXPECT_EQ(found->signal, SIGFPE);
  EXPECT_THAT(found->frames, ElementsAre(0x401010, 0x401020));
  EXPECT_EQ(found->app_in_focus, true);
  EXPECT_EQ(read().modules, std::vector<LoadedModule>{modules_[1]});
  test::writeBytes(path_, head + bytes.substr(0, 20));
  EXPECT_FALSE(read().record) << "half written";
  test::writeBytes(path_, head + std::string(sizeof record, 'x'));
  EXPECT_THAT(refusal(), HasSubstr("is not a crash record"));
}

TEST_F(Record, AFileOfSomethingElseIsRefused) {
  for (const char* bytes :
       {"", "something else", "morvik crash record 1\n", "morvik crash record 2\n",
        "morvik crash record 2\nno module\n--\n", "morvik crash record 2\n--\nsixteen bytes that are no part"}) {
    test::writeBytes(path_, bytes);
    EXPECT_EQ(refusal(), path_ + " is not a crash record") << bytes;
  }
}

TEST_F(Record, ARecordWithImpossibleContentIsRefused) {
  const int file = prepare();
  FramesPart frames;
  frames.frame_count = kMaxCrashFrames + 1;
  writeFramesPart(file, frames);
  ::close(file);
  EXPECT_THAT(refusal(), HasSubstr("is not a crash record"));
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
