// The records of a stored list, oldest first.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "kit/stop_request.h"
#include "kit/value.h"

namespace morvik {

/// Whether a list is in ascending order of its records' dates. What it has in common with the list of the latest check
/// is not checked again: for a list that was appended to and trimmed, a check costs what was appended.
class KnownOrder {
 public:
  explicit KnownOrder(const char* date_key) : date_key_(date_key) {}

  /// Nothing when the kit is being stopped meanwhile.
  std::optional<bool> isSorted(const kit::Array& list, const kit::StopRequest& stop);
  const char* dateKey() const { return date_key_; }

 private:
  const char* date_key_;
  kit::Array known_;  ///< is sorted
};

/// Walks the records in ascending order of their dates; those of the same date in the order of the list. A sorted list
/// is walked as it is. Of any other, a number of records is sorted at a time: a caller that needs a few of a long list
/// does not sort all of it.
class OldestFirst {
 public:
  /// The list outlives it.
  OldestFirst(const kit::Array& list, KnownOrder& order, size_t at_a_time, const kit::StopRequest& stop);

  /// Null at the end, and when the kit is being stopped.
  const kit::Value* next();
  /// There is no further one.
  bool isAtEnd() const;
  /// The kit is being stopped: not all were walked.
  bool isStopping() const { return is_stopping_; }

 private:
  struct Dated {
    kit::Date date;
    size_t place;  ///< in the list
    const kit::Value* record;
  };
  static bool isEarlier(const Dated& a, const Dated& b);
  void findDates(const kit::Array& list, const char* date_key);
  bool sortMore();
  bool sortAll();

  const size_t at_a_time_;
  const kit::StopRequest& stop_;
  kit::StopCheck check_{&stop_};
  bool is_stopping_ = false;
  bool is_sorted_ = false;
  kit::Array::Iterator at_;  ///< of a sorted list
  kit::Array::Iterator end_;
  std::vector<Dated> dated_;  ///< of any other
  size_t ordered_ = 0;        ///< this many are in their places
  size_t next_ = 0;
};

}  // namespace morvik
