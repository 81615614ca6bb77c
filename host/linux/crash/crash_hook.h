// The crash hook: uncaught exceptions and fatal signals become crash reports.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "kit/crash.h"
#include "kit/error.h"
#include "kit/json_codec.h"
#include "runtime/crash/crash_reporting.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

struct CrashHookParts : runtime::CrashReporting {
  std::string record_path;  ///< the file for a fatal signal's record
};

/// While it lives, std::terminate and the fatal signals are reported. Whoever was there before comes afterwards and
/// gets its place back when this goes. An uncaught exception is one report: the abort that follows is none. In a forked
/// child nothing is reported, and whoever was there before is asked as ever.
class CrashHook final : public runtime::MachineCrashHook {
 public:
  /// One in a process at a time. The hook, or why there is none.
  static std::variant<std::unique_ptr<CrashHook>, kit::Error> install(CrashHookParts parts);
  /// Takes the record file away: no signal came.
  ~CrashHook() override;
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
