#include "host/linux/crash/crash_hook.h"

#include <execinfo.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <utility>

#include "host/linux/crash/bare_frames.h"
#include "host/linux/crash/crash_record.h"
#include "host/linux/crash/fatal_signals.h"
#include "host/linux/crash/frame_names.h"
#include "host/linux/crash/frame_unwind.h"
#include "host/posix/process_word.h"
#include "services/guard.h"
#include "services/type_names.h"

namespace morvik::host {
namespace {

constexpr auto kReportPoll = std::chrono::milliseconds(1);
constexpr auto kMaxReportTime = std::chrono::milliseconds(kMaxRecordWaitMilliseconds);

/// After this many passes, two terminate handlers are passing one exception to each other.
constexpr int kMaxPasses = 16;

constexpr const char* kOurCrash = "mrvk ";
constexpr const char* kNoException = "terminated without an exception";

std::vector<std::string> textsOf(const std::vector<NamedFrame>& frames) {
  std::vector<std::string> texts;
  texts.reserve(frames.size());
  for (const NamedFrame& frame : frames)
    texts.push_back(frame.text);
  return texts;
}

/// Absent if it has none.
kit::Value factsIn(const std::string& note, const kit::JsonCodec& json) {
  const auto read = json.read(note);
  const auto* facts = std::get_if<kit::Value>(&read);
  return facts != nullptr && facts->isDictionary() ? *facts : kit::Value();
}

/// Without names: reading files takes time and memory, and a crashing process may have little of both.
std::vector<std::string> callStackSymbols() {
  std::array<void*, kMaxCrashFrames> addresses{};
  const int count = ::backtrace(addresses.data(), static_cast<int>(addresses.size()));
  std::vector<uint64_t> frames;
  for (int i = 0; i < count; ++i)
    frames.push_back(reinterpret_cast<uint64_t>(addresses[static_cast<size_t>(i)]));
  return bareFrames(loadedModules(), frames);
}

/// "std::runtime_error: the text", or only the type if there is no text.
std::string reasonOfCurrentException() {
  if (std::current_exception() == nullptr)
    return kNoException;
  try {
    throw;
  } catch (...) {
    const std::string name = services::caughtTypeName();
    const std::string text = services::caughtText();
    return text == name || text.empty() ? name : name + ": " + text;
  }
}

}  // namespace

struct CrashHook::State {
  CrashHookParts parts;
  const runtime::OwnProcess process = ownProcess();
  int record_file = -1;
  std::unique_ptr<FatalSignals> signals;
  std::terminate_handler left_behind = nullptr;  ///< the previous `before`
  std::atomic<bool> is_reporting{false};
  std::atomic<bool> is_reported{false};
  std::atomic<std::thread::id> reporter{};

  static std::atomic<State*> current;
  /// The handler before the latest hook. Kept when the hook is gone: a handler installed later may still call us.
  static std::atomic<std::terminate_handler> before;
  static std::atomic<int> passes;

  void report() noexcept {
    try {
      const std::optional<std::string> reason = reasonOfCurrentException();
      if (parts.concerns_us == nullptr || parts.concerns_us(reason))
        parts.report({reason, callStackSymbols(), std::nullopt});
    } catch (...) {
      // The process is ending; nobody can be told.
    }
  }
};

std::atomic<CrashHook::State*> CrashHook::State::current{nullptr};
std::atomic<std::terminate_handler> CrashHook::State::before{nullptr};
std::atomic<int> CrashHook::State::passes{0};

std::variant<std::unique_ptr<CrashHook>, kit::Error> CrashHook::install(CrashHookParts parts) {
  auto state = std::make_unique<State>();
  state->parts = std::move(parts);
  State* none = nullptr;
  if (!State::current.compare_exchange_strong(none, state.get()))
    return kit::Error{"another kit of this process reports crashes already"};
  const auto modules = loadedModules();
  auto prepared = prepareCrashRecord(state->parts.record_path, modules);
  if (auto* error = std::get_if<kit::Error>(&prepared)) {
    State::current = nullptr;
    return std::move(*error);
  }
  state->record_file = std::get<int>(prepared);
  state->signals = std::make_unique<FatalSignals>(
      FatalSignalParts{state->record_file, state->parts.is_app_in_focus, state->parts.context, state->parts.note.get()},
      modules);
  // The unwinder is loaded at its first use: do that now, not during a crash.
  std::array<void*, 1> first{};
  static_cast<void>(::backtrace(first.data(), 1));
  state->left_behind = State::before.exchange(std::get_terminate());
  std::set_terminate(onTerminate);
  return std::unique_ptr<CrashHook>(new CrashHook(std::move(state)));
}

CrashHook::CrashHook(std::unique_ptr<State> state) : state_(std::move(state)) {}

CrashHook::~CrashHook() {
  if (std::get_terminate() == onTerminate) {
    std::set_terminate(State::before);
    State::before = state_->left_behind;
  }
  state_->signals.reset();
  State::current = nullptr;
  ::close(state_->record_file);
  std::remove(state_->parts.record_path.c_str());
}

void CrashHook::onTerminate() {
  State* const state = State::current.load();
  // In a forked child the store and the crash are the parent's.
  if (state != nullptr && state->process.isHere()) {
    if (!state->is_reporting.exchange(true)) {
      state->reporter = std::this_thread::get_id();
      state->signals->beginReport();
      // If making the report faults, that fault is recorded instead.
      state->report();
      state->signals->leaveAlone();
      state->is_reported = true;
    } else if (state->reporter != std::this_thread::get_id()) {
      // Another thread's earlier exception is being reported; the end of the process must wait for it.
      for (auto waited = kReportPoll; !state->is_reported && waited < kMaxReportTime; waited += kReportPoll)
        std::this_thread::sleep_for(kReportPoll);
    }
  }
  const std::terminate_handler next = State::before;
  if (next != nullptr && State::passes++ < kMaxPasses)
    next();
  std::abort();
}

std::variant<std::optional<kit::UncaughtException>, kit::Error> crashOfEarlierProcess(const std::string& record_path,
                                                                                      const kit::JsonCodec& json) {
  auto read = readCrashRecord(record_path);
  if (auto* error = std::get_if<kit::Error>(&read))
    return std::move(*error);
  const auto& file = std::get<std::optional<CrashRecordFile>>(read);
  if (!file || !file->record)
    return std::optional<kit::UncaughtException>();
  const SignalRecord& record = *file->record;
  const auto frames = namedFrames(file->modules, unwoundFrames(file->modules, record));
  kit::UncaughtException crash;
  crash.reason = (isCrashOfTheKit(frames, record.is_jump_to_nowhere) ? kOurCrash : "") + signalName(record.signal);
  crash.call_stack_symbols = textsOf(frames);
  const kit::Value facts = factsIn(record.note, json);
  const bool was_in_focus = facts["device_information"]["app_in_focus"].boolean();
  crash.moment =
      kit::CrashMoment{kit::Date{record.time_microseconds}, record.app_in_focus.value_or(was_in_focus), facts};
  return std::optional<kit::UncaughtException>(std::move(crash));
}

}  // namespace morvik::host
