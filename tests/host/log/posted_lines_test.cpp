#include "runtime/log/posted_lines.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/posix/process_word.h"
#include "runtime/instance.h"
#include "runtime/log/logged_lines.h"
#include "testing/recording_log.h"
#include "testing/virtual_loop.h"
#include "tests/host/failing_allocations.h"
#include "tests/support/child.h"
#include "tests/support/on_scratch_folder.h"
#include "tests/support/threads_of_process.h"

namespace morvik::host {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class PostedLinesTest : public ::testing::Test {
 protected:
  PostedLinesTest() {
    runtime::setKitLevel(levels_, kit::lcl_vWarning);
    lines_.setMainQueue(loop_.mainQueue());
  }
  void post(std::string_view text) {
    const auto marked = lines_.postFromHere();
    lines_.line(text);
  }
  std::vector<std::string> written() const { return log_.messages(); }

  testing::VirtualLoop loop_;
  testing::RecordingLog log_;
  kit::LogLevels levels_;
  runtime::PostedLines lines_{levels_, log_, ownProcess()};
};

TEST_F(PostedLinesTest, WaitForTheMainQueueOnAThreadThatIsMarked) {
  post("first");
  post("second");
  EXPECT_THAT(written(), IsEmpty());
  loop_.runUntilIdle();
  EXPECT_THAT(written(), ElementsAre("first", "second"));
  post("third");
  loop_.runUntilIdle();
  EXPECT_THAT(written(), ElementsAre("first", "second", "third"));
}

TEST_F(PostedLinesTest, AreWrittenAtOnceOnAnyOtherThreadAfterThoseThatWait) {
  post("waits");
  lines_.line("at once");
  EXPECT_THAT(written(), ElementsAre("waits", "at once"));
  loop_.runUntilIdle();
  EXPECT_THAT(written(), SizeIs(2));
}

/// Like an app's sink that takes one line at a time and calls the kit for each.
class SinkThatCallsTheKit final : public kit::LogSink {
 public:
  void line(std::string_view text) override {
    EXPECT_FALSE(is_within_);
    is_within_ = true;
    lines_.emplace_back(text);
    const auto marked = kit_->postFromHere();
    kit_->line("the call was refused");
    is_within_ = false;
  }
  bool tryLine(std::string_view) override { return !is_within_; }
  void callsAs(runtime::PostedLines& kit) { kit_ = &kit; }
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  runtime::PostedLines* kit_ = nullptr;
  bool is_within_ = false;
  std::vector<std::string> lines_;
};

TEST_F(PostedLinesTest, FromWithinTheSinkAreDroppedAndNotToldToItWithoutEnd) {
  SinkThatCallsTheKit sink;
  runtime::PostedLines lines(levels_, sink, ownProcess());
  lines.setMainQueue(loop_.mainQueue());
  sink.callsAs(lines);
  lines.line("at once");
  {
    const auto marked = lines.postFromHere();
    lines.line("waits");
  }
  loop_.runUntilIdle();
  EXPECT_THAT(sink.lines(), ElementsAre("at once", "waits"));
}

TEST_F(PostedLinesTest, OfADyingThreadPassThoseThatWait) {
  post("waits");
  const auto marked = lines_.postFromHere();
  EXPECT_TRUE(lines_.tryLine("last words"));
  EXPECT_THAT(written(), ElementsAre("last words"));
}

TEST_F(PostedLinesTest, OfAnotherKitAreWrittenAtOnce) {
  testing::RecordingLog log;
  runtime::PostedLines other(levels_, log, ownProcess());
  other.setMainQueue(loop_.mainQueue());
  const auto marked = lines_.postFromHere();
  {
    const auto inner = other.postFromHere();
    lines_.line("of this one");
  }
  lines_.line("waits again");
  EXPECT_THAT(written(), ElementsAre("of this one"));
}

TEST_F(PostedLinesTest, OfWhatAnAppsThreadWaitsForWaitAsWell) {
  post("first");
  lines_.later().line("second");
  EXPECT_TRUE(lines_.later().tryLine("last words"));
  EXPECT_THAT(written(), ElementsAre("last words"));
  loop_.runUntilIdle();
  EXPECT_THAT(written(), ElementsAre("last words", "first", "second"));
}

TEST_F(PostedLinesTest, AreWrittenAtOnceBeforeThereIsAMainQueue) {
  testing::RecordingLog log;
  runtime::PostedLines early(levels_, log, ownProcess());
  const auto marked = early.postFromHere();
  early.line("at once");
  EXPECT_THAT(log.messages(), ElementsAre("at once"));
}

TEST_F(PostedLinesTest, AreWrittenWhenTheKitEndsBeforeTheMainQueueComesToThem) {
  post("first");
  lines_.writeAll();
  EXPECT_THAT(written(), ElementsAre("first"));
  post("second");
  lines_.tryWriteAll(std::chrono::steady_clock::now());
  EXPECT_THAT(written(), ElementsAre("first", "second"));
}

/// Like an app's sink that is slow.
class SlowSink final : public kit::LogSink {
 public:
  void line(std::string_view text) override {
    if (const auto pause = std::exchange(pause_, nullptr))
      pause();
    log_.line(text);
  }
  bool tryLine(std::string_view text) override { return log_.tryLine(text); }
  /// Run during the next line.
  void pausesFor(std::function<void()> pause) { pause_ = std::move(pause); }
  std::vector<std::string> lines() const { return log_.messages(); }

 private:
  std::function<void()> pause_;
  testing::RecordingLog log_;
};

class PostedLinesOfThreads : public PostedLinesTest {
 protected:
  PostedLinesOfThreads() { slow_lines_.setMainQueue(loop_.mainQueue()); }
  void postSlow(std::string_view text) {
    const auto marked = slow_lines_.postFromHere();
    slow_lines_.line(text);
  }

  SlowSink sink_;
  runtime::PostedLines slow_lines_{levels_, sink_, ownProcess()};
};

TEST_F(PostedLinesOfThreads, AreWrittenInTheOrderInWhichTheyCame) {
  std::thread second;
  sink_.pausesFor([&] {
    second = std::thread([&] { slow_lines_.line("second"); });
    // It waits; or it is done, which is too early.
    test::waitUntilOtherThreadsSleep();
    std::thread([&] { postSlow("third"); }).join();
  });
  slow_lines_.line("first");
  second.join();
  loop_.runUntilIdle();
  EXPECT_THAT(sink_.lines(), ElementsAre("first", "second", "third"));
}

TEST_F(PostedLinesOfThreads, ThatWaitedAreNotPassedWhileTheyAreWritten) {
  postSlow("first");
  postSlow("second");
  std::thread third;
  sink_.pausesFor([&] {
    third = std::thread([&] { slow_lines_.line("third"); });
    test::waitUntilOtherThreadsSleep();
  });
  loop_.runUntilIdle();
  third.join();
  EXPECT_THAT(sink_.lines(), ElementsAre("first", "second", "third"));
}

TEST_F(PostedLinesOfThreads, WaitOnWhereTheTimeIsUpBeforeAnotherThreadHasWritten) {
  sink_.pausesFor([&] {
    std::thread([&] {
      postSlow("second");
      slow_lines_.tryWriteAll(std::chrono::steady_clock::now());
      EXPECT_TRUE(slow_lines_.areWaiting());
    }).join();
  });
  slow_lines_.line("first");
  EXPECT_THAT(sink_.lines(), ElementsAre("first"));
  slow_lines_.tryWriteAll(std::chrono::steady_clock::now());
  EXPECT_THAT(sink_.lines(), ElementsAre("first", "second"));
}

TEST_F(PostedLinesOfThreads, AreWrittenOnceAnotherThreadIsDoneWithinTheTime) {
  std::thread second;
  sink_.pausesFor([&] {
    second = std::thread([&] {
      postSlow("second");
      slow_lines_.tryWriteAll(std::chrono::steady_clock::now() + test::kGiveUp);
    });
    test::waitUntilOtherThreadsSleep();
  });
  slow_lines_.line("first");
  second.join();
  EXPECT_THAT(sink_.lines(), ElementsAre("first", "second"));
}

TEST_F(PostedLinesOfThreads, HangInNoForkOfTheProcessWhileOneIsWritten) {
  constexpr int kFine = 3;
  sink_.pausesFor([&] {
    std::thread([&] {
      test::Child child([&] {
        slow_lines_.line("of the child");
        postSlow("of the child");
        slow_lines_.writeAll();
        slow_lines_.tryWriteAll(std::chrono::steady_clock::now() + test::kGiveUp);
        return kFine;
      });
      EXPECT_EQ(child.status(), kFine);
    }).join();
  });
  slow_lines_.line("of the parent");
  EXPECT_THAT(sink_.lines(), ElementsAre("of the parent"));
}

TEST_F(PostedLinesOfThreads, ThatComeBackThroughAnotherKitAreDropped) {
  SlowSink other_sink;
  runtime::PostedLines other(levels_, other_sink, ownProcess());
  sink_.pausesFor([&] { other.line("of another kit"); });
  other_sink.pausesFor([&] { slow_lines_.line("back"); });
  slow_lines_.line("first");
  EXPECT_THAT(sink_.lines(), ElementsAre("back", "first"));
  EXPECT_THAT(other_sink.lines(), ElementsAre("of another kit"));
}

/// A sink that is busy when a line comes that cannot wait.
class BusySink final : public kit::LogSink {
 public:
  void line(std::string_view text) override { log_.line(text); }
  bool tryLine(std::string_view text) override {
    if (busy_for_ == 0)
      return log_.tryLine(text);
    --busy_for_;
    return false;
  }
  void isBusyFor(size_t lines) { busy_for_ = lines; }
  std::vector<std::string> lines() const { return log_.messages(); }

 private:
  size_t busy_for_ = 0;
  testing::RecordingLog log_;
};

TEST_F(PostedLinesTest, ThatTheSinkDoesNotTakeAtTheEndAreCountedWhereTheyAreMissing) {
  BusySink sink;
  runtime::PostedLines lines(levels_, sink, ownProcess());
  lines.setMainQueue(loop_.mainQueue());
  const auto postThree = [&lines] {
    const auto marked = lines.postFromHere();
    for (const char* const text : {"first", "second", "third"})
      lines.line(text);
  };
  postThree();
  sink.isBusyFor(1);
  lines.tryWriteAll(std::chrono::steady_clock::now());
  EXPECT_THAT(sink.lines(), ElementsAre(HasSubstr("1 lines like those before were left out"), "second", "third"));
  EXPECT_FALSE(lines.areWaiting());

  postThree();
  sink.isBusyFor(100);
  lines.tryWriteAll(std::chrono::steady_clock::now());
  EXPECT_THAT(sink.lines(), SizeIs(3));
  EXPECT_TRUE(lines.areWaiting());
  lines.line("later");
  EXPECT_THAT(sink.lines(), ElementsAre(_, _, _, HasSubstr("3 lines like those before were left out"), "later"));
  EXPECT_FALSE(lines.areWaiting());
}

TEST_F(PostedLinesTest, PastTheirNumberAreCountedWhereTheyAreMissing) {
  for (size_t line = 0; line < runtime::kMaxPostedLines + 3; ++line)
    post("a line");
  lines_.line("next");
  ASSERT_THAT(written(), SizeIs(runtime::kMaxPostedLines + 2));
  EXPECT_THAT(written()[runtime::kMaxPostedLines], HasSubstr("3 lines like those before were left out"));
  EXPECT_EQ(written().back(), "next");
}

TEST_F(PostedLinesTest, PastTheirNumberAreLeftOutAndCounted) {
  for (size_t line = 0; line < runtime::kMaxPostedLines + 3; ++line)
    post("a line");
  loop_.runUntilIdle();
  ASSERT_THAT(written(), SizeIs(runtime::kMaxPostedLines + 1));
  EXPECT_THAT(written().back(), HasSubstr("3 lines like those before were left out"));
  post("later");
  loop_.runUntilIdle();
  EXPECT_EQ(written().back(), "later");
}

TEST_F(PostedLinesTest, PastTheirBytesAreLeftOutAndCounted) {
  post(std::string(runtime::kMaxPostedLineBytes, 'x'));
  post("y");
  loop_.runUntilIdle();
  ASSERT_THAT(written(), SizeIs(2));
  EXPECT_THAT(written().back(), HasSubstr("1 lines like those before were left out"));
  post("later");
  loop_.runUntilIdle();
  EXPECT_EQ(written().back(), "later");
}

TEST_F(PostedLinesTest, ThatAreAllTooLongAreCountedAsWell) {
  post(std::string(runtime::kMaxPostedLineBytes + 1, 'x'));
  loop_.runUntilIdle();
  ASSERT_THAT(written(), SizeIs(1));
  EXPECT_THAT(written().back(), HasSubstr("1 lines like those before were left out"));
}

TEST_F(PostedLinesTest, ThatFindNoMemoryAreCounted) {
  const std::string text(1000, 'x');
  for (uint64_t succeeding = 0; succeeding < 3; ++succeeding) {
    test::FailingAllocations memory(succeeding);
    EXPECT_NO_THROW(post(text));
  }
  lines_.line("next");
  loop_.runUntilIdle();
  ASSERT_THAT(written(), Not(IsEmpty()));
  EXPECT_EQ(written().back(), "next");
  EXPECT_THAT(written(), Contains(HasSubstr("lines like those before were left out")));
}

/// An app that holds a lock while it calls the kit, and whose log sink takes the same one.
class LockOfTheApp : public test::OnScratchFolder {
 protected:
  LockOfTheApp() {
    options.main_queue = MainQueueMode::kPumped;
    options.log_level = kit::lcl_vWarning;
    options.log_sink = [this](std::string_view line) {
      // Here the app would deadlock.
      EXPECT_FALSE(is_locked_) << line;
      log.line(line);
    };
    core_ = start();
  }
  template <class Call>
  auto locked(Call call) {
    is_locked_ = true;
    struct Unlock {
      ~Unlock() { is_locked = false; }
      bool& is_locked;
    } unlock{is_locked_};
    return call();
  }
  /// Writes the lines of the main queue, which the app runs while it holds no lock.
  void pump() const {
    pollfd ready{.fd = core_->pollDescriptor(), .events = POLLIN, .revents = 0};
    do
      core_->dispatch();
    while (core_->pollTimeoutMilliseconds() == 0 || ::poll(&ready, 1, 0) > 0);
  }

  std::unique_ptr<MorvikCore> core_;

 private:
  bool is_locked_ = false;
};

TEST_F(LockOfTheApp, IsNotWantedByACallThatIsRefused) {
  EXPECT_EQ(locked([this] { return core_->addActivity("", "look"); }), Recorded::kRefusedEmpty);
  EXPECT_EQ(locked([this] { return core_->setUserId(std::string(100'000, 'x')); }), Recorded::kRefusedTooLarge);
  EXPECT_EQ(locked([this] { return core_->passOpenURL(std::string(100'000, 'x')); }), Recorded::kRefusedTooLarge);
  EXPECT_EQ(log.countContaining("was not recorded"), 0U);
  pump();
  EXPECT_EQ(log.countContaining("was not recorded"), 3U);
}

TEST_F(LockOfTheApp, IsNotWantedByACallThatFindsTooManyOthersWaiting) {
  locked([this] {
    for (size_t call = 0; call < runtime::kMaxPostedCalls + 2; ++call)
      core_->perform([] {});
  });
  pump();
  EXPECT_GT(log.countContaining("a call was refused: 65536 calls wait for the main queue already"), 0U);
}

TEST_F(LockOfTheApp, IsNotWantedByAFlushTooMany) {
  core_->addActivity("shop", "look");
  locked([this] {
    for (size_t flush = 0; flush < kMaxFlushes + 2; ++flush)
      core_->flush([](const FlushResult&) {}, std::chrono::seconds(1));
  });
  pump();
  EXPECT_GT(log.countContaining("a flush was refused"), 0U);
}

TEST_F(LockOfTheApp, IsNotWantedByWhatIsRefusedWhileTheKitEnds) {
  core_->perform([this] {
    std::thread late([this] {
      EXPECT_EQ(locked([this] { return core_->addActivity("shop", "look"); }), Recorded::kRefusedNotRunning);
    });
    late.join();
  });
  core_->stop();
  EXPECT_EQ(log.countContaining("was handed over after the end of the kit had begun"), 1U);
}

TEST_F(LockOfTheApp, IsNotWantedByAnEndThatACallbackAsksFor) {
  core_->perform([this] {
    locked([this] {
      core_->stop();
      core_->stop(std::chrono::seconds(1));
      EXPECT_FALSE(core_->eraseLocalData());
    });
  });
  pump();
  EXPECT_EQ(log.countContaining("the kit cannot be stopped from within one of its callbacks"), 2U);
  EXPECT_EQ(log.countContaining("nothing was erased: a callback runs"), 1U);
}

TEST_F(LockOfTheApp, IsNotWantedByTheThrowingAnswerToAFlush) {
  core_->addActivity("shop", "look");
  locked([this] {
    for (size_t flush = 0; flush < kMaxFlushes + 2; ++flush)
      core_->flush([](const FlushResult&) { throw std::runtime_error("no room on the screen"); }, test::kGiveUp);
  });
  pump();
  EXPECT_GT(log.countContaining("no room on the screen"), 0U);
}

TEST_F(LockOfTheApp, KeepsNoStopFromItsEndWhereTheSinkWaitsForIt) {
  core_->stop();
  const auto lock = std::make_shared<std::mutex>();
  options.main_queue = MainQueueMode::kOwnThread;
  options.log_level = kit::lcl_vInfo;
  options.log_sink = [lock](std::string_view) { const std::scoped_lock hold(*lock); };
  for (const bool is_erased : {false, true}) {
    core_ = start();
    const std::scoped_lock hold(*lock);
    const auto took = timeOf([&] { is_erased ? static_cast<void>(core_->eraseLocalData()) : core_->stop(); });
    EXPECT_LT(took, test::kGiveUp);
  }
}

/// What is kept across an erasure goes into a new store, which has its own thread and log lines.
TEST_F(LockOfTheApp, KeepsNoErasingFromItsEndWhereTheFreshStoreHasSomethingToSay) {
  core_->gdprForgetMe(true);
  core_->stop();
  constexpr int kFine = 3;
  test::Child child([this] {
    std::signal(SIGXFSZ, SIG_IGN);
    std::mutex lock;
    options.main_queue = MainQueueMode::kOwnThread;
    options.log_sink = [this, &lock](std::string_view line) {
      const std::scoped_lock hold(lock);
      log.line(line);
    };
    core_ = start();
    // There is space for the marker, but not for a store.
    const rlimit little_room{1000, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_FSIZE, &little_room) != 0)
      return 1;
    {
      const std::scoped_lock hold(lock);
      if (core_->eraseLocalData())
        return 2;
    }
    return kFine;
  });
  EXPECT_EQ(child.status(), kFine);
}

TEST_F(LockOfTheApp, IsNotWantedWhileTheDiskIsFull) {
  core_->stop();
  constexpr int kFine = 3;
  test::Child child([this] {
    // The limit applies to the process, so this is a process of its own.
    std::signal(SIGXFSZ, SIG_IGN);
    core_ = start();
    const rlimit no_room{0, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_FSIZE, &no_room) != 0)
      return 1;
    const bool is_kept_in_memory =
        locked([this] { return core_->addActivity("shop", "look"); }) == Recorded::kKeptInMemory &&
        locked([this] { return core_->setAge(7); }) == Recorded::kKeptInMemory &&
        locked([this] { return core_->gdprForgetMe(true); }) == Recorded::kKeptInMemory;
    pump();
    const bool is_told = log.countContaining("cannot be written") > 0;
    return is_kept_in_memory && is_told && !HasFailure() ? kFine : 1;
  });
  EXPECT_EQ(child.status(), kFine);
}

}  // namespace
}  // namespace morvik::host
