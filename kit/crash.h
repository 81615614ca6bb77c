// What is known of a crash, and where its report waits when the store cannot take it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kit/date.h"
#include "kit/error.h"
#include "kit/value.h"

namespace morvik::kit {

/// When a crash happened, and how things stood then.
struct CrashMoment {
  Date date;
  bool app_in_focus = false;
  /// A dictionary of crashFacts(), as the process that crashed had last noted them. Absent: it left none, and the
  /// report tells how things stand when it is made.
  Value facts = {};
};

/// An exception that nobody caught.
struct UncaughtException {
  std::optional<std::string> reason;            ///< nothing: it came without one
  std::vector<std::string> call_stack_symbols;  ///< innermost first; may be empty
  /// Set for a crash of an earlier process that is reported only now; else the crash is happening.
  std::optional<CrashMoment> moment;
};

/// Keeps the crash reports that found the store in use, for the next start. There is one shelf to a store.
class ReportShelf {
 public:
  virtual ~ReportShelf() = default;
  /// Puts `report` (a dictionary that has a JSON form) behind the others. When it returns without an error, the report
  /// survives the process; with one, nothing was put there. Any thread, also one that is about to die and may hold any
  /// lock of the kit: waits for no lock, writes no log line.
  virtual std::optional<Error> append(const Value& report) = 0;
  /// All reports, oldest first. What cannot be read is left out, with a line in the log. Blocks for reading a file. Not
  /// at the same time as append(): at the start, before anything can crash into it.
  virtual Array reports() = 0;
  /// Empties the shelf, once its reports are kept elsewhere. What could not be read is set aside or left, not deleted.
  /// As reports().
  virtual void clear() = 0;
};

}  // namespace morvik::kit
