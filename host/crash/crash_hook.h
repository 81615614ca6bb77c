// The crash hook: uncaught exceptions and fatal signals become crash reports.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "host/crash/crash_note.h"
#include "kit/crash.h"
#include "kit/error.h"
#include "kit/json_codec.h"

namespace morvik::host {

struct CrashHookParts {
  std::string record_path;  ///< the file for a fatal signal's record
  /// Whether an exception with this reason is to be reported, asked before anything is done for it; null: each is.
  bool (*concerns_us)(const std::optional<std::string>& reason) = nullptr;
  /// Takes an exception that nobody caught, with a stack of bare frames (bareFrames()), on the thread on which it
  /// happened; waits for no lock.
  std::function<void(const kit::UncaughtException&)> report;
  /// Whether the app is in front of its user; async-signal-safe, as FatalSignalParts wants it.
  bool (*is_app_in_focus)(const void* context) = nullptr;
  const void* context = nullptr;
  /// What the record of a fatal signal tells of the process, as JSON; null: nothing.
  std::shared_ptr<CrashNote> note;
};

/// While it lives, std::terminate and the fatal signals are reported. Whoever was there before comes afterwards and
/// gets its place back when this goes. An uncaught exception is one report: the abort that follows is none. In a forked
/// child nothing is reported, and whoever was there before is asked as ever.
class CrashHook {
 public:
  /// One in a process at a time. The hook, or why there is none.
  static std::variant<std::unique_ptr<CrashHook>, kit::Error> install(CrashHookParts parts);
  /// Takes the record file away: no signal came.
  ~CrashHook();
  CrashHook(const CrashHook&) = delete;
  CrashHook& operator=(const CrashHook&) = delete;

 private:
  struct State;
  explicit CrashHook(std::unique_ptr<State> state);
  [[noreturn]] static void onTerminate();
  std::unique_ptr<State> state_;
};

/// What the record of an earlier process tells of its crash, if one is there. Its reason is the signal's name, after
/// "mrvk " when the crash is the kit's own (isCrashOfTheKit()), so that only those are kept that concern it. The file
/// stays; it is to be removed once the report is stored. Blocks for reading files.
std::variant<std::optional<kit::UncaughtException>, kit::Error> crashOfEarlierProcess(const std::string& record_path,
                                                                                      const kit::JsonCodec& json);

}  // namespace morvik::host
