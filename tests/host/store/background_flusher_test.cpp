#include "host/store/background_flusher.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <future>
#include <new>
#include <utility>
#include <vector>

namespace morvik::host {
namespace {

using Urgency = BackgroundFlusher::Urgency;
using std::chrono::hours;
using std::chrono::milliseconds;

TEST(BackgroundFlusher, FlushesAfterItsDelay) {
  std::promise<Urgency> flushed;
  BackgroundFlusher flusher([&](Urgency urgency) { flushed.set_value(urgency); }, milliseconds(1));
  flusher.flushSoon();
  EXPECT_EQ(flushed.get_future().get(), Urgency::kRoutine);
}

TEST(BackgroundFlusher, FlushesAtOnceWithoutWaitingForItsDelay) {
  std::promise<Urgency> flushed;
  BackgroundFlusher flusher([&](Urgency urgency) { flushed.set_value(urgency); }, hours(24));
  flusher.flushSoon();
  flusher.flushNow(Urgency::kSessionEnd);
  EXPECT_EQ(flushed.get_future().get(), Urgency::kSessionEnd);
}

TEST(BackgroundFlusher, RequestsDuringAFlushAreOneMore) {
  std::promise<void> running;
  std::promise<void> go_on;
  std::atomic<int> flushes{0};
  BackgroundFlusher flusher(
      [&](Urgency) {
        if (flushes.fetch_add(1) == 0) {
          running.set_value();
          go_on.get_future().wait();
        }
      },
      hours(24));
  flusher.flushNow(Urgency::kRoutine);
  running.get_future().wait();
  for (int i = 0; i < 5; ++i)
    flusher.flushNow(Urgency::kRoutine);
  go_on.set_value();
  flusher.flushAndWait(Urgency::kRoutine);
  flusher.stop();
  EXPECT_GE(flushes.load(), 2);
  EXPECT_LE(flushes.load(), 3);
}

TEST(BackgroundFlusher, WaitingMeansAFlushThatStartedAfterTheCall) {
  std::atomic<int> value{0};
  std::atomic<int> seen{-1};
  BackgroundFlusher flusher([&](Urgency) { seen = value.load(); }, hours(24));
  for (int i = 1; i <= 50; ++i) {
    value = i;
    flusher.flushAndWait(Urgency::kRoutine);
    EXPECT_EQ(seen.load(), i);
  }
}

TEST(BackgroundFlusher, RunsOnAThreadThatTakesNoSignalsOfTheApps) {
  sigset_t blocked;
  sigemptyset(&blocked);
  BackgroundFlusher flusher([&](Urgency) { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }, hours(24));
  flusher.flushAndWait(Urgency::kRoutine);
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGALRM, SIGPROF})
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
  for (const int fault : {SIGSEGV, SIGBUS, SIGABRT})
    EXPECT_EQ(sigismember(&blocked, fault), 0) << fault;
}

TEST(BackgroundFlusher, WithoutAThreadFlushesWhereSomebodyWaitsAndAsksForOneAgain) {
  bool is_refused = true;
  int flushes = 0;
  BackgroundFlusher flusher([&](Urgency) { ++flushes; }, milliseconds(1),
                            [&](const char* name, std::function<void()> body) -> BackgroundFlusher::Started {
                              if (is_refused)
                                return kit::Error{"no thread"};
                              return startThread(name, std::move(body));
                            });
  ASSERT_TRUE(flusher.problem());
  EXPECT_EQ(flusher.problem()->message, "no thread");
  flusher.flushSoon();
  EXPECT_EQ(flushes, 0) << "nobody waits for the disk that did not ask to";
  flusher.flushAndWait(Urgency::kRoutine);
  EXPECT_EQ(flushes, 1);
  is_refused = false;
  flusher.flushSoon();
  EXPECT_FALSE(flusher.problem());
  flusher.flushAndWait(Urgency::kRoutine);
  EXPECT_GE(flushes, 2);
  flusher.stop();
}

TEST(BackgroundFlusher, GoesOnAfterAFlushThatThrew) {
  std::promise<void> flushed;
  std::atomic<int> flushes{0};
  BackgroundFlusher flusher(
      [&](Urgency) {
        if (flushes.fetch_add(1) == 0)
          throw std::bad_alloc();
        flushed.set_value();
      },
      milliseconds(1));
  flusher.flushNow(Urgency::kRoutine);
  flushed.get_future().wait();  // by itself
  flusher.stop();
}

TEST(BackgroundFlusher, NothingRunsAfterStop) {
  std::atomic<int> flushes{0};
  BackgroundFlusher flusher([&](Urgency) { ++flushes; }, hours(24));
  flusher.flushSoon();
  flusher.stop();
  flusher.flushNow(Urgency::kSessionEnd);
  flusher.flushAndWait(Urgency::kSessionEnd);
  flusher.stop();
  EXPECT_EQ(flushes.load(), 0);
}

}  // namespace
}  // namespace morvik::host
