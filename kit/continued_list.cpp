#include "kit/continued_list.h"

#include <utility>

namespace morvik::kit {

Value continuedList(const Value& before, const Value& now, Value after) {
  const size_t known = before.size();
  const Array grown = now.array();
  if (grown.size() <= known || grown.sharedPrefix(before.array()) < known)
    return after;
  MutableArray list(after);
  Array::Iterator element = grown.begin();
  for (element += known; element != grown.end(); ++element)
    list.append(*element);
  return Value(std::move(list));
}

}  // namespace morvik::kit
