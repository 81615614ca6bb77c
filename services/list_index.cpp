#include "services/list_index.h"

#include <utility>

namespace morvik::services {

void ListIndex::indexOf(const kit::Value& list) {
  if (list.identicalTo(list_))
    return;
  first_orders_.clear();
  next_order_ = 0;
  for (const kit::Value& record : list.array())
    add(record);
  list_ = list;
}

void ListIndex::add(const kit::Value& record) {
  first_orders_.try_emplace(key_of_(record), next_order_);
  ++next_order_;
}

/// Of a record whose key no other record has. If all keys differ, each record tells its order.
size_t ListIndex::positionOf(const kit::Array& list, uint64_t order) const {
  size_t begin = 0;
  size_t end = list.size();
  while (begin < end) {
    const size_t middle = begin + (end - begin) / 2;
    if (first_orders_.at(key_of_(list[middle])) < order)
      begin = middle + 1;
    else
      end = middle;
  }
  return begin;
}

bool ListIndex::contains(const kit::Value& list, int64_t key) {
  indexOf(list);
  return first_orders_.count(key) != 0;
}

kit::Value ListIndex::without(const kit::Value& list, int64_t key) {
  indexOf(list);
  const auto place = first_orders_.find(key);
  if (place == first_orders_.end())
    return list;
  kit::MutableArray survivors(list);
  if (first_orders_.size() == survivors.size())
    survivors.removeAt(positionOf(list.array(), place->second));
  else
    survivors.retainIf([this, key](const kit::Value& record) { return key_of_(record) != key; });
  first_orders_.erase(place);
  list_ = kit::Value(std::move(survivors));
  return list_;
}

kit::Value ListIndex::appended(const kit::Value& list, const kit::Value& record) {
  indexOf(list);
  kit::MutableArray longer(list);
  longer.append(record);
  add(record);
  list_ = kit::Value(std::move(longer));
  return list_;
}

}  // namespace morvik::services
