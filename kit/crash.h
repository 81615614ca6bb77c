// A crash, and where its report waits if the store cannot take it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kit/date.h"
#include "kit/error.h"
#include "kit/value.h"

namespace morvik::kit {

/// When a crash happened, and the state at that time.
struct CrashMoment {
  Date date;
  bool app_in_focus = false;
  /// A dictionary of crashFacts(), as last noted by the process that crashed. Absent: it left none, and the report
  /// describes the state when it is made.
  Value facts = {};
};

/// An uncaught exception.
struct UncaughtException {
  std::optional<std::string> reason;            ///< nothing: it had none
  std::vector<std::string> call_stack_symbols;  ///< innermost first; may be empty
  /// Set for a crash of an earlier process that is reported only now; otherwise the crash is happening.
  std::optional<CrashMoment> moment;
};

/// Keeps crash reports that found the store in use, for the next start. One shelf per store.
class ReportShelf {
 public:
  virtual ~ReportShelf() = default;
  /// Appends `report` (a dictionary with a JSON form). On success it survives the process; on an error nothing was
  /// stored. Any thread, also one that is about to die and may hold any lock of the kit: takes no lock, writes no log
  /// line.
  virtual std::optional<Error> append(const Value& report) = 0;
  /// All reports, oldest first. Unreadable ones are left out, with a log line. Blocks for reading a file. Not at the
  /// same time as append(): at the start, before a crash can be reported.
  virtual Array reports() = 0;
  /// Empties the shelf, once its reports are stored elsewhere. Unreadable content is set aside or left, not deleted. As
  /// reports().
  virtual void clear() = 0;
};

}  // namespace morvik::kit
