// Which value wins when a store's file, unreadable at the opening, becomes available while the process runs and differs
// from the process's value of a property.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kit/value.h"

namespace morvik::runtime {

enum class TakeOver : uint8_t {
  kProcess,       ///< what this process set, including a removal; if it set nothing, the file's value
  kProcessAlone,  ///< the same, but if it set nothing there is nothing
  kFile,          ///< the file's value; if there is none, what this process set
  kRecord,        ///< kFile for all of these together, as one record, if the file has it; else kProcess
  kJoin,          ///< a list: the file's elements, then this process's
  kUnite,         ///< a list of whole numbers: the file's, then those of this process not among them
  kAdd,           ///< a count: the sum
  kLater,         ///< a date: the later one
  kConfirmed,     ///< a flag: true only if the file says so of it and of the flag that it confirms
};

struct TakeOverRow {
  std::string name;
  TakeOver rule = TakeOver::kProcess;
  std::string confirms = {};  ///< for kConfirmed: the other flag
};

struct TakeOverTable {
  /// A name that is not listed: kJoin for lists, kProcess for everything else.
  std::vector<TakeOverRow> rows = {};
  /// The file has the record if this name has a number other than -1 there.
  std::string record_key = {};

  /// For the value that the file, or this process, has under that name.
  TakeOver ruleOf(const std::string& name, const kit::Value& in_file) const;
};

/// The result for a property that the file has and this process has set. Not for kRecord. `lost` is what this process
/// knows was in the file once; absent: nothing. What both sides have of that counts once: an element that is still in
/// the file, and the count that both continued from.
kit::Value takenOver(TakeOver rule, const kit::Value& in_file, const kit::Value& in_process, const kit::Value& lost);

}  // namespace morvik::runtime
