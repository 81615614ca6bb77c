#include "host/store/take_over.h"

#include <algorithm>
#include <limits>
#include <unordered_set>
#include <utility>

#include "services/converters.h"

namespace morvik::host {
namespace {

bool isListOrNone(const kit::Value& value) {
  return value.isArray() || value.isAbsent();
}

kit::Value joinedLists(const kit::Value& first, const kit::Value& second) {
  kit::MutableArray all(first);
  for (const kit::Value& element : second.array())
    all.append(element);
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

/// As far as numbers go.
kit::Value sumOf(const kit::Value& first, const kit::Value& second) {
  const int64_t a = services::checkIntegerNilToZero(first);
  const int64_t b = services::checkIntegerNilToZero(second);
  int64_t total = 0;
  if (__builtin_add_overflow(a, b, &total))
    total = a < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  return total;
}

}  // namespace

TakeOver TakeOverTable::ruleOf(const std::string& name, const kit::Value& in_file) const {
  const auto found =
      std::find_if(rows.begin(), rows.end(), [&name](const TakeOverRow& row) { return row.name == name; });
  if (found != rows.end())
    return found->rule;
  return in_file.isArray() ? TakeOver::kJoin : TakeOver::kProcess;
}

kit::Value takenOver(TakeOver rule, const kit::Value& in_file, const kit::Value& in_process) {
  switch (rule) {
    case TakeOver::kFile:
      return in_file;
    case TakeOver::kJoin:
    case TakeOver::kUnite:
      if (in_file.isArray() && isListOrNone(in_process))
        return rule == TakeOver::kJoin ? joinedLists(in_file, in_process) : unitedNumbers(in_file, in_process);
      break;
    case TakeOver::kAdd:
      if (in_file.isNumber() && in_process.isNumber())
        return sumOf(in_file, in_process);
      break;
    case TakeOver::kLater:
      if (in_file.isDate() && (!in_process.isDate() || in_process.date() < in_file.date()))
        return in_file;
      break;
    case TakeOver::kProcess:
    case TakeOver::kProcessAlone:
    case TakeOver::kRecord:
      break;
  }
  return in_process;
}

}  // namespace morvik::host
