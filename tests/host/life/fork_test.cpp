// What a forked child can do to the kit of its parent: nothing.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/posix/process_word.h"
#include "host/store/sqlite_store.h"
#include "runtime/make_instance.h"
#include "testing/recording_log.h"
#include "tests/support/child.h"
#include "tests/support/no_threads.h"
#include "tests/support/on_scratch_folder.h"

namespace {
const pid_t parent = getpid();
}  // namespace

/// Asked by the leak sanitizer when a process exits. In a fork the sanitizer would wait for ever for its own lock,
/// which another thread held at the time of the fork.
extern "C" int __lsan_is_turned_off() {
  return getpid() != parent ? 1 : 0;
}

namespace morvik::host {
namespace {

using test::Child;
using ::testing::HasSubstr;
constexpr int kFine = 3;

class Fork : public test::OnScratchFolder {
 protected:
  static void record(MorvikCore& core, int count) {
    for (int i = 0; i < count; ++i)
      EXPECT_EQ(core.addActivity("fork", "event"), Recorded::kKept);
  }
  size_t stored() const {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused)
        .get("fendoActivityInfos")
        .size();
  }
};

TEST_F(Fork, IsNotTheProcessThatItsObjectsWereMadeIn) {
  const runtime::OwnProcess here = ownProcess();
  EXPECT_TRUE(here.isHere());
  EXPECT_EQ(Child([&here] {
              const runtime::OwnProcess there = ownProcess();
              return !here.isHere() && there.isHere() ? kFine : 1;
            }).status(),
            kFine);
  EXPECT_TRUE(here.isHere());
  EXPECT_TRUE(ownProcess().isHere());
}

TEST_F(Fork, DoesNothingWithEveryOperationAndSaysSoOnce) {
  const auto core = start();
  record(*core, 5);
  Child child([&] {
    const size_t lines = log.lines().size();
    ::testing::internal::CaptureStderr();
    core->applicationDidBecomeActive();
    const bool is_refused = core->addActivity("fork", "child") == Recorded::kRefusedNotRunning &&
                            core->setAge(7) == Recorded::kRefusedNotRunning &&
                            core->passOpenURL("x://y") == Recorded::kRefusedNotRunning &&
                            core->gdprForgetMe(true) == Recorded::kRefusedNotRunning;
    core->pushTracking();
    core->perform([] { ::_exit(9); });
    core->dispatch();
    static_cast<void>(core->isGdprForgetMe());
    static_cast<void>(core->ledger());
    core->setDelegate({});
    core->applicationDidEnterBackground();
    core->stop();
    // The app's sink may want a lock that another thread of the parent held.
    const std::string told = ::testing::internal::GetCapturedStderr();
    const bool is_told_once = log.lines().size() == lines && std::count(told.begin(), told.end(), '\n') == 1 &&
                              told.find("is a fork of the one that started the kit") != std::string::npos;
    return is_refused && is_told_once && core->pollDescriptor() == -1 ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
  record(*core, 5);
  EXPECT_EQ(stored(), 10U);
}

TEST_F(Fork, DestroysItsCopyWithoutWaiting) {
  auto core = start();
  record(*core, 5);
  EXPECT_EQ(Child([&] {
              core.reset();
              return kFine;
            }).status(),
            kFine);
  record(*core, 1);
  core->stop();
  EXPECT_EQ(stored(), 6U);
}

TEST_F(Fork, ExitsWithoutWaiting) {
  const auto core = start();
  record(*core, 5);
  EXPECT_EQ(Child([] {
              std::exit(kFine);
              return 1;
            }).status(),
            kFine);
  record(*core, 1);
  EXPECT_EQ(stored(), 6U);
}

TEST_F(Fork, LivesOnWhileItsParentEndsAndStartsAgain) {
  auto core = start();
  record(*core, 5);
  Child child([] {
    ::pause();
    return 1;
  });
  core->stop();
  core = start();
  record(*core, 1);
  EXPECT_EQ(stored(), 6U);
  child.end();
}

/// If the system has no thread left, the end of the kit runs on the calling one, and so do the last log lines.
class ForkAtTheEnd : public Fork {
 protected:
  ForkAtTheEnd() {
    options.log_level = 4;
    options.main_queue = MainQueueMode::kPumped;
  }
  /// Erases while the system has no thread left; returns the exit status of a child forked meanwhile.
  int endOfTheChildOfAnErasing(MorvikCore& core) {
    bool is_erased = false;
    {
      const test::NoThreads none;
      is_erased = core.eraseLocalData();
    }
    if (child == 0)
      ::_exit(is_erased ? 1 : kFine);
    EXPECT_TRUE(is_erased);
    EXPECT_NE(child, -1) << "nothing forked";
    return test::endOf(child);
  }
  pid_t child = -1;
};

TEST_F(ForkAtTheEnd, InTheLastLineTheChildHasErasedNothing) {
  options.log_sink = [this](std::string_view line) {
    if (child == -1 && line.find("Morvik host: stopped") != line.npos)
      child = test::forked();
  };
  const auto core = start();
  record(*core, 1);
  EXPECT_EQ(endOfTheChildOfAnErasing(*core), kFine);
}

TEST_F(ForkAtTheEnd, InWhatTheKitCallsMeanwhileTheChildComesBackAtOnce) {
  const auto delegate = std::make_shared<MorvikCoreDelegate>();
  delegate->didRefuseEvent = [this](Recorded) { child = test::forked(); };
  const auto core = start();
  core->setDelegate(delegate);
  core->applicationDidBecomeActive();  // the network's thread runs
  core->perform([&core] { core->addActivity("", "no group"); });
  EXPECT_EQ(endOfTheChildOfAnErasing(*core), kFine);
}

TEST_F(Fork, LeavesItsUncaughtExceptionToWhoeverWasThereBeforeTheKit) {
  options.report_crashes = true;
  const auto core = start();
  record(*core, 1);
  const pid_t child = test::forked();
  if (child == 0) {
    const std::function<void()> fail = [] { throw std::runtime_error("fendo broke"); };
    [&fail]() noexcept { fail(); }();
    ::_exit(1);
  }
  const int status = test::rawEndOf(child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  testing::RecordingLog unused;
  const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
  EXPECT_TRUE(inspector.get("MorvikCoreUserInfo_Crash").isAbsent());
  EXPECT_FALSE(std::filesystem::exists(options.store_folder + "/crash-reports"));
}

TEST_F(Fork, CannotStartOnTheFolderOfItsParent) {
  const auto core = start();
  Child child([this] {
    const StartResult started = MorvikCore::start(options);
    return !started && started.error.find("the process that this one was forked from") != std::string::npos ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST_F(Fork, IsToldByAnotherProcessThatTheFolderIsInUse) {
  // Another process has the store: this one was forked before that took the lock.
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  Child child([&] {
    const StartResult started = MorvikCore::start(options);
    const char byte = started ? 'y' : 'n';
    if (::write(ready[1], &byte, 1) == 1)
      ::pause();
    return 1;
  });
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  EXPECT_THAT(MorvikCore::start(options).error, HasSubstr("is in use by another process"));
  child.end();
  EXPECT_TRUE(MorvikCore::start(options));
  ::close(ready[0]);
  ::close(ready[1]);
}

}  // namespace
}  // namespace morvik::host
