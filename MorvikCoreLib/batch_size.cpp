#include "MorvikCoreLib/batch_size.h"

#include <algorithm>

#include "services/json_writer.h"

namespace morvik {
namespace {

size_t doubled(size_t now, size_t most) {
  return now > most / 2 ? most : std::max(now * 2, size_t{1});
}

}  // namespace

bool BatchRoom::take(const kit::Value& entry) {
  if (!limit_.isUnlimited()) {
    text_.clear();
    // An entry that cannot be written makes the sealing of the whole batch fail.
    static_cast<void>(services::appendJson(entry, text_));
    if (entries_ > 0 && text_.size() > limit_.plain_bytes - std::min(plain_bytes_, limit_.plain_bytes))
      return false;
    plain_bytes_ += text_.size();
  }
  ++entries_;
  return true;
}

void BatchSize::grow() {
  activities_ = doubled(activities_, most_.records);
  impressions_ = doubled(impressions_, most_.records);
}

void BatchSize::halve(size_t activities, size_t impressions) {
  activities_ = std::max(activities / 2, size_t{1});
  if (impressions > 0)
    impressions_ = impressions / 2;
}

}  // namespace morvik
