#include "host/posix/background_thread.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "testing/recording_log.h"
#include "tests/support/no_threads.h"

namespace morvik::host {
namespace {

using std::chrono::steady_clock;
constexpr std::chrono::seconds kLong{20};

class BackgroundThreadTest : public ::testing::Test {
 protected:
  BackgroundThreadTest() { levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vTrace; }

  kit::LogLevels levels_;
  testing::RecordingLog log_;
  BackgroundThread queue_{services::Logger(levels_, log_)};
};

TEST_F(BackgroundThreadTest, RunsEachBlockInItsFrameAndOffTheCallersThread) {
  std::vector<std::string> order;
  queue_.setFrame([&order](const kit::Block& turn) {
    order.push_back("before");
    turn();
    order.push_back("after");
  });
  queue_.async([&] { order.push_back(queue_.isInBlock() ? "there" : "elsewhere"); });
  EXPECT_FALSE(queue_.isInBlock());
  queue_.stop(steady_clock::now() + kLong);
  EXPECT_EQ(order, (std::vector<std::string>{"before", "there", "after"}));
}

/// Asks the queue, on another thread, while it writes a line.
class AskingLog final : public kit::LogSink {
 public:
  void line(std::string_view) override {
    asks_.set_value();
    was_answered = answer_.wait_for(kLong) == std::future_status::ready;
  }
  bool tryLine(std::string_view) override { return false; }
  std::thread asker(const BackgroundThread& queue, std::promise<void> answer) {
    answer_ = answer.get_future();
    return std::thread([&queue, asks = asks_.get_future().share(), answer = std::move(answer)]() mutable {
      asks.wait();
      static_cast<void>(queue.pending());
      answer.set_value();
    });
  }
  bool was_answered = false;

 private:
  std::promise<void> asks_;
  std::future<void> answer_;
};

TEST_F(BackgroundThreadTest, HoldsNoLockWhileItWritesThatThereIsNoThread) {
  AskingLog log;
  BackgroundThread queue{services::Logger(levels_, log)};
  std::thread asker = log.asker(queue, {});
  {
    const test::NoThreads none;
    queue.async([] {});
  }
  asker.join();
  EXPECT_TRUE(log.was_answered);
  EXPECT_EQ(queue.pending(), 1U) << "it waits for the next one";
}

TEST_F(BackgroundThreadTest, WritesALineForWhatABlockThrows) {
  queue_.async([] { throw std::runtime_error("broken"); });
  queue_.stop(steady_clock::now() + kLong);
  EXPECT_EQ(log_.messages(),
            std::vector<std::string>{"Morvik host: a block on the background queue threw and ended there: broken"});
  EXPECT_EQ(log_.lines().front().prefix->level, "ERROR");
}

TEST_F(BackgroundThreadTest, CountsWhatWaitsAndRunsAndIsIdleAfterwards) {
  std::promise<void> go;
  std::promise<size_t> counted;
  std::promise<size_t> idle;
  queue_.setWhenIdle([&] { idle.set_value(queue_.pending()); });
  queue_.async([&] {
    go.get_future().wait();
    counted.set_value(queue_.pending());
  });
  queue_.async([] {});
  go.set_value();
  EXPECT_EQ(counted.get_future().get(), 2U);
  EXPECT_EQ(idle.get_future().get(), 0U);
}

TEST_F(BackgroundThreadTest, RunsWhatWaitsWhenItIsStoppedInTime) {
  int ran = 0;
  for (int i = 0; i < 100; ++i)
    queue_.async([&ran] { ++ran; });
  queue_.stop(steady_clock::now() + kLong);
  EXPECT_EQ(ran, 100);
}

TEST_F(BackgroundThreadTest, RunsWhatWaitsWhenItIsDrainedAndGoesOnAfterwards) {
  int ran = 0;
  for (int i = 0; i < 100; ++i)
    queue_.async([&ran] { ++ran; });
  EXPECT_TRUE(queue_.drain(steady_clock::now() + kLong));
  EXPECT_EQ(ran, 100);
  queue_.async([&ran] { ++ran; });
  EXPECT_TRUE(queue_.drain(steady_clock::now() + kLong));
  EXPECT_EQ(ran, 101);
}

TEST_F(BackgroundThreadTest, BeginsNothingOnceItWasToldToCease) {
  std::promise<void> started;
  std::promise<void> go;
  bool ran = false;
  queue_.async([&] {
    started.set_value();
    go.get_future().wait();
  });
  queue_.async([&ran] { ran = true; });
  started.get_future().wait();
  queue_.cease();
  EXPECT_FALSE(queue_.drain(steady_clock::now())) << "one runs";
  go.set_value();
  EXPECT_TRUE(queue_.drain(steady_clock::now() + kLong));
  queue_.stop(steady_clock::now() + kLong);
  EXPECT_FALSE(ran);
}

TEST_F(BackgroundThreadTest, DropsWhatWaitsPastTheDeadlineAndWhatComesLater) {
  std::promise<void> started;
  std::promise<void> go;
  std::vector<std::string> ran;
  queue_.async([&] {
    started.set_value();
    go.get_future().wait();
    ran.push_back("running");
  });
  const auto held = std::make_shared<int>(1);
  queue_.async([&ran, held] { ran.push_back("waiting"); });
  started.get_future().wait();
  std::thread stopper([this] { queue_.stop(steady_clock::now()); });
  go.set_value();
  stopper.join();
  queue_.async([&ran, held] { ran.push_back("late"); });
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_LE(ran.size(), 2U);
  EXPECT_EQ(ran.front(), "running");
  EXPECT_EQ(queue_.pending(), 0U);
}

}  // namespace
}  // namespace morvik::host
