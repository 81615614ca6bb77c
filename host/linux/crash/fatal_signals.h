// Catches the fatal signals of the process and records the first.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "host/linux/crash/loaded_modules.h"
#include "runtime/crash/crash_note.h"

namespace morvik::host {

/// The signals that are caught.
const std::array<int, 5>& fatalSignals();

/// How long a crashing thread waits for another thread's record or report before it goes on to what may end the
/// process.
inline constexpr int kMaxRecordWaitMilliseconds = 2000;

/// What the handler asks, and where it writes. All of it outlives the handler.
struct FatalSignalParts {
  int record_file = -1;  ///< from prepareCrashRecord(); one record is appended
  /// Whether the app is in front of its user. Called by the handler: must be async-signal-safe.
  bool (*is_app_in_focus)(const void* context) = nullptr;
  const void* context = nullptr;
  /// Additional text for the record; null: none.
  runtime::CrashNote* note = nullptr;
};

/// While it lives, the signals are caught. One in a process at a time. A caught signal is passed to the handler
/// installed earlier, as if we were not there. If that handler returns to the interrupted code without passing the
/// signal on, or the signal was ignored before, the record is taken back. If it leaves by a jump, the thread's next
/// signal replaces the record. In a forked child nothing is recorded. The thread that makes it gets a signal stack,
/// unless it has one, so that its stack overflows are recorded too.
class FatalSignals {
 public:
  FatalSignals(const FatalSignalParts& parts, const std::vector<LoadedModule>& modules);
  ~FatalSignals();
  FatalSignals(const FatalSignals&) = delete;
  FatalSignals& operator=(const FatalSignals&) = delete;

  /// The calling thread reports its own crash: signals of other threads are recorded, and then wait for the report.
  void beginReport();
  /// The report is made. No signal is recorded from now on: the crash was reported otherwise, and the signal that ends
  /// the process is part of it.
  void leaveAlone();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace morvik::host
