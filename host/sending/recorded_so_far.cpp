#include "host/sending/recorded_so_far.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <unordered_set>

namespace morvik::host {
namespace {

constexpr const char* kEventId = "activityEventID";

}  // namespace

RecordedSoFar::RecordedSoFar(const services::MorvikGVUserDefaults& store)
    : store_(store), activities_(store.fendoActivityInfos()), impressions_(store.fendoImpressionInfos()) {}

uint64_t RecordedSoFar::waitingActivities() const {
  const kit::Array then = activities_.array();
  const kit::Value stored = store_.fendoActivityInfos();
  const kit::Array now = stored.array();
  if (then.empty() || now.empty())
    return 0;
  std::unordered_set<std::string_view> ids;
  ids.reserve(then.size());
  uint64_t without_id = 0;
  for (const kit::Value& record : then) {
    const kit::Value& id = record[kEventId];
    if (id.isString())
      ids.insert(id.string());
    else
      ++without_id;
  }
  uint64_t waiting = 0;
  uint64_t waiting_without_id = 0;
  for (const kit::Value& record : now) {
    const kit::Value& id = record[kEventId];
    if (id.isString())
      waiting += ids.count(id.string());
    else
      ++waiting_without_id;
  }
  return waiting + std::min(without_id, waiting_without_id);
}

uint64_t RecordedSoFar::waitingImpressions() const {
  const kit::Array then = impressions_.array();
  const kit::Value stored = store_.fendoImpressionInfos();
  const kit::Array now = stored.array();
  if (then.empty() || now.empty())
    return 0;
  // The list is only appended to, until it is emptied: while the last one is there, so are those before it.
  const kit::Value& last = then[then.size() - 1];
  for (size_t i = 0; i < now.size(); ++i) {
    if (now[i].identicalTo(last) || now[i] == last)
      return std::min<uint64_t>(i + 1, then.size());
  }
  return 0;
}

}  // namespace morvik::host
