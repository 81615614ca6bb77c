// Catches the fatal signals of the process and leaves one record of the first.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "host/linux/crash/loaded_modules.h"
#include "runtime/crash/crash_note.h"

namespace morvik::host {

/// The signals that are caught.
const std::array<int, 5>& fatalSignals();

/// A thread that crashes waits so long for another one's record or report before it goes on, to what may end the
/// process.
inline constexpr int kMaxRecordWaitMilliseconds = 2000;

/// What the handler asks and where it writes. All of it outlives the handler.
struct FatalSignalParts {
  int record_file = -1;  ///< of prepareCrashRecord(); one record is written behind what is there
  /// Whether the app is in front of its user. Called by the handler: must do nothing that is not async-signal-safe.
  bool (*is_app_in_focus)(const void* context) = nullptr;
  const void* context = nullptr;
  /// What the record tells besides; null: nothing.
  runtime::CrashNote* note = nullptr;
};

/// While it lives the signals are caught. One in a process at a time. A caught signal goes on to the handler that was
/// there before, as if nobody stood in between. If that one returns to what it interrupted and has not given the signal
/// to anybody else, or the signal was ignored before, the record is taken back; if it leaves by a jump, the record
/// gives way to the next signal of its thread. In a child that the process forked nothing is recorded. The thread that
/// makes it gets a stack of its own for signals, unless it has one, so that a stack that overflows on it is recorded
/// too.
class FatalSignals {
 public:
  FatalSignals(const FatalSignalParts& parts, const std::vector<LoadedModule>& modules);
  ~FatalSignals();
  FatalSignals(const FatalSignals&) = delete;
  FatalSignals& operator=(const FatalSignals&) = delete;

  /// The calling thread makes a report of its own crash: signals of other threads are recorded, and then wait for it.
  void beginReport();
  /// The report is made. From here on no signal is recorded: this crash was reported otherwise, and the signal that
  /// ends the process is part of it.
  void leaveAlone();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace morvik::host
