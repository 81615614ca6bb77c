#include "host/linux/crash/fatal_signals.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/frame_walk.h"
#include "host/posix/signal_stack.h"

namespace morvik::host {
namespace {

constexpr std::array<int, 5> kSignals = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

/// How often a signal may come back, each time deeper on the stack. Beyond this, two handlers are passing it to each
/// other.
constexpr int kMaxRounds = 16;

constexpr int kWaitPollMilliseconds = 1;

StackTop stackTop(const void* context) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return {static_cast<uint64_t>(machine.gregs[REG_RIP]), static_cast<uint64_t>(machine.gregs[REG_RSP]),
          static_cast<uint64_t>(machine.gregs[REG_RBP]), 0};
#elif defined(__aarch64__)
  return {machine.pc, machine.sp, machine.regs[29], machine.regs[30]};
#else
#error "the registers of this processor are not known here"
#endif
}

/// Copies the interrupted code's registers, ordered by debug-information number; returns how many.
uint32_t copyRegisters(const void* context, uint64_t* registers) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
  uint32_t count = 0;
#if defined(__x86_64__)
  for (const int number : {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI, REG_RBP, REG_RSP, REG_R8, REG_R9,
                           REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP})
    registers[count++] = static_cast<uint64_t>(machine.gregs[number]);
#elif defined(__aarch64__)
  for (const auto value : machine.regs)
    registers[count++] = value;
  registers[count++] = machine.sp;
#endif
  return count;
}

bool wasSent(const siginfo_t& info) {
  return info.si_code <= 0;
}

/// A fault recurs as soon as the handler returns; a signal that was sent must be sent again.
void toDefault(int signal, const siginfo_t* info) {
  struct sigaction fatal {};
  fatal.sa_handler = SIG_DFL;
  ::sigaction(signal, &fatal, nullptr);
  if (wasSent(*info))
    ::raise(signal);
}

bool isHandler(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 || (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

bool isIgnored(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;
}

bool isSameHandler(const struct sigaction& one, const struct sigaction& other) {
  if ((one.sa_flags & SA_SIGINFO) != (other.sa_flags & SA_SIGINFO))
    return false;
  return (one.sa_flags & SA_SIGINFO) != 0 ? one.sa_sigaction == other.sa_sigaction : one.sa_handler == other.sa_handler;
}

struct sigaction actionOf(int signal) {
  struct sigaction action {};
  ::sigaction(signal, nullptr, &action);
  return action;
}

/// kSignals.size() if it is not one of them.
size_t indexOf(int signal) {
  size_t index = 0;
  while (index < kSignals.size() && kSignals[index] != signal)
    ++index;
  return index;
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

/// Where a signal's handler runs: thread and stack position.
struct HandlerPlace {
  pid_t thread = 0;
  uintptr_t frame = 0;
};

enum class RecordPhase { kNoRecord, kWriting, kWritten };

struct FatalSignals::State {
  FatalSignalParts parts;
  CodeRanges code;
  SafeReader reader;
  pid_t process = ::getpid();
  off_t prepared_bytes = 0;
  std::array<struct sigaction, kSignals.size()> previous{};
  std::array<std::atomic<bool>, kSignals.size()> is_used_up{};  ///< earlier handlers installed for one signal only
  const SignalStack stack;

  std::atomic<RecordPhase> phase{RecordPhase::kNoRecord};
  std::atomic<bool> is_left_alone{false};
  std::atomic<pid_t> reporter_thread{0};  ///< the thread that makes its own report; 0: none
  // Of the handler that recorded.
  std::atomic<int> recorded_signal{0};
  std::atomic<pid_t> recorder_thread{0};
  std::atomic<uintptr_t> recorder_frame{0};
  // Of the latest signal.
  std::atomic<const void*> latest_context{nullptr};
  std::atomic<uintptr_t> latest_frame{0};
  std::atomic<int> rounds{0};

  State* left_behind = nullptr;  ///< an earlier hook's, to which a handler installed later still passes signals

  static std::atomic<State*> current;

  static void handle(int signal, siginfo_t* info, void* context);
  [[nodiscard]] bool detectCircle(const void* context, const HandlerPlace& place);
  [[nodiscard]] bool takeRecord(int signal, const HandlerPlace& place, const void* context);
  bool isWithinRecorded(const HandlerPlace& place, const void* context) const;
  void waitForOthers(const HandlerPlace& place) const;
  void record(int signal, const siginfo_t& info, const void* context) const;
  bool passOn(int signal, siginfo_t* info, void* context);
  static bool callHandler(const struct sigaction& handler, int signal, siginfo_t* info, void* context);
  void takeBack();
};

std::atomic<FatalSignals::State*> FatalSignals::State::current{nullptr};
static_assert(std::atomic<void*>::is_always_lock_free && std::atomic<bool>::is_always_lock_free &&
              std::atomic<pid_t>::is_always_lock_free && std::atomic<uintptr_t>::is_always_lock_free &&
              std::atomic<RecordPhase>::is_always_lock_free);

// From here to takeBack(), only async-signal-safe functions may be called.

void FatalSignals::State::handle(int signal, siginfo_t* info, void* context) {
  const int error = errno;
  State* const state = current.load();
  if (state == nullptr)
    return;
  const HandlerPlace place{static_cast<pid_t>(::syscall(SYS_gettid)),
                           reinterpret_cast<uintptr_t>(__builtin_frame_address(0))};
  if (state->detectCircle(context, place)) {
    toDefault(signal, info);
    return;
  }
  const bool is_own_process = ::getpid() == state->process;
  const bool records = is_own_process && state->takeRecord(signal, place, context);
  if (records) {
    state->record(signal, *info, context);
    state->phase = RecordPhase::kWritten;
  }
  // What follows may end the process.
  if (is_own_process)
    state->waitForOthers(place);
  errno = error;
  if (state->passOn(signal, info, context) && records)
    state->takeBack();
  errno = error;
}

/// Counts how often in a row the same signal came back. True: the handlers pass it on in a circle. A signal is
/// recognized by where the system put its context. After a handler that left by a jump, the next signal of the thread
/// has the same place, but does not come from deeper on the stack.
bool FatalSignals::State::detectCircle(const void* context, const HandlerPlace& place) {
  const bool is_same = latest_context.exchange(context) == context;
  const bool is_deeper = place.frame < latest_frame.exchange(place.frame);
  if (!is_same || !is_deeper) {
    rounds = 0;
    return false;
  }
  return ++rounds > kMaxRounds;
}

/// Whether the interrupted code is within the handling of the recorded signal, where that signal is blocked. If an
/// earlier handler did not want it blocked, code deeper on the stack counts as within.
bool FatalSignals::State::isWithinRecorded(const HandlerPlace& place, const void* context) const {
  const size_t index = indexOf(recorded_signal);
  if (index == kSignals.size())
    return false;
  if ((previous[index].sa_flags & SA_NODEFER) != 0)
    return place.frame < recorder_frame;
  return ::sigismember(&static_cast<const ucontext_t*>(context)->uc_sigmask, recorded_signal) == 1;
}

/// Claims the record for this signal; false when it stays with another one. The first signal is recorded. If a later
/// one of the same thread does not come from within its handling, an earlier handler left by a jump: the first was no
/// crash, and its record is replaced.
bool FatalSignals::State::takeRecord(int signal, const HandlerPlace& place, const void* context) {
  if (is_left_alone)
    return false;
  RecordPhase found = RecordPhase::kNoRecord;
  if (!phase.compare_exchange_strong(found, RecordPhase::kWriting)) {
    if (recorder_thread != place.thread || isWithinRecorded(place, context) ||
        ::ftruncate(parts.record_file, prepared_bytes) != 0)
      return false;
    phase = RecordPhase::kWriting;
  }
  recorded_signal = signal;
  recorder_frame = place.frame;
  recorder_thread = place.thread;
  return true;
}

/// Waits until no other thread writes a record or makes a report, or the time is up.
void FatalSignals::State::waitForOthers(const HandlerPlace& place) const {
  for (int waited = 0; waited < kMaxRecordWaitMilliseconds; waited += kWaitPollMilliseconds) {
    const bool is_writing = phase == RecordPhase::kWriting && recorder_thread != place.thread;
    const pid_t reporter = reporter_thread;
    if (!is_writing && (reporter == 0 || reporter == place.thread))
      return;
    ::poll(nullptr, 0, kWaitPollMilliseconds);
  }
}

void FatalSignals::State::record(int signal, const siginfo_t& info, const void* context) const {
  const StackTop top = stackTop(context);
  SignalPart first;
  first.time_microseconds = nowMicroseconds();
  first.instruction = top.instruction;
  first.fault_address = wasSent(info) ? 0 : reinterpret_cast<uint64_t>(info.si_addr);
  first.signal = signal;
  if (parts.note != nullptr) {
    writeSignalPart(parts.record_file, first, parts.note->beginReading());
    parts.note->endReading();
  } else {
    writeSignalPart(parts.record_file, first);
  }
  FramesPart more;
  more.app_in_focus = parts.is_app_in_focus != nullptr && parts.is_app_in_focus(parts.context) ? 1 : 0;
  more.frame_count = static_cast<uint32_t>(walkFrames(top, code, reader, more.frames, kMaxCrashFrames));
  more.register_count = copyRegisters(context, more.registers);
  more.stack_pointer = top.stack_pointer;
  writeFramesPart(parts.record_file, more);
  writeStackPart(parts.record_file, top.stack_pointer);
}

/// Does what would happen without us. Returns whether the process lives on.
bool FatalSignals::State::passOn(int signal, siginfo_t* info, void* context) {
  const size_t index = indexOf(signal);
  if (index == kSignals.size())
    return false;  // a later handler passes us a signal we never asked for
  const struct sigaction& before = previous[index];
  const bool wants_one = (before.sa_flags & static_cast<int>(SA_RESETHAND)) != 0;
  if (isIgnored(before) && wasSent(*info))
    return true;
  if (!isHandler(before) || (wants_one && is_used_up[index].exchange(true))) {
    toDefault(signal, info);
    return false;
  }
  return callHandler(before, signal, info, context);
}

/// False: the signal goes elsewhere from now on. Many handlers end by restoring the default action or the previous
/// handler, so that the fault recurs and ends the process.
bool FatalSignals::State::callHandler(const struct sigaction& handler, int signal, siginfo_t* info, void* context) {
  const struct sigaction found = actionOf(signal);
  if ((handler.sa_flags & SA_SIGINFO) != 0)
    handler.sa_sigaction(signal, info, context);
  else
    handler.sa_handler(signal);
  const struct sigaction left = actionOf(signal);
  return isSameHandler(left, found) || isSameHandler(left, handler);
}

/// The process lives on, so this was no crash.
void FatalSignals::State::takeBack() {
  if (::ftruncate(parts.record_file, prepared_bytes) != 0)
    return;
  recorder_thread = 0;
  phase = RecordPhase::kNoRecord;
}

FatalSignals::FatalSignals(const FatalSignalParts& parts, const std::vector<LoadedModule>& modules)
    : state_(std::make_unique<State>()) {
  state_->parts = parts;
  state_->code = rangesOf(modules);
  state_->prepared_bytes = ::lseek(parts.record_file, 0, SEEK_END);
  // Without a pipe the record has only the interrupted instruction.
  static_cast<void>(state_->reader.open());
  state_->left_behind = State::current.exchange(state_.get());
  for (size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction& before = state_->previous[i];
    before = actionOf(kSignals[i]);
    struct sigaction action {};
    action.sa_sigaction = State::handle;
    // The earlier handler finds the same signals blocked as without us, and leaves the same ones blocked when it jumps.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | (before.sa_flags & (SA_NODEFER | SA_RESTART));
    action.sa_mask = before.sa_mask;
    ::sigaction(kSignals[i], &action, &before);
  }
}

FatalSignals::~FatalSignals() {
  bool all_back = true;
  for (size_t i = 0; i < kSignals.size(); ++i) {
    const struct sigaction now = actionOf(kSignals[i]);
    if ((now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == State::handle)
      ::sigaction(kSignals[i], &state_->previous[i], nullptr);
    else
      all_back = false;
  }
  leaveAlone();
  if (!all_back) {
    // A handler installed later still passes signals to us, and we pass them to the earlier one.
    static_cast<void>(state_.release());
    return;
  }
  State::current = state_->left_behind;
  state_->reader.close();
}

void FatalSignals::beginReport() {
  state_->reporter_thread = static_cast<pid_t>(::syscall(SYS_gettid));
}

void FatalSignals::leaveAlone() {
  state_->is_left_alone = true;
  state_->reporter_thread = 0;
}

}  // namespace morvik::host
