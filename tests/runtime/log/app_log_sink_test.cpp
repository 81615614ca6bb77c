#include "runtime/log/app_log_sink.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/posix/process_word.h"
#include "tests/support/child.h"

namespace morvik::runtime {
namespace {

/// Takes nothing: for tests in which nobody forks.
class NoLogSink final : public MachineLogSink {
 public:
  void line(std::string_view) override { ADD_FAILURE() << "nobody forked"; }
  bool tryLine(std::string_view) override { return false; }
};

std::unique_ptr<MachineLogSink> noSink() {
  return std::make_unique<NoLogSink>();
}

TEST(ClosableLogSink, PassesNothingOnOnceItIsClosed) {
  std::vector<std::string> taken;
  ClosableLogSink sink(std::make_unique<AppLogSink>([&taken](std::string_view line) { taken.emplace_back(line); },
                                                    noSink(), host::ownProcess()),
                       host::ownProcess());
  sink.line("one");
  EXPECT_TRUE(sink.tryLine("two"));
  EXPECT_TRUE(sink.close(std::chrono::steady_clock::now()));
  sink.line("three");
  EXPECT_FALSE(sink.tryLine("four"));
  EXPECT_EQ(taken, (std::vector<std::string>{"one", "two"}));
}

TEST(ClosableLogSink, WaitsInTimeForTheLineThatIsBeingTaken) {
  std::promise<void> taking;
  std::promise<void> go;
  bool is_taken = false;
  ClosableLogSink sink(std::make_unique<AppLogSink>(
                           [&](std::string_view) {
                             taking.set_value();
                             go.get_future().wait();
                             is_taken = true;
                           },
                           noSink(), host::ownProcess()),
                       host::ownProcess());
  std::thread writer([&sink] { sink.line("one"); });
  taking.get_future().wait();
  EXPECT_FALSE(sink.close(std::chrono::steady_clock::now()));
  go.set_value();
  EXPECT_TRUE(sink.close(std::chrono::steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_TRUE(is_taken);
  writer.join();
}

TEST(AppLogSink, GivesTheAppEachLineOneCallAtATime) {
  std::vector<std::string> taken;
  AppLogSink sink([&taken](std::string_view line) { taken.emplace_back(line); }, noSink(), host::ownProcess());
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

TEST(AppLogSink, DropsTheLineOfADyingThreadWhileTheAppTakesAnotherOne) {
  std::vector<std::string> taken;
  AppLogSink* sink_in_use = nullptr;
  bool was_written = true;
  AppLogSink sink(
      [&](std::string_view line) {
        taken.emplace_back(line);
        if (line == "outer")
          was_written = sink_in_use->tryLine("inner");
      },
      noSink(), host::ownProcess());
  sink_in_use = &sink;
  sink.line("outer");
  EXPECT_FALSE(was_written);
  EXPECT_TRUE(sink.tryLine("alone"));
  EXPECT_EQ(taken, (std::vector<std::string>{"outer", "alone"}));
}

TEST(AppLogSink, BearsAnAppThatThrows) {
  int calls = 0;
  AppLogSink sink(
      [&calls](std::string_view) {
        ++calls;
        throw std::runtime_error("no room");
      },
      noSink(), host::ownProcess());
  sink.line("one");
  sink.line("two");
  EXPECT_EQ(calls, 2);
}

/// Keeps what it is given.
class KeepingLogSink final : public MachineLogSink {
 public:
  explicit KeepingLogSink(std::string& kept) : kept_(kept) {}
  void line(std::string_view) override {}
  bool tryLine(std::string_view text) override {
    kept_ = text;
    return true;
  }

 private:
  std::string& kept_;
};

TEST(AppLogSink, GivesTheLinesOfAForkToTheSinkForForks) {
  bool is_app_called = false;
  std::string kept;
  AppLogSink sink([&](std::string_view) { is_app_called = true; }, std::make_unique<KeepingLogSink>(kept),
                  host::ownProcess());
  test::Child child([&] { return sink.tryLine("forked") && kept == "forked" && !is_app_called ? 0 : 1; });
  EXPECT_EQ(child.status(), 0);
  EXPECT_TRUE(sink.tryLine("here"));
  EXPECT_TRUE(is_app_called);
}

}  // namespace
}  // namespace morvik::runtime
