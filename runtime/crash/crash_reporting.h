// What a machine needs to report crashes of its processes, and whom it tells.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kit/crash.h"
#include "runtime/crash/crash_note.h"

namespace morvik::runtime {

/// Takes a crash. False: its report cannot be stored anywhere at present.
using TakeCrash = std::function<bool(const kit::UncaughtException&)>;

struct CrashReporting {
  /// Whether to report an exception with this reason; asked before any other work. Null: report all.
  bool (*concerns_us)(const std::optional<std::string>& reason) = nullptr;
  /// Takes an uncaught exception on the thread that threw it. Its stack is as the machine can write it without reading
  /// files. Takes no lock.
  std::function<void(const kit::UncaughtException&)> report;
  /// Whether the app is in front of its user; async-signal-safe.
  bool (*is_app_in_focus)(const void* context) = nullptr;
  const void* context = nullptr;
  /// What the report of a fatal signal says of the process, as JSON; null: nothing.
  std::shared_ptr<CrashNote> note;
};

}  // namespace morvik::runtime
