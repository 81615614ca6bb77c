#include "apps/device/explanation_fields.h"

#include <chrono>
#include <optional>
#include <utility>

namespace morvik_device {
namespace {

using morvik::Explanation;
using morvik::kit::Value;

Value dateOf(const std::optional<Explanation::Time>& time) {
  if (!time)
    return Value::null();
  const auto since = std::chrono::duration_cast<std::chrono::microseconds>(time->time_since_epoch());
  return morvik::kit::Date{since.count()};
}

const char* nameOf(Explanation::State state) {
  switch (state) {
    case Explanation::State::kPending:
      return "pending";
    case Explanation::State::kDelivered:
      return "delivered";
    case Explanation::State::kGivenUp:
      return "given up";
    case Explanation::State::kUnclear:
      return "unclear";
    case Explanation::State::kUnknown:
      return "unknown";
    case Explanation::State::kNotAnId:
      break;
  }
  return "not an id";
}

}  // namespace

morvik::kit::MutableDictionary fieldsOf(const Explanation& explanation) {
  morvik::kit::MutableArray exchanges;
  for (const Explanation::Exchange& each : explanation.exchanges) {
    exchanges.append(morvik::kit::Dictionary{{"begun", dateOf(each.begun)},
                                             {"left", dateOf(each.left)},
                                             {"ended", dateOf(each.ended)},
                                             {"endpoint", each.endpoint},
                                             {"outcome", each.outcome},
                                             {"http_status", each.http_status},
                                             {"error", each.error}});
  }
  morvik::kit::MutableDictionary fields;
  fields.set("event_id", explanation.event_id);
  fields.set("state", nameOf(explanation.state));
  fields.set("recorded", dateOf(explanation.recorded));
  fields.set("exchanges", Value(std::move(exchanges)));
  fields.set("reason", explanation.reason);
  fields.set("sentence", explanation.sentence);
  return fields;
}

}  // namespace morvik_device
