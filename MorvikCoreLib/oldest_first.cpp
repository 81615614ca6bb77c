#include "MorvikCoreLib/oldest_first.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace morvik {
namespace {

/// This many records are sorted between two checks of the stop request.
constexpr ptrdiff_t kSortedAtOnce = 16'384;

}  // namespace

std::optional<bool> KnownOrder::isSorted(const kit::Array& list, const kit::StopRequest& stop) {
  kit::StopCheck check(&stop);
  const kit::Array before = std::exchange(known_, {});
  kit::Array::Iterator known = before.begin();
  const kit::Array::Iterator known_end = before.end();
  const kit::Array::Iterator end = list.end();
  kit::Date latest{std::numeric_limits<int64_t>::min()};
  for (kit::Array::Iterator at = list.begin(); at != end;) {
    if (check.countStep())
      return std::nullopt;
    size_t shared = known == known_end ? 0 : known.sharedRun(at);
    if (shared == 0 && known != known_end) {
      if (!known->identicalTo(*at)) {
        ++known;
        continue;
      }
      shared = 1;
    }
    if ((*at)[date_key_].date() < latest)
      return false;
    if (shared > 0)
      known += shared;
    if (shared > 1)
      at += shared - 1;
    latest = (*at)[date_key_].date();
    ++at;
  }
  known_ = list;
  return true;
}

OldestFirst::OldestFirst(const kit::Array& list, KnownOrder& order, size_t at_a_time, const kit::StopRequest& stop)
    : at_a_time_(std::max(at_a_time, size_t{1})), stop_(stop), at_(list.begin()), end_(list.end()) {
  const std::optional<bool> is_sorted = order.isSorted(list, stop);
  is_stopping_ = !is_sorted;
  is_sorted_ = is_sorted.value_or(true);
  if (!is_sorted_)
    findDates(list, order.dateKey());
}

void OldestFirst::findDates(const kit::Array& list, const char* date_key) {
  dated_.reserve(list.size());
  for (const kit::Value& record : list) {
    if (check_.countStep()) {
      is_stopping_ = true;
      return;
    }
    dated_.push_back({record[date_key].date(), dated_.size(), &record});
  }
}

const kit::Value* OldestFirst::next() {
  is_stopping_ = is_stopping_ || check_.countStep();
  if (is_stopping_ || isAtEnd())
    return nullptr;
  if (is_sorted_) {
    const kit::Value* record = &*at_;
    ++at_;
    return record;
  }
  if (next_ == ordered_ && !sortMore()) {
    is_stopping_ = true;
    return nullptr;
  }
  return dated_[next_++].record;
}

bool OldestFirst::isAtEnd() const {
  return is_sorted_ ? at_ == end_ : next_ == dated_.size();
}

bool OldestFirst::isEarlier(const Dated& a, const Dated& b) {
  return a.date == b.date ? a.place < b.place : a.date < b.date;
}

/// False when the kit is being stopped.
bool OldestFirst::sortMore() {
  if (dated_.size() - ordered_ <= at_a_time_)
    return sortAll();
  const auto from = dated_.begin() + static_cast<ptrdiff_t>(ordered_);
  const auto to = from + static_cast<ptrdiff_t>(at_a_time_);
  std::nth_element(from, to, dated_.end(), isEarlier);
  std::sort(from, to, isEarlier);
  ordered_ += at_a_time_;
  return !stop_.isMade();
}

bool OldestFirst::sortAll() {
  const auto from = dated_.begin() + static_cast<ptrdiff_t>(ordered_);
  const auto count = dated_.end() - from;
  const auto at = [from, count](ptrdiff_t place) { return from + std::min(place, count); };
  for (ptrdiff_t begin = 0; begin < count; begin += kSortedAtOnce) {
    std::sort(at(begin), at(begin + kSortedAtOnce), isEarlier);
    if (count > kSortedAtOnce && stop_.isMade())
      return false;
  }
  for (ptrdiff_t size = kSortedAtOnce; size < count; size *= 2) {
    for (ptrdiff_t begin = 0; begin + size < count; begin += 2 * size) {
      std::inplace_merge(at(begin), at(begin + size), at(begin + 2 * size), isEarlier);
      if (stop_.isMade())
        return false;
    }
  }
  ordered_ = dated_.size();
  return true;
}

}  // namespace morvik
