#include "proofs/run/misbehaviours.h"

#include <limits>
#include <string>
#include <utility>
#include <variant>

#include "proofs/run/weighted.h"
#include "services/json_writer.h"

namespace morvik::proofs {
namespace {

using kit::Value;
using testing::Answer;
using testing::SimulatedService;
using testing::UsualAnswer;

constexpr double kUsualDelaySeconds = 0.4;
constexpr double kSlowestSeconds = 90;
/// Larger than any answer that a device takes.
constexpr size_t kHugeBytes = testing::kDefaultMaxAnswerBytes + 1;

constexpr MisbehaviourRow kRows[] = {
    {Misbehaviour::kNone, "none", 0},
    {Misbehaviour::kRefuses, "refused", 12},
    {Misbehaviour::kRedirects, "redirected", 4},
    {Misbehaviour::kClosesBefore, "closed before it arrived", 10},
    {Misbehaviour::kClosesAfter, "closed after it arrived", 10},
    {Misbehaviour::kSilentBefore, "lost without an answer", 5},
    {Misbehaviour::kSilentAfter, "answer never came", 5},
    {Misbehaviour::kSlow, "slow", 14},
    {Misbehaviour::kGarbage, "garbage", 5},
    {Misbehaviour::kTruncated, "truncated", 4},
    {Misbehaviour::kNoObject, "no object", 4},
    {Misbehaviour::kNullBody, "null", 2},
    {Misbehaviour::kEmptyBody, "empty body", 3},
    {Misbehaviour::kEmptyObject, "empty object", 5},
    {Misbehaviour::kHuge, "too large", 0.3},
    {Misbehaviour::kWrongTypes, "wrong types", 6},
    {Misbehaviour::kNullMembers, "null members", 5},
    {Misbehaviour::kOddNumbers, "odd numbers", 5},
    {Misbehaviour::kSaysNo, "said no", 8},
    {Misbehaviour::kTwice, "arrived twice", 5},
    {Misbehaviour::kOtherKey, "named another click", 5},
};
static_assert(std::size(kRows) == kMisbehaviours);

template <class Each, size_t kCount>
const Each& oneOf(const Each (&each)[kCount], simulation::Dice& dice) {
  return each[dice.below(kCount)];
}

/// Every member of an object, and of the objects in it, given to `change` with its name.
template <class Change>
Value eachChanged(const Value& value, const Change& change) {
  if (!value.isDictionary())
    return value;
  kit::MutableDictionary changed;
  for (const kit::Entry& entry : value.dictionary()) {
    const Value within = entry.value.isDictionary() ? eachChanged(entry.value, change) : entry.value;
    changed.set(entry.key, change(entry.key.string(), within));
  }
  return Value(std::move(changed));
}

Value ofAnotherType(simulation::Dice& dice) {
  switch (dice.below(7)) {
    case 0:
      return "yes";
    case 1:
      return "";
    case 2:
      return 3.75;
    case 3:
      return true;
    case 4:
      return kit::Array{1, "two"};
    case 5:
      return kit::Dictionary{{"a", 1}};
    default:
      return "-17 apples";
  }
}

Value oddNumber(simulation::Dice& dice) {
  switch (dice.below(8)) {
    case 0:
      return std::numeric_limits<int64_t>::max();
    case 1:
      return std::numeric_limits<int64_t>::min();
    case 2:
      return -1;
    case 3:
      return 0;
    case 4:
      return 1e300;
    case 5:
      return -1e300;
    case 6:
      return int64_t{1} << 32U;
    default:
      return 0.5;
  }
}

std::string written(const Value& json) {
  return std::get<std::string>(services::writeJson(json));
}

Value spoiled(const Value& json, Misbehaviour misbehaviour, simulation::Dice& dice,
              std::span<const int64_t> other_keys) {
  return eachChanged(json, [&](std::string_view name, const Value& value) -> Value {
    switch (misbehaviour) {
      case Misbehaviour::kWrongTypes:
        return dice.happens(0.5) ? ofAnotherType(dice) : value;
      case Misbehaviour::kNullMembers:
        return dice.happens(0.5) ? Value::null() : value;
      case Misbehaviour::kOddNumbers:
        return value.isNumber() && dice.happens(0.6) ? oddNumber(dice) : value;
      case Misbehaviour::kOtherKey:
        return name == "conversion_key" && !other_keys.empty() ? Value(other_keys[dice.below(other_keys.size())])
                                                               : value;
      default:
        return value;
    }
  });
}

/// Whether the request reaches the service.
enum class Arrival : uint8_t { kNo, kMaybe, kYes };

/// Where the device cannot tell from the answer either may be.
Arrival arrivalUnder(Misbehaviour misbehaviour) {
  switch (misbehaviour) {
    case Misbehaviour::kRefuses:
    case Misbehaviour::kRedirects:
    case Misbehaviour::kClosesBefore:
    case Misbehaviour::kSilentBefore:
    case Misbehaviour::kSaysNo:
      return Arrival::kNo;
    case Misbehaviour::kGarbage:
    case Misbehaviour::kNoObject:
    case Misbehaviour::kNullBody:
    case Misbehaviour::kEmptyBody:
    case Misbehaviour::kEmptyObject:
    case Misbehaviour::kHuge:
      return Arrival::kMaybe;
    default:
      return Arrival::kYes;
  }
}

Answer answerOf(const UsualAnswer& usual, Misbehaviour misbehaviour, simulation::Dice& dice,
                std::span<const int64_t> other_keys) {
  switch (misbehaviour) {
    case Misbehaviour::kRefuses: {
      constexpr int kStatuses[] = {400, 401, 403, 404, 408, 413, 429, 500, 502, 503};
      return Answer::body(oneOf(kStatuses, dice), "{\"Result\":true}");
    }
    case Misbehaviour::kRedirects: {
      constexpr int kStatuses[] = {301, 302, 304, 307, 308};
      return Answer::body(oneOf(kStatuses, dice), "");
    }
    case Misbehaviour::kClosesBefore:
    case Misbehaviour::kClosesAfter:
      return Answer::error("the connection was closed");
    case Misbehaviour::kSilentBefore:
    case Misbehaviour::kSilentAfter:
      return Answer::silence();
    case Misbehaviour::kGarbage:
      return Answer::body(200, "<html>sign in</html>\n\x01\xff\xfe{\"Result\":");
    case Misbehaviour::kTruncated: {
      const std::string text = written(usual.json);
      return Answer::body(200, text.substr(0, text.size() / 2));
    }
    case Misbehaviour::kNoObject: {
      constexpr const char* kBodies[] = {"[\"Result\",true]", "true", "\"Result\"", "17", "[]"};
      return Answer::body(200, oneOf(kBodies, dice));
    }
    case Misbehaviour::kNullBody:
      return Answer::body(200, "null");
    case Misbehaviour::kEmptyBody:
      return Answer::body(204, "");
    case Misbehaviour::kEmptyObject:
      return Answer::body(200, "{}");
    case Misbehaviour::kHuge:
      return Answer::body(200, "{\"Result\":true,\"Padding\":\"" + std::string(kHugeBytes, 'x') + "\"}");
    case Misbehaviour::kWrongTypes:
    case Misbehaviour::kNullMembers:
    case Misbehaviour::kOddNumbers:
    case Misbehaviour::kOtherKey:
      return Answer::json(usual.status, spoiled(usual.json, misbehaviour, dice, other_keys));
    case Misbehaviour::kNone:
    case Misbehaviour::kSlow:
    case Misbehaviour::kSaysNo:
    case Misbehaviour::kTwice:
      break;
  }
  return Answer::json(usual.status, usual.json);
}

}  // namespace

std::span<const MisbehaviourRow> misbehaviours() {
  return kRows;
}

const char* nameOf(Misbehaviour misbehaviour) {
  return kRows[static_cast<size_t>(misbehaviour)].name;
}

Misbehaviour drawMisbehaviour(simulation::Dice& dice) {
  return drawWeighted(misbehaviours(), dice).misbehaviour;
}

Treatment drawTreatment(Misbehaviour misbehaviour, simulation::Dice& dice) {
  const Arrival arrival = arrivalUnder(misbehaviour);
  const bool arrives = arrival == Arrival::kMaybe ? dice.happens(0.5) : arrival == Arrival::kYes;
  const double delay_seconds =
      misbehaviour == Misbehaviour::kSlow ? dice.between(1, kSlowestSeconds) : dice.between(0.02, kUsualDelaySeconds);
  return {misbehaviour, arrives, delay_seconds};
}

Treatment steadyTreatment(Misbehaviour misbehaviour) {
  return {misbehaviour, arrivalUnder(misbehaviour) != Arrival::kNo, kSteadyDelaySeconds};
}

TreatedRequest treat(const kit::Request& request, const Treatment& treatment, SimulatedService& service,
                     simulation::Dice& dice, std::span<const int64_t> other_keys) {
  const Misbehaviour misbehaviour = treatment.misbehaviour;
  TreatedRequest treated;
  treated.served =
      service.receive(request, treatment.arrives ? SimulatedService::Counting::kYes : SimulatedService::Counting::kNo);
  if (misbehaviour == Misbehaviour::kTwice)
    service.receive(request);
  treated.answer =
      answerOf(service.usualAnswer(treated.served), misbehaviour, dice, other_keys).after(treatment.delay_seconds);
  return treated;
}

}  // namespace morvik::proofs
