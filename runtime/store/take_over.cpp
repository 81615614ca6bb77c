#include "runtime/store/take_over.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "runtime/store/value_codec.h"
#include "services/converters.h"

namespace morvik::runtime {
namespace {

bool isListOrNone(const kit::Value& value) {
  return value.isArray() || value.isAbsent();
}

/// Elements by their stored form. Equal records are counted each.
class Elements {
 public:
  void add(const kit::Value& element) { ++counts_[formOf(element)]; }
  /// Whether there was one.
  bool take(const kit::Value& element) {
    if (counts_.empty())
      return false;
    const auto found = counts_.find(formOf(element));
    if (found == counts_.end() || found->second == 0)
      return false;
    --found->second;
    return true;
  }

 private:
  /// Empty for elements that are in no file.
  static std::string formOf(const kit::Value& element) {
    std::string form;
    return encodeValue(element, form) ? form : std::string();
  }

  std::unordered_map<std::string, size_t> counts_;
};

/// What was in the file once and still is.
Elements stillThere(const kit::Value& in_file, const kit::Value& lost) {
  Elements once;
  for (const kit::Value& element : lost.array())
    once.add(element);
  Elements still;
  for (const kit::Value& element : in_file.array()) {
    if (once.take(element))
      still.add(element);
  }
  return still;
}

kit::Value joinedLists(const kit::Value& in_file, const kit::Value& in_process, const kit::Value& lost) {
  Elements still = stillThere(in_file, lost);
  kit::MutableArray all(in_file);
  for (const kit::Value& element : in_process.array()) {
    if (!still.take(element))
      all.append(element);
  }
  return kit::Value(std::move(all));
}

kit::Value unitedNumbers(const kit::Value& first, const kit::Value& second) {
  std::unordered_set<int64_t> there;
  for (const kit::Value& element : first.array())
    there.insert(services::checkIntegerNilToZero(element));
  kit::MutableArray all(first);
  for (const kit::Value& element : second.array()) {
    if (there.insert(services::checkIntegerNilToZero(element)).second)
      all.append(element);
  }
  return kit::Value(std::move(all));
}

int64_t added(int64_t a, int64_t b) {
  int64_t total = 0;
  if (__builtin_add_overflow(a, b, &total))
    return a < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  return total;
}

/// The sum, within the range of numbers. A file with a smaller count than what was lost did not continue from that.
kit::Value sumOf(const kit::Value& in_file, const kit::Value& in_process, const kit::Value& lost) {
  const int64_t file = services::checkIntegerNilToZero(in_file);
  const int64_t process = services::checkIntegerNilToZero(in_process);
  const int64_t both = lost.isNumber() ? services::checkIntegerNilToZero(lost) : 0;
  if (both > 0 && file >= both && process >= both)
    return added(file, process - both);
  return added(file, process);
}

}  // namespace

TakeOver TakeOverTable::ruleOf(const std::string& name, const kit::Value& in_file) const {
  const auto found =
      std::find_if(rows.begin(), rows.end(), [&name](const TakeOverRow& row) { return row.name == name; });
  if (found != rows.end())
    return found->rule;
  return in_file.isArray() ? TakeOver::kJoin : TakeOver::kProcess;
}

kit::Value takenOver(TakeOver rule, const kit::Value& in_file, const kit::Value& in_process, const kit::Value& lost) {
  switch (rule) {
    case TakeOver::kFile:
      return in_file;
    case TakeOver::kJoin:
    case TakeOver::kUnite:
      if (in_file.isArray() && isListOrNone(in_process))
        return rule == TakeOver::kJoin ? joinedLists(in_file, in_process, lost) : unitedNumbers(in_file, in_process);
      break;
    case TakeOver::kAdd:
      if (in_file.isNumber() && in_process.isNumber())
        return sumOf(in_file, in_process, lost);
      break;
    case TakeOver::kLater:
      if (in_file.isDate() && (!in_process.isDate() || in_process.date() < in_file.date()))
        return in_file;
      break;
    case TakeOver::kProcess:
    case TakeOver::kProcessAlone:
    case TakeOver::kRecord:
    case TakeOver::kConfirmed:
      break;
  }
  return in_process;
}

}  // namespace morvik::runtime
