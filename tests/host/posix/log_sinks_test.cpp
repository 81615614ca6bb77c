#include "host/posix/log_sinks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "tests/support/full_stderr.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

TEST(StderrLogSink, EndsEachLineWithALineFeed) {
  ::testing::internal::CaptureStderr();
  StderrLogSink sink;
  sink.line("one");
  sink.line("two\nwith a break");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "one\ntwo\nwith a break\n");
}

TEST(StderrLogSink, WaitsForSpaceUntilTheInstanceEnds) {
  const test::FullStderr full;
  StderrLogSink sink;
  auto patient = std::async(std::launch::async, [&sink] { sink.line("patient"); });
  EXPECT_EQ(patient.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  std::string read = full.read();
  patient.get();
  read += full.read();
  EXPECT_TRUE(read.ends_with("patient\n"));
  full.fill();
  auto ended = std::async(std::launch::async, [&sink] { sink.line("dropped"); });
  EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  sink.waitUntil(std::chrono::steady_clock::now());
  ended.get();
  EXPECT_EQ(full.read().find("dropped"), std::string::npos);
}

TEST(StderrLogSink, DropsTheLineOfADyingThreadThatAFullPipeDoesNotTake) {
  const test::FullStderr full;
  StderrLogSink sink;
  EXPECT_FALSE(sink.tryLine("last words"));
}

std::unique_ptr<FileLogSink> opened(const std::string& path) {
  auto made = FileLogSink::open(path);
  if (const auto* error = std::get_if<kit::Error>(&made)) {
    ADD_FAILURE() << error->message;
    return nullptr;
  }
  return std::move(std::get<std::unique_ptr<FileLogSink>>(made));
}

std::string errorOfOpening(const std::string& path) {
  const auto made = FileLogSink::open(path);
  const auto* error = std::get_if<kit::Error>(&made);
  return error != nullptr ? error->message : "";
}

TEST(FileLogSink, AppendsEachLineAtOnceToAFileForThisUserAlone) {
  const test::ScratchFolder folder;
  const mode_t mask_before = ::umask(0);
  const auto sink = opened(folder / "kit.log");
  ::umask(mask_before);
  sink->line("one");
  EXPECT_EQ(test::bytesOf(folder / "kit.log"), "one\n") << "while it is open";
  EXPECT_EQ(std::filesystem::status(folder / "kit.log").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const auto another = opened(folder / "kit.log");
  another->line("two");
  sink->line("three");
  EXPECT_TRUE(sink->tryLine("last words"));
  EXPECT_EQ(test::bytesOf(folder / "kit.log"), "one\ntwo\nthree\nlast words\n");
}

TEST(FileLogSink, LeavesAFileThatIsThereWithItsPermissions) {
  const test::ScratchFolder folder;
  test::writeBytes(folder / "kit.log", "before\n");
  std::filesystem::permissions(folder / "kit.log", std::filesystem::perms{0640});
  opened(folder / "kit.log")->line("one");
  EXPECT_EQ(test::bytesOf(folder / "kit.log"), "before\none\n");
  EXPECT_EQ(std::filesystem::status(folder / "kit.log").permissions(), std::filesystem::perms{0640});
}

TEST(FileLogSink, SaysWhyAFileCannotBeUsed) {
  const test::ScratchFolder folder;
  EXPECT_EQ(errorOfOpening(folder / "no/kit.log"),
            "the file " + (folder / "no/kit.log") +
                " cannot be opened (No such file or directory); fix its path or its permissions.");
  EXPECT_EQ(errorOfOpening("/dev/null"), "/dev/null is not a regular file; name one.");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_NE(errorOfOpening(folder / "pipe"), "") << "and it does not wait for a reader";
}

TEST(FileLogSink, DoesNotMixTheLinesOfSeveralThreads) {
  const test::ScratchFolder folder;
  const auto sink = opened(folder / "kit.log");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&sink] {
      for (int j = 0; j < 100; ++j)
        sink->line("line");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::string expected;
  for (int i = 0; i < 400; ++i)
    expected += "line\n";
  EXPECT_EQ(test::bytesOf(folder / "kit.log"), expected);
}

TEST(StderrLogSink, WritesTheLineOfADyingThreadToo) {
  ::testing::internal::CaptureStderr();
  StderrLogSink sink;
  EXPECT_TRUE(sink.tryLine("last words"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "last words\n");
}

}  // namespace
}  // namespace morvik::host
