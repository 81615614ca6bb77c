// Processes that die for real: each test forks a child that crashes, and reads what it left.
//
// The tests stand outside the kit's namespace on purpose: a function of the kit on the stack is what they tell apart.
#include "host/linux/crash/crash_hook.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "host/json/simdjson_codec.h"
#include "host/linux/crash/bare_frames.h"
#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/fatal_signals.h"
#include "host/posix/thread.h"
#include "tests/support/scratch_folder.h"

// The same acts, as functions of the kit and as functions of somebody else.
// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define FUNCTIONS_THAT_CRASH                                                                 \
  [[gnu::noinline]] void perform(void (*act)()) {                                            \
    act();                                                                                   \
    asm volatile(""); /* so that the call is no jump */                                      \
  }                                                                                          \
  void readNothing() {                                                                       \
    static int* volatile nothing = nullptr;                                                  \
    *nothing = 1;                                                                            \
  }                                                                                          \
  void divideByZero() {                                                                      \
    static volatile int number = 100;                                                        \
    static volatile int zero = 0;                                                            \
    number = number / zero;                                                                  \
  }                                                                                          \
  void runNoInstruction() {                                                                  \
    __builtin_trap();                                                                        \
  }                                                                                          \
  void readBeyondTheFile() {                                                                 \
    const int file = ::memfd_create("nothing in it", MFD_CLOEXEC);                           \
    void* const mapped = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0); \
    *static_cast<volatile char*>(mapped) = 1;                                                \
  }                                                                                          \
  void giveUp() {                                                                            \
    std::abort();                                                                            \
  }
// NOLINTEND(cppcoreguidelines-macro-usage)

namespace morvik::crashing {
FUNCTIONS_THAT_CRASH
}  // namespace morvik::crashing

namespace stranger {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::KilledBySignal;
using ::testing::Not;
namespace host = morvik::host;
namespace runtime = morvik::runtime;
namespace kit = morvik::kit;
namespace crashing = morvik::crashing;

FUNCTIONS_THAT_CRASH

bool wasKilled(int status) {
  return WIFSIGNALED(status);
}

struct Fatal {
  int signal;
  void (*act)();
  void (*act_of_the_kit)();
};
constexpr Fatal kFatal[] = {{SIGSEGV, readNothing, crashing::readNothing},
                            {SIGABRT, giveUp, crashing::giveUp},
                            {SIGBUS, readBeyondTheFile, crashing::readBeyondTheFile},
                            {SIGFPE, divideByZero, crashing::divideByZero},
                            {SIGILL, runNoInstruction, crashing::runNoInstruction}};

class Crash : public ::testing::Test {
 protected:
  std::string recordPath() const { return folder_ / "record"; }
  std::string reportPath() const { return folder_ / "report"; }

  host::CrashHookParts parts(const bool* in_focus = nullptr) const {
    host::CrashHookParts parts;
    parts.record_path = recordPath();
    parts.report = [path = reportPath()](const kit::UncaughtException& exception) {
      std::ofstream file(path, std::ios::app);
      file << "report: " << exception.reason.value_or("(none)") << '\n';
      for (const std::string& symbol : exception.call_stack_symbols)
        file << symbol << '\n';
    };
    parts.is_app_in_focus = [](const void* flag) { return flag != nullptr && *static_cast<const bool*>(flag); };
    parts.context = in_focus;
    return parts;
  }

  std::unique_ptr<host::CrashHook> install(const bool* in_focus = nullptr) const {
    auto installed = host::CrashHook::install(parts(in_focus));
    if (const auto* error = std::get_if<kit::Error>(&installed)) {
      ADD_FAILURE() << error->message;
      return nullptr;
    }
    return std::move(std::get<std::unique_ptr<host::CrashHook>>(installed));
  }

  std::optional<kit::UncaughtException> crash() const {
    auto found = host::crashOfEarlierProcess(recordPath(), host::SimdjsonCodec());
    if (const auto* error = std::get_if<kit::Error>(&found)) {
      ADD_FAILURE() << error->message;
      return std::nullopt;
    }
    return std::get<std::optional<kit::UncaughtException>>(found);
  }

  /// The stack of the report, as stored.
  std::string trace() const {
    std::string all;
    std::istringstream lines(report());
    for (std::string line; std::getline(lines, line);)
      all.append(line).append(host::kFrameEnd);
    return all;
  }
  std::string report() const {
    std::ifstream file(reportPath());
    return {(std::istreambuf_iterator<char>(file)), {}};
  }

 private:
  const morvik::test::ScratchFolder scratch_;
  const std::filesystem::path folder_ = scratch_.path();
};

using CrashDeathTest = Crash;

TEST_F(CrashDeathTest, EachSignalInTheKitsCodeLeavesARecordThatConcernsIt) {
  for (const Fatal& fatal : kFatal) {
    EXPECT_EXIT(
        {
          const auto hook = install();
          perform(fatal.act_of_the_kit);
        },
        KilledBySignal(fatal.signal), "");
    const auto found = crash();
    ASSERT_TRUE(found) << host::signalName(fatal.signal);
    EXPECT_EQ(found->reason, "mrvk " + host::signalName(fatal.signal));
    EXPECT_THAT(found->call_stack_symbols, Contains(HasSubstr("morvik::crashing::")));
  }
}

TEST_F(CrashDeathTest, EachSignalInCodeThatTheKitCalledIsTheAppsAffair) {
  for (const Fatal& fatal : kFatal) {
    EXPECT_EXIT(
        {
          const auto hook = install();
          crashing::perform(fatal.act);
        },
        KilledBySignal(fatal.signal), "");
    const auto found = crash();
    ASSERT_TRUE(found) << host::signalName(fatal.signal);
    EXPECT_EQ(found->reason, host::signalName(fatal.signal));
    EXPECT_THAT(found->call_stack_symbols, Contains(HasSubstr("stranger::")));
    EXPECT_THAT(found->call_stack_symbols, Contains(HasSubstr("crashing::perform(void (*)()) + ")));
  }
}

TEST_F(CrashDeathTest, EachSignalElsewhereHasItsPlainName) {
  for (const Fatal& fatal : kFatal) {
    EXPECT_EXIT(
        {
          const auto hook = install();
          perform(fatal.act);
        },
        KilledBySignal(fatal.signal), "");
    const auto found = crash();
    ASSERT_TRUE(found) << host::signalName(fatal.signal);
    EXPECT_EQ(found->reason, host::signalName(fatal.signal));
    EXPECT_THAT(found->call_stack_symbols, Contains(HasSubstr("stranger::perform(void (*)()) + ")));
  }
}

TEST_F(CrashDeathTest, TheRecordTellsWhenAndWhetherTheAppWasInFront) {
  for (const bool in_focus : {true, false}) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_EXIT(
        {
          const auto hook = install(&in_focus);
          giveUp();
        },
        KilledBySignal(SIGABRT), "");
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    const auto found = crash();
    ASSERT_TRUE(found && found->moment);
    EXPECT_EQ(found->moment->app_in_focus, in_focus);
    EXPECT_GE(found->moment->date.microseconds, std::chrono::duration_cast<std::chrono::microseconds>(before).count());
    EXPECT_LE(found->moment->date.microseconds, std::chrono::duration_cast<std::chrono::microseconds>(after).count());
  }
}

TEST_F(CrashDeathTest, TheRecordTellsWhatWasLastNoted) {
  EXPECT_EXIT(
      {
        host::CrashHookParts noting = parts();
        const auto note = noting.note = std::make_shared<runtime::CrashNote>();
        note->set(R"({"os_version":"i_1"})");
        const auto hook = host::CrashHook::install(std::move(noting));
        note->set(R"({"os_version":"i_2","device_information":{"app_in_focus":true}})");
        perform(readNothing);
      },
      KilledBySignal(SIGSEGV), "");
  const auto found = crash();
  ASSERT_TRUE(found && found->moment);
  EXPECT_EQ(found->moment->facts["os_version"], kit::Value("i_2"));
  EXPECT_FALSE(found->moment->app_in_focus) << "what the signal found goes before what was noted";
}

TEST_F(CrashDeathTest, ANoteThatCannotBeReadIsNone) {
  EXPECT_EXIT(
      {
        host::CrashHookParts noting = parts();
        noting.note = std::make_shared<runtime::CrashNote>();
        noting.note->set("{");
        const auto hook = host::CrashHook::install(std::move(noting));
        perform(readNothing);
      },
      KilledBySignal(SIGSEGV), "");
  const auto found = crash();
  ASSERT_TRUE(found && found->moment);
  EXPECT_EQ(found->reason, "SIGSEGV");
  EXPECT_TRUE(found->moment->facts.isAbsent());
}

TEST_F(CrashDeathTest, AStackThatOverflowsIsRecorded) {
  struct Deep {
    static int sink(int depth) {
      volatile char room[4096] = {};
      room[0] = static_cast<char>(depth);
      return depth < 0 ? 0 : sink(depth + 1) + room[0];
    }
  };
  EXPECT_EXIT(
      {
        const auto hook = install();
        std::_Exit(Deep::sink(0));
      },
      KilledBySignal(SIGSEGV), "");
  const auto found = crash();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->reason, "SIGSEGV");
  EXPECT_EQ(found->call_stack_symbols.size(), host::kMaxCrashFrames);
}

int useUpTheStack(int depth) {
  volatile char room[4096] = {};
  room[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : useUpTheStack(depth + 1) + room[0];
}

TEST_F(CrashDeathTest, AStackThatOverflowsOnAThreadOfTheKitsIsRecorded) {
  EXPECT_EXIT(
      {
        const auto hook = install();
        auto thread = host::startThread("morvik-test", [] { std::_Exit(useUpTheStack(0)); });
        std::get<std::thread>(thread).join();
      },
      KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGSEGV");
}

TEST_F(CrashDeathTest, AFaultOfWhatTheHandlerAsksLeavesTheRecordOfTheCrash) {
  EXPECT_EXIT(
      {
        host::CrashHookParts faulty = parts();
        faulty.is_app_in_focus = [](const void*) {
          readNothing();
          return true;
        };
        faulty.note = std::make_shared<runtime::CrashNote>();
        faulty.note->set(R"({"device_information":{"app_in_focus":true}})");
        const auto hook = host::CrashHook::install(std::move(faulty));
        perform(divideByZero);
      },
      wasKilled, "");
  const auto found = crash();
  ASSERT_TRUE(found && found->moment);
  EXPECT_EQ(found->reason, "SIGFPE");
  EXPECT_THAT(found->call_stack_symbols, ElementsAre(HasSubstr("stranger::divideByZero() + ")));
  EXPECT_TRUE(found->moment->app_in_focus) << "as last noted";
}

TEST_F(CrashDeathTest, ASignalThatWasSentKillsAfterItsRecord) {
  EXPECT_EXIT(
      {
        const auto hook = install();
        ::raise(SIGBUS);
        std::_Exit(0);
      },
      KilledBySignal(SIGBUS), "");
  ASSERT_TRUE(crash());
  EXPECT_EQ(crash()->reason, "SIGBUS");
}

TEST_F(CrashDeathTest, TheHandlerThatWasThereBeforeComesAfterwards) {
  EXPECT_EXIT(
      {
        std::signal(SIGFPE, [](int) { ::_exit(7); });
        const auto hook = install();
        divideByZero();
      },
      ExitedWithCode(7), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGFPE");
}

TEST_F(CrashDeathTest, ASignalFixedByAnEarlierHandlerIsNoCrash) {
  EXPECT_EXIT(
      {
        std::signal(SIGABRT, [](int) {});
        const auto hook = install();
        ::raise(SIGABRT);  // has no effect
        perform(readNothing);
      },
      KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGSEGV") << "the first one is not in the record";
}

TEST_F(CrashDeathTest, AHandlerBeforeThatLetsTheFaultComeAgainLeavesTheRecord) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { std::signal(SIGSEGV, SIG_DFL); });
        const auto hook = install();
        crashing::perform(crashing::readNothing);
      },
      KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "mrvk SIGSEGV");
}

struct sigaction first_action;

TEST_F(CrashDeathTest, AHandlerBeforeThatLeavesTheFaultToTheOneBeforeItLeavesTheRecord) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { ::_exit(6); });
        struct sigaction second {};
        second.sa_sigaction = [](int, siginfo_t*, void*) { ::sigaction(SIGSEGV, &first_action, nullptr); };
        second.sa_flags = SA_SIGINFO;
        ::sigaction(SIGSEGV, &second, &first_action);
        const auto hook = install();
        crashing::perform(crashing::readNothing);
      },
      ExitedWithCode(6), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "mrvk SIGSEGV");
}

TEST_F(CrashDeathTest, ASignalFixedByAnEarlierHandlerThatSetsItselfAgainIsNoCrash) {
  EXPECT_EXIT(
      {
        struct Fixing {
          static void handle(int signal) { std::signal(signal, handle); }
        };
        std::signal(SIGABRT, Fixing::handle);
        const auto hook = install();
        ::raise(SIGABRT);
        ::_exit(crash() ? 1 : 5);
      },
      ExitedWithCode(5), "");
}

/// A handler installed later keeps ours as the previous one.
struct sigaction ours;
void installPassingOn() {
  struct sigaction later {};
  later.sa_sigaction = [](int signal, siginfo_t* info, void* context) { ours.sa_sigaction(signal, info, context); };
  later.sa_flags = SA_SIGINFO | SA_NODEFER;
  ::sigaction(SIGSEGV, &later, &ours);
}

TEST_F(CrashDeathTest, ASignalFixedByAnEarlierHandlerIsNoCrashIfALaterOnePassesItOn) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) {});
        const auto hook = install();
        installPassingOn();
        ::raise(SIGSEGV);
        ::_exit(crash() ? 1 : 5);
      },
      ExitedWithCode(5), "");
}

TEST_F(CrashDeathTest, ASignalThatWasIgnoredBeforeIsStillIgnoredWhenItIsSent) {
  EXPECT_EXIT(
      {
        std::signal(SIGFPE, SIG_IGN);
        const auto hook = install();
        ::raise(SIGFPE);
        ::_exit(crash() ? 1 : 5);
      },
      ExitedWithCode(5), "");
  EXPECT_EXIT(
      {
        std::signal(SIGFPE, SIG_IGN);
        const auto hook = install();
        divideByZero();  // which cannot be ignored
      },
      KilledBySignal(SIGFPE), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGFPE");
}

TEST_F(CrashDeathTest, AHandlerThatWantsOneSignalGetsOneAndThenItIsACrash) {
  EXPECT_EXIT(
      {
        struct sigaction once {};
        once.sa_handler = [](int) { static_cast<void>(!::write(STDERR_FILENO, "once\n", 5)); };
        once.sa_flags = static_cast<int>(SA_RESETHAND);
        ::sigaction(SIGSEGV, &once, nullptr);
        const auto hook = install();
        perform(readNothing);
      },
      KilledBySignal(SIGSEGV), "^once\n$");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGSEGV");
}

::sigjmp_buf way_out;

TEST_F(CrashDeathTest, AHandlerMayLeaveByAJumpAsOftenAsItLikes) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { ::siglongjmp(way_out, 1); });
        const auto hook = install();
        static int times;
        for (times = 0; times < 1000; ++times) {
          if (::sigsetjmp(way_out, 1) == 0)
            perform(crashing::readNothing);
        }
        perform(divideByZero);
      },
      KilledBySignal(SIGFPE), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGFPE") << "the last one, which was not the kit's";
}

[[gnu::noinline]] void performDeepOnTheStack(void (*act)()) {
  volatile char room[64 * 1024] = {};
  perform(act);
  room[0] = room[1];
}

TEST_F(CrashDeathTest, AfterAJumpTheNextSignalIsRecordedAlsoWhereItComesFromDeeperOnTheSameStack) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { ::siglongjmp(way_out, 1); });
        const auto hook = install();
        // Without a signal stack.
        std::thread([] {
          if (::sigsetjmp(way_out, 1) == 0)
            perform(readNothing);
          performDeepOnTheStack(divideByZero);
        }).join();
      },
      KilledBySignal(SIGFPE), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGFPE");
}

TEST_F(CrashDeathTest, ASignalWithinTheHandlingOfAnotherDoesNotTakeItsPlace) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { divideByZero(); });
        const auto hook = install();
        std::thread([] { perform(readNothing); }).join();
      },
      KilledBySignal(SIGFPE), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGSEGV");
}

TEST_F(CrashDeathTest, AHandlerFindsTheSignalsBlockedThatItAskedFor) {
  EXPECT_EXIT(
      {
        struct sigaction careful {};
        careful.sa_handler = [](int) {
          sigset_t blocked;
          ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
          ::_exit(::sigismember(&blocked, SIGUSR1) * 2 + ::sigismember(&blocked, SIGSEGV));
        };
        ::sigaddset(&careful.sa_mask, SIGUSR1);
        careful.sa_flags = SA_NODEFER;
        ::sigaction(SIGSEGV, &careful, nullptr);
        const auto hook = install();
        readNothing();
      },
      ExitedWithCode(2), "");
}

TEST_F(CrashDeathTest, ASignalThatLeavesTheProcessAliveLeavesItsErrorNumberToo) {
  EXPECT_EXIT(
      {
        std::signal(SIGABRT, [](int) { errno = EIO; });
        const auto hook = install();
        errno = ENOTTY;
        ::raise(SIGABRT);
        ::_exit(errno == ENOTTY ? 3 : 1);
      },
      ExitedWithCode(3), "");
}

TEST_F(CrashDeathTest, ACallToWhereNoCodeIsNamesItsCaller) {
  EXPECT_EXIT(
      {
        const auto hook = install();
        crashing::perform(nullptr);
      },
      KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "mrvk SIGSEGV");
}

TEST_F(CrashDeathTest, TwoHandlersThatPassASignalToEachOtherEnd) {
  EXPECT_EXIT(
      {
        auto hook = install();
        installPassingOn();
        hook.reset();
        hook = install();
        readNothing();
      },
      KilledBySignal(SIGSEGV), "");
}

TEST_F(CrashDeathTest, AHookThatWentStillPassesOnWhatALaterHandlerHandsToIt) {
  EXPECT_EXIT(
      {
        std::signal(SIGSEGV, [](int) { ::_exit(8); });
        auto hook = install();
        installPassingOn();
        for (int i = 0; i < 2; ++i) {
          hook.reset();
          hook = install();
        }
        hook.reset();
        readNothing();
      },
      ExitedWithCode(8), "");
  EXPECT_FALSE(crash());
}

TEST_F(CrashDeathTest, AnUncaughtExceptionIsOneReportWithTypeTextAndStack) {
  EXPECT_EXIT(
      {
        const auto hook = install();
        std::thread([] { perform([] { throw std::runtime_error("fendo broke"); }); }).join();
      },
      KilledBySignal(SIGABRT), "");
  EXPECT_THAT(report(), HasSubstr("report: std::runtime_error: fendo broke\n"));
  EXPECT_THAT(report(), Not(HasSubstr("stranger::"))) << "a dying process reads no files";
  EXPECT_THAT(host::namedTrace(trace(), host::loadedModules()), HasSubstr("stranger::perform(void (*)()) + "));
  EXPECT_FALSE(crash()) << "the abort that follows is no second crash";
}

TEST_F(CrashDeathTest, AnExceptionThatIsOfNoConcernIsNotReported) {
  EXPECT_EXIT(
      {
        host::CrashHookParts choosy = parts();
        choosy.concerns_us = [](const std::optional<std::string>& reason) {
          return reason == "std::runtime_error: fendo broke";
        };
        const auto hook = host::CrashHook::install(std::move(choosy));
        std::thread([] { throw std::runtime_error("the shop broke"); }).join();
      },
      KilledBySignal(SIGABRT), "");
  EXPECT_EQ(report(), "");
  EXPECT_FALSE(crash()) << "nor is the abort that follows";
}

TEST_F(CrashDeathTest, WhateverIsThrownHasAReason) {
  const auto thrown = [this](void (*act)()) {
    std::remove(reportPath().c_str());
    EXPECT_EXIT(
        {
          const auto hook = install();
          std::thread(act).join();
        },
        KilledBySignal(SIGABRT), "");
    return report().substr(0, report().find('\n'));
  };
  EXPECT_EQ(thrown([] {
              throw kit::Exception{"ShopException", "quint is shut", {}};
            }),
            "report: morvik::kit::Exception: quint is shut");
  EXPECT_EQ(thrown([] { throw 7; }), "report: int");
  EXPECT_EQ(thrown([] { std::terminate(); }), "report: terminated without an exception");
}

TEST_F(CrashDeathTest, TheTerminateHandlerThatWasThereBeforeComesAfterwards) {
  EXPECT_EXIT(
      {
        std::set_terminate([] { ::_exit(9); });
        const auto hook = install();
        std::thread([] { throw 7; }).join();
      },
      ExitedWithCode(9), "");
  EXPECT_EQ(report().substr(0, 12), "report: int\n");
}

/// A handler installed later keeps ours as the previous one.
std::terminate_handler our_terminate = nullptr;
void setTerminatePassingOn() {
  our_terminate = std::set_terminate([] { our_terminate(); });
}

TEST_F(CrashDeathTest, AHookThatWentStillPassesOnWhatALaterTerminateHandlerHandsToIt) {
  EXPECT_EXIT(
      {
        std::set_terminate([] { ::_exit(9); });
        auto hook = install();
        setTerminatePassingOn();
        for (int i = 0; i < 2; ++i) {
          hook.reset();
          hook = install();
        }
        hook.reset();
        std::thread([] { throw 7; }).join();
      },
      ExitedWithCode(9), "");
  EXPECT_EQ(report(), "");
}

TEST_F(CrashDeathTest, TwoTerminateHandlersThatPassAnExceptionToEachOtherEnd) {
  EXPECT_EXIT(
      {
        auto hook = install();
        setTerminatePassingOn();
        hook.reset();
        hook = install();
        std::thread([] { throw 7; }).join();
      },
      KilledBySignal(SIGABRT), "");
  EXPECT_EQ(report().substr(0, 12), "report: int\n");
  EXPECT_EQ(report().find("report: ", 1), std::string::npos) << "one crash, one report";
}

TEST_F(CrashDeathTest, AReportThatThrowsDoesNotKeepTheProcess) {
  EXPECT_EXIT(
      {
        host::CrashHookParts throwing = parts();
        throwing.report = [](const kit::UncaughtException&) { throw std::runtime_error("no room"); };
        const auto hook = host::CrashHook::install(std::move(throwing));
        std::thread([] { throw 7; }).join();
      },
      KilledBySignal(SIGABRT), "");
}

TEST_F(CrashDeathTest, AFaultThatKeepsTheReportFromComingAboutIsRecorded) {
  EXPECT_EXIT(
      {
        host::CrashHookParts faulty = parts();
        faulty.report = [](const kit::UncaughtException&) { readNothing(); };
        const auto hook = host::CrashHook::install(std::move(faulty));
        std::thread([] { throw 7; }).join();
      },
      KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(report(), "");
  ASSERT_TRUE(crash());
  EXPECT_THAT(crash()->reason.value_or(""), HasSubstr("SIGSEGV"));
}

// -------------------------------------------------------------------------------------------- two threads at once

std::atomic<bool> is_first_at_work;

/// The time in which a second crash would end the process if it did not wait.
void workForAWhile() {
  constexpr int kMilliseconds = 200;
  is_first_at_work = true;
  for (int i = 0; i < kMilliseconds; ++i)
    ::poll(nullptr, 0, 1);
}

void crashOnceAnotherThreadIsAtWork(void (*act)()) {
  while (!is_first_at_work)
    std::this_thread::yield();
  perform(act);
}

TEST_F(CrashDeathTest, OfTwoThreadsThatCrashAtOnceTheSecondWaitsForTheFirstOnesRecord) {
  EXPECT_EXIT(
      {
        host::CrashHookParts slow = parts();
        slow.is_app_in_focus = [](const void*) {
          workForAWhile();
          return true;
        };
        const auto hook = host::CrashHook::install(std::move(slow));
        std::thread first([] { perform(readNothing); });
        crashOnceAnotherThreadIsAtWork(divideByZero);
      },
      wasKilled, "");
  const auto found = crash();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->reason, "SIGSEGV");
  ASSERT_TRUE(found->moment);
  EXPECT_TRUE(found->moment->app_in_focus) << "the record is whole";
}

TEST_F(CrashDeathTest, AThreadThatCrashesWaitsForAnExceptionsReportOfAnotherThread) {
  EXPECT_EXIT(
      {
        host::CrashHookParts slow = parts();
        slow.report = [report = slow.report](const kit::UncaughtException& exception) {
          workForAWhile();
          report(exception);
        };
        const auto hook = host::CrashHook::install(std::move(slow));
        std::thread first([] { throw 7; });
        crashOnceAnotherThreadIsAtWork(readNothing);
      },
      wasKilled, "");
  EXPECT_EQ(report().substr(0, 12), "report: int\n");
  EXPECT_EQ(crash().value_or(kit::UncaughtException()).reason, "SIGSEGV") << "and its own record is there too";
}

TEST_F(CrashDeathTest, AThreadThatCrashesDoesNotWaitForEver) {
  EXPECT_EXIT(
      {
        host::CrashHookParts stuck = parts();
        stuck.is_app_in_focus = [](const void*) -> bool {
          is_first_at_work = true;
          for (;;)
            ::pause();
        };
        const auto hook = host::CrashHook::install(std::move(stuck));
        std::thread first([] { perform(readNothing); });
        crashOnceAnotherThreadIsAtWork(divideByZero);
      },
      KilledBySignal(SIGFPE), "");
}

TEST_F(CrashDeathTest, AForkedChildLeavesNoRecord) {
  EXPECT_EXIT(
      {
        const auto hook = install();
        if (const pid_t child = ::fork(); child == 0) {
          readNothing();
        } else {
          int status = 0;
          ::waitpid(child, &status, 0);
          std::_Exit(WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        }
      },
      ExitedWithCode(SIGSEGV), "");
  EXPECT_FALSE(crash());
}

TEST_F(Crash, TheHookIsOneAtATimeAndGivesEverythingBack) {
  std::vector<struct sigaction> before;
  for (const int signal : host::fatalSignals()) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    before.push_back(action);
  }
  const auto terminate_before = std::get_terminate();
  auto hook = install();
  ASSERT_NE(hook, nullptr);
  EXPECT_NE(std::get_terminate(), terminate_before);
  auto second = host::CrashHook::install(parts());
  ASSERT_TRUE(std::holds_alternative<kit::Error>(second));
  EXPECT_EQ(std::get<kit::Error>(second).message, "another kit of this process reports crashes already");
  EXPECT_FALSE(crash()) << "a prepared record is none";

  hook.reset();
  EXPECT_EQ(std::get_terminate(), terminate_before);
  size_t index = 0;
  for (const int signal : host::fatalSignals()) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    EXPECT_EQ(action.sa_sigaction, before[index].sa_sigaction) << host::signalName(signal);
    ++index;
  }
  EXPECT_NE(::access(recordPath().c_str(), F_OK), 0);
  EXPECT_NE(install(), nullptr) << "and there is room for another";
}

TEST_F(Crash, ARecordThatCannotBeMadeIsAnError) {
  host::CrashHookParts impossible = parts();
  impossible.record_path = "/nowhere/record";
  const auto installed = host::CrashHook::install(std::move(impossible));
  ASSERT_TRUE(std::holds_alternative<kit::Error>(installed));
  EXPECT_THAT(std::get<kit::Error>(installed).message, HasSubstr("cannot make /nowhere/record: "));
  EXPECT_NE(install(), nullptr) << "a failed one is not in the way";
}

}  // namespace stranger
