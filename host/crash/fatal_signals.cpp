#include "host/crash/fatal_signals.h"

#include <sys/types.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "host/crash/crash_record.h"
#include "host/crash/frame_walk.h"

namespace morvik::host {
namespace {

constexpr std::array<int, 5> kSignals = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

/// Signals in handlers of signals, on all threads together. Beyond it two handlers pass one signal to each other.
constexpr int kMaxNestedSignals = 16;

/// Enough for the handler and for a handler of the app's behind it.
constexpr size_t kSignalStackBytes = size_t{64} * 1024;

StackTop stackTop(const void* context) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return {static_cast<uint64_t>(machine.gregs[REG_RIP]), static_cast<uint64_t>(machine.gregs[REG_RSP]),
          static_cast<uint64_t>(machine.gregs[REG_RBP])};
#elif defined(__aarch64__)
  return {machine.pc, machine.sp, machine.regs[29]};
#else
#error "the registers of this processor are not known here"
#endif
}

/// A fault happens again as soon as the handler returns; a signal that was sent has to be sent again.
void toDefault(int signal, const siginfo_t* info) {
  struct sigaction fatal {};
  fatal.sa_handler = SIG_DFL;
  ::sigaction(signal, &fatal, nullptr);
  if (info->si_code <= 0)
    ::raise(signal);
}

int64_t nowMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

CodeRanges rangesOf(const std::vector<LoadedModule>& modules) {
  CodeRanges code;
  for (const LoadedModule& module : modules) {
    if (code.count < code.ranges.size())
      code.ranges[code.count++] = {module.begin, module.end};
  }
  return code;
}

}  // namespace

const std::array<int, 5>& fatalSignals() {
  return kSignals;
}

struct FatalSignals::State {
  FatalSignalParts parts;
  CodeRanges code;
  SafeReader reader;
  pid_t process = ::getpid();
  off_t prepared_bytes = 0;
  std::array<struct sigaction, kSignals.size()> previous{};
  std::unique_ptr<char[]> stack;
  std::atomic<bool> recorded{false};
  std::atomic<int> handling{0};

  static std::atomic<State*> current;

  static void handle(int signal, siginfo_t* info, void* context);
  void record(int signal, const void* context) const;
  void passOn(int signal, siginfo_t* info, void* context, bool was_recorded);
  void giveStack();
  void takeStack();
};

std::atomic<FatalSignals::State*> FatalSignals::State::current{nullptr};
static_assert(std::atomic<void*>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

// From here to passOn() nothing may be called that is not async-signal-safe.

void FatalSignals::State::handle(int signal, siginfo_t* info, void* context) {
  const int error = errno;
  State* const state = current.load();
  if (state == nullptr)
    return;
  if (state->handling.fetch_add(1) > kMaxNestedSignals) {
    toDefault(signal, info);
    return;
  }
  const bool records = ::getpid() == state->process && !state->recorded.exchange(true);
  if (records)
    state->record(signal, context);
  errno = error;
  state->passOn(signal, info, context, records);
  --state->handling;
}

void FatalSignals::State::record(int signal, const void* context) const {
  SignalRecord record;
  record.time_microseconds = nowMicroseconds();
  record.signal = signal;
  record.app_in_focus = parts.is_app_in_focus != nullptr && parts.is_app_in_focus(parts.context) ? 1 : 0;
  record.frame_count =
      static_cast<uint32_t>(walkFrames(stackTop(context), code, reader, record.frames, kMaxCrashFrames));
  // Nobody is left to be told when it fails.
  [[maybe_unused]] const ssize_t written = ::write(parts.record_file, &record, sizeof record);
}

void FatalSignals::State::passOn(int signal, siginfo_t* info, void* context, bool was_recorded) {
  size_t index = 0;
  while (kSignals[index] != signal)
    ++index;
  const struct sigaction& before = previous[index];
  const bool has_handler =
      (before.sa_flags & SA_SIGINFO) != 0 || (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN);
  if (!has_handler) {
    toDefault(signal, info);
    return;
  }
  if ((before.sa_flags & SA_SIGINFO) != 0)
    before.sa_sigaction(signal, info, context);
  else
    before.sa_handler(signal);
  // It returned, so the process lives on: this was no crash.
  if (was_recorded && ::ftruncate(parts.record_file, prepared_bytes) == 0)
    recorded = false;
}

void FatalSignals::State::giveStack() {
  stack_t has{};
  if (::sigaltstack(nullptr, &has) != 0 || (has.ss_flags & SS_DISABLE) == 0)
    return;
  stack = std::make_unique<char[]>(kSignalStackBytes);
  stack_t own{};
  own.ss_sp = stack.get();
  own.ss_size = kSignalStackBytes;
  if (::sigaltstack(&own, nullptr) != 0)
    stack.reset();
}

/// Only on the thread that has it; elsewhere the memory has to stay.
void FatalSignals::State::takeStack() {
  if (stack == nullptr)
    return;
  stack_t has{};
  if (::sigaltstack(nullptr, &has) == 0 && has.ss_sp == stack.get()) {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    ::sigaltstack(&none, nullptr);
  } else {
    static_cast<void>(stack.release());
  }
}

FatalSignals::FatalSignals(const FatalSignalParts& parts, const std::vector<LoadedModule>& modules)
    : state_(std::make_unique<State>()) {
  state_->parts = parts;
  state_->code = rangesOf(modules);
  state_->prepared_bytes = ::lseek(parts.record_file, 0, SEEK_END);
  // Without a pipe the record has no more than the interrupted instruction.
  static_cast<void>(state_->reader.open());
  state_->giveStack();
  State::current = state_.get();
  for (size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction action {};
    action.sa_sigaction = State::handle;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(kSignals[i], &action, &state_->previous[i]);
  }
}

FatalSignals::~FatalSignals() {
  bool all_back = true;
  for (size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction now {};
    ::sigaction(kSignals[i], nullptr, &now);
    if ((now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == State::handle)
      ::sigaction(kSignals[i], &state_->previous[i], nullptr);
    else
      all_back = false;
  }
  state_->recorded = true;
  state_->takeStack();
  if (!all_back) {
    // Somebody who came later still passes signals on to us, and we on to whoever was there before.
    static_cast<void>(state_.release());
    return;
  }
  State::current = nullptr;
  state_->reader.close();
}

void FatalSignals::leaveAlone() {
  state_->recorded = true;
}

}  // namespace morvik::host
