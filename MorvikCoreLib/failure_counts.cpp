#include "MorvikCoreLib/failure_counts.h"

#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "services/converters.h"

namespace morvik {
namespace {

using kit::Value;

constexpr const char* kConversionKey = "conversion_key";
constexpr const char* kFailureCount = "failure_cnt";

/// A list from which equal records are removed repeatedly. Only records of the same key and count are searched.
class WorkingList {
 public:
  explicit WorkingList(const kit::Array& records) {
    records_.reserve(records.size() * 2);
    for (const Value& record : records)
      append(record);
  }

  void append(Value record) {
    places_[placeOf(record)].push_back(records_.size());
    records_.push_back(std::move(record));
  }

  void removeAllEqualTo(const Value& record) {
    const auto alike = places_.find(placeOf(record));
    if (alike == places_.end())
      return;
    std::erase_if(alike->second, [this, &record](size_t index) {
      if (!(records_[index] == record))
        return false;
      records_[index] = Value();
      return true;
    });
  }

  Value list() const {
    kit::MutableArray left;
    for (const Value& record : records_) {
      if (!record.isAbsent())
        left.append(record);
    }
    return Value(std::move(left));
  }

 private:
  using Place = std::pair<int64_t, int64_t>;
  struct Hash {
    size_t operator()(const Place& place) const {
      return std::hash<int64_t>()(place.first) * 31 + std::hash<int64_t>()(place.second);
    }
  };
  static Place placeOf(const Value& record) { return {conversionKeyOf(record), failuresOf(record)}; }

  std::vector<Value> records_;  ///< absent where one was removed
  std::unordered_map<Place, std::vector<size_t>, Hash> places_;
};

/// `list` itself if nothing is removed.
template <class Stays>
Value retained(const Value& list, const Stays& stays) {
  kit::MutableArray left(list);
  left.retainIf(stays);
  return left.size() == list.size() ? list : Value(std::move(left));
}

}  // namespace

int64_t conversionKeyOf(const Value& record) {
  return services::checkIntegerNilToZero(record[kConversionKey]);
}

int64_t failuresOf(const Value& record) {
  return services::checkIntegerNilToZero(record[kFailureCount]);
}

Value failureCount(int64_t conversion_key, int64_t failure_count) {
  return kit::Dictionary{{kConversionKey, conversion_key}, {kFailureCount, failure_count}};
}

Value withoutGivenUp(const Value& clicks, const std::unordered_set<int64_t>& given_up) {
  if (given_up.empty())
    return clicks;
  return retained(clicks, [&given_up](const Value& click) { return given_up.count(conversionKeyOf(click)) == 0; });
}

CountedSessionEnd countSessionEnd(const kit::Array& counts) {
  CountedSessionEnd counted;
  WorkingList list(counts);
  for (const Value& record : counts) {
    list.removeAllEqualTo(record);
    const int64_t failures = failuresOf(record);
    if (failures <= kMaxFailureCountToResend)
      list.append(failureCount(conversionKeyOf(record), failures + 1));
    else
      counted.given_up.insert(conversionKeyOf(record));
  }
  counted.counts = list.list();
  return counted;
}

}  // namespace morvik
