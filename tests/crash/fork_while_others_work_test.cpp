// A process that forks at any moment of its kits' work: no lock that a thread holds at that moment keeps the child.
//
// Not under a sanitizer, whose own allocator may be locked in the child.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/posix/log_sinks.h"
#include "host/posix/process_word.h"
#include "morvik/morvik.h"
#include "runtime/log/app_log_sink.h"
#include "tests/support/child.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using test::Child;
constexpr int kFine = 3;
constexpr int kForks = 200;

/// Threads that repeat something while it lives.
class Others {
 public:
  Others() = default;
  Others(const Others&) = delete;
  Others& operator=(const Others&) = delete;
  ~Others() {
    is_over_ = true;
    for (std::thread& thread : threads_)
      thread.join();
  }
  template <class Act>
  void again(Act act) {
    threads_.emplace_back([this, act = std::move(act)]() mutable {
      while (!is_over_)
        act();
    });
  }

 private:
  std::atomic<bool> is_over_{false};
  std::vector<std::thread> threads_;
};

class ForkWhileOthersWork : public ::testing::Test {
 protected:
  std::unique_ptr<MorvikCore> start(const std::string& name, MainQueueMode mode = MainQueueMode::kOwnThread) {
    StartOptions options;
    options.store_folder = folder_ / name;
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 6;
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";  // nothing listens there
    options.report_crashes = name == "store";
    options.main_queue = mode;
    StartResult started = MorvikCore::start(options);
    EXPECT_TRUE(started) << started.error;
    return std::move(started.core);
  }

 private:
  test::ScratchFolder folder_;
};

bool doesNothing(MorvikCore& core) {
  core.applicationDidBecomeActive();
  const bool is_refused = core.addActivity("fork", "child") == Recorded::kRefusedNotRunning &&
                          core.setUserId("child") == Recorded::kRefusedNotRunning &&
                          core.passOpenURL("x://y") == Recorded::kRefusedNotRunning &&
                          core.gdprForgetMe(true) == Recorded::kRefusedNotRunning;
  core.flush([](const FlushResult&) { ::_exit(9); }, std::chrono::seconds(1));
  core.perform([] { ::_exit(9); });
  const bool is_still = core.waitUntilDelivered(std::chrono::seconds(1)).reason == FlushReason::kStopped &&
                        core.isGdprForgetMe() && core.ledger().accounts.empty() && !core.status().is_running &&
                        !core.eraseLocalData();
  core.setSendingEnabled(false);
  core.setLogLevel(6);
  core.setDelegate({});
  core.stop();
  return is_refused && is_still;
}

TEST_F(ForkWhileOthersWork, LeavesNoLockBehindThatAnOperationTheDestructorOrAnExitWaitsFor) {
  auto core = start("store");
  core->applicationDidBecomeActive();
  Others others;
  for (int thread = 0; thread < 3; ++thread)
    others.again([&core] { core->addActivity("shop", "look", "at this"); });
  others.again([&core, age = 0]() mutable {
    core->setAge(++age % 100);
    core->addActivity("", "refused");
    core->passOpenURL("app://x?cid=shoe");
    static_cast<void>(core->ledger());
    static_cast<void>(core->status());
    core->flush({}, std::chrono::milliseconds(1));
    core->perform([] {});
  });
  // Others start and end meanwhile, and so use what all kits of a process share.
  others.again([this] { start("another")->addActivity("shop", "look"); });
  for (int fork = 0; fork < kForks && !HasFailure(); ++fork) {
    Child child([&core] {
      if (!doesNothing(*core))
        return 1;
      core.reset();
      std::exit(kFine);
    });
    EXPECT_EQ(child.status(), kFine) << "fork " << fork;
  }
  EXPECT_EQ(core->addActivity("shop", "look"), Recorded::kKept) << "the parent goes on";
}

TEST_F(ForkWhileOthersWork, LeavesNoLockOfALogThatIsClosedBehind) {
  runtime::ClosableLogSink sink(
      std::make_unique<runtime::AppLogSink>([](std::string_view) {}, std::make_unique<StderrLogSink>(), ownProcess()),
      ownProcess());
  Others others;
  EXPECT_TRUE(sink.close(std::chrono::steady_clock::now() + std::chrono::seconds(1)));
  for (int thread = 0; thread < 3; ++thread)
    others.again([&sink] { sink.line("too late"); });
  bool all_fine = true;
  for (int fork = 0; fork < kForks && all_fine; ++fork) {
    Child child([&sink] { return sink.tryLine("in the child") ? 1 : kFine; });
    all_fine = child.status() == kFine;
    EXPECT_TRUE(all_fine) << "fork " << fork;
  }
}

TEST_F(ForkWhileOthersWork, LeavesNobodyBehindForWhomTheDestructorWaits) {
  auto core = start("store");
  std::promise<void> begun;
  std::promise<void> go;
  core->perform([&] {
    begun.set_value();
    go.get_future().wait();
  });
  begun.get_future().wait();
  // One erases, and waits for the block above; the other waits for the first.
  auto one = std::async(std::launch::async, [&core] { return core->eraseLocalData(); });
  auto other = std::async(std::launch::async, [&core] { return core->eraseLocalData(); });
  test::waitUntilOtherThreadsSleep();
  EXPECT_EQ(Child([&core] {
              core.reset();
              return kFine;
            }).status(),
            kFine);
  go.set_value();
  EXPECT_EQ(one.get(), other.get());
}

}  // namespace
}  // namespace morvik::host
