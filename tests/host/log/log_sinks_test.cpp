#include "host/log/log_sinks.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace morvik::host {
namespace {

TEST(StderrLogSink, EndsEachLineWithALineFeed) {
  ::testing::internal::CaptureStderr();
  StderrLogSink sink;
  sink.line("one");
  sink.line("two\nwith a break");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "one\ntwo\nwith a break\n");
}

TEST(AppLogSink, GivesTheAppEachLineOneCallAtATime) {
  std::vector<std::string> taken;
  AppLogSink sink([&taken](std::string_view line) { taken.emplace_back(line); });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&sink] {
      for (int j = 0; j < 100; ++j)
        sink.line("line");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(taken, std::vector<std::string>(400, "line"));
}

TEST(StderrLogSink, WritesTheLineOfADyingThreadToo) {
  ::testing::internal::CaptureStderr();
  StderrLogSink sink;
  EXPECT_TRUE(sink.tryLine("last words"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "last words\n");
}

TEST(AppLogSink, DropsTheLineOfADyingThreadWhileTheAppTakesAnotherOne) {
  std::vector<std::string> taken;
  AppLogSink* sink_in_use = nullptr;
  bool was_written = true;
  AppLogSink sink([&](std::string_view line) {
    taken.emplace_back(line);
    if (line == "outer")
      was_written = sink_in_use->tryLine("inner");
  });
  sink_in_use = &sink;
  sink.line("outer");
  EXPECT_FALSE(was_written);
  EXPECT_TRUE(sink.tryLine("alone"));
  EXPECT_EQ(taken, (std::vector<std::string>{"outer", "alone"}));
}

TEST(AppLogSink, BearsAnAppThatThrows) {
  int calls = 0;
  AppLogSink sink([&calls](std::string_view) {
    ++calls;
    throw std::runtime_error("no room");
  });
  sink.line("one");
  sink.line("two");
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace morvik::host
