// What a machine is handed to report crashes of its processes, and whom it tells of them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kit/crash.h"
#include "runtime/crash/crash_note.h"

namespace morvik::runtime {

/// Takes a crash; false when its report can be kept nowhere at present.
using TakeCrash = std::function<bool(const kit::UncaughtException&)>;

struct CrashReporting {
  /// Whether an exception with this reason is to be reported, asked before anything is done for it; null: each is.
  bool (*concerns_us)(const std::optional<std::string>& reason) = nullptr;
  /// Takes an exception that nobody caught, with its stack as the machine writes it without reading files, on the
  /// thread on which it happened; waits for no lock.
  std::function<void(const kit::UncaughtException&)> report;
  /// Whether the app is in front of its user; async-signal-safe.
  bool (*is_app_in_focus)(const void* context) = nullptr;
  const void* context = nullptr;
  /// What the report of a fatal signal tells of the process, as JSON; null: nothing.
  std::shared_ptr<CrashNote> note;
};

}  // namespace morvik::runtime
