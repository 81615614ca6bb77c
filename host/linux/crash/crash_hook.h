// The crash hook: turns uncaught exceptions and fatal signals into crash reports.
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
  std::string record_path;  ///< for the record of a fatal signal
};

/// While it lives, std::terminate and the fatal signals are reported. Handlers installed earlier still run afterwards,
/// and are restored when this is destroyed. An uncaught exception makes one report; the abort that follows makes none.
/// In a forked child nothing is reported, and the earlier handlers run as usual.
class CrashHook final : public runtime::MachineCrashHook {
 public:
  /// One in a process at a time. Returns the hook, or why there is none.
  static std::variant<std::unique_ptr<CrashHook>, kit::Error> install(CrashHookParts parts);
  /// Removes the record file: no signal came.
  ~CrashHook() override;
  CrashHook(const CrashHook&) = delete;
  CrashHook& operator=(const CrashHook&) = delete;

 private:
  struct State;
  explicit CrashHook(std::unique_ptr<State> state);
  [[noreturn]] static void onTerminate();
  std::unique_ptr<State> state_;
};

/// The crash recorded by an earlier process, if any. Its reason is the signal's name, preceded by "mrvk " if the crash
/// is the kit's own (isCrashOfTheKit()), so that only those that concern it are kept. The file stays; remove it once
/// the report is stored. Blocks for reading files.
std::variant<std::optional<kit::UncaughtException>, kit::Error> crashOfEarlierProcess(const std::string& record_path,
                                                                                      const kit::JsonCodec& json);

}  // namespace morvik::host
