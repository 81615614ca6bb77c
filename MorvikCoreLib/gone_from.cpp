#include "MorvikCoreLib/gone_from.h"

#include <utility>

namespace morvik {

kit::Array goneFrom(const kit::Value& before, const kit::Value& after) {
  const kit::Array stored = before.array();
  const kit::Array kept = after.array();
  kit::Array::Iterator next = kept.begin();
  kit::MutableArray gone;
  for (const kit::Value& element : stored) {
    if (next != kept.end() && next->identicalTo(element))
      ++next;
    else
      gone.append(element);
  }
  return kit::Value(std::move(gone)).array();
}

}  // namespace morvik
