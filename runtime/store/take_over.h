// What wins when the file of a store, which could not be read at the opening, comes to light while the process runs,
// and says something else of a property than the process does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kit/value.h"

namespace morvik::runtime {

enum class TakeOver : uint8_t {
  kProcess,       ///< what this process has set, a removal too; where it has set nothing, what the file has
  kProcessAlone,  ///< the same, but where it has set nothing there is nothing
  kFile,          ///< what the file has; where it has nothing, what this process has set
  kRecord,        ///< kFile for all of these together, as one record, when the file has that; else kProcess
  kJoin,          ///< a list: the file's elements, then this process's
  kUnite,         ///< a list of whole numbers: the file's, then those of this process that are not among them
  kAdd,           ///< a count: the sum
  kLater,         ///< a date: the later one
  kConfirmed,     ///< a flag, true only where the file says so of it and of the flag that it confirms, else false
};

struct TakeOverRow {
  std::string name;
  TakeOver rule = TakeOver::kProcess;
  std::string confirms = {};  ///< of kConfirmed: the other flag
};

struct TakeOverTable {
  /// A name that is not here: kJoin for lists, kProcess for everything else.
  std::vector<TakeOverRow> rows = {};
  /// The file has the record when it has a number other than -1 under this name.
  std::string record_key = {};

  /// Of the value that the file has, or this process, under that name.
  TakeOver ruleOf(const std::string& name, const kit::Value& in_file) const;
};

/// What a property becomes that both the file has and this process has set. Not for kRecord. `lost` is what this
/// process knows to have lain in the file once, absent for nothing: what both sides have of that counts once, an
/// element that the file has still as well as the count that both went on from.
kit::Value takenOver(TakeOver rule, const kit::Value& in_file, const kit::Value& in_process, const kit::Value& lost);

}  // namespace morvik::runtime
