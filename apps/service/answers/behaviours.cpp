#include "apps/service/answers/behaviours.h"

#include <algorithm>
#include <array>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereBehaviour = "the behaviour";
constexpr int kLeastStatus = 200;
constexpr int kLastStatus = 599;
// A web server's error page in place of an answer, and bytes that are not even text.
constexpr std::string_view kGarbage = "<html><body>502 Bad Gateway</body></html>\n\x01\xff\xfe{\"Result\":";
constexpr std::string_view kNotAnObject = "[\"Result\",true]";

struct KindRow {
  std::string_view name;
  BehaviourKind kind;
  std::string_view own_member;  // the member that only this kind knows, or ""
  bool own_member_required;
  bool counts_events;  // unless "count_events" says otherwise
};

constexpr std::array<KindRow, 9> kBehaviourKinds = {{
    {"status", BehaviourKind::kStatus, "status", true, false},
    {"delay", BehaviourKind::kDelay, "milliseconds", true, true},
    {"close_before", BehaviourKind::kCloseBefore, "", false, false},
    {"close_after", BehaviourKind::kCloseAfter, "", false, true},
    {"garbage", BehaviourKind::kGarbage, "text", false, true},
    {"truncated_json", BehaviourKind::kTruncatedJson, "", false, true},
    {"not_object", BehaviourKind::kNotObject, "", false, true},
    {"huge_body", BehaviourKind::kHugeBody, "", false, true},
    {"json", BehaviourKind::kJson, "json", true, true},
}};

const KindRow& rowOf(BehaviourKind kind) {
  return *std::find_if(kBehaviourKinds.begin(), kBehaviourKinds.end(),
                       [&](const KindRow& row) { return row.kind == kind; });
}

template <typename Names, typename NameOf>
std::string joined(const Names& names, NameOf name_of) {
  std::string text;
  for (const auto& name : names)
    text += (text.empty() ? "" : ", ") + std::string(name_of(name));
  return text;
}

Refusal badBehaviour(std::string_view name, const std::string& problem, const std::string& fix) {
  return Refusal(400, "\"" + std::string(name) + "\" " + problem, kWhereBehaviour, fix);
}

std::string readText(const Json& value, std::string_view name, const std::string& fix) {
  const auto found = value.find(name);
  if (found == value.end() || !found->is_string()) {
    throw badBehaviour(name, found == value.end() ? "is missing" : "is not a string", fix);
  }
  return found->get<std::string>();
}

int readInteger(const Json& value, std::string_view name, int least, int most) {
  const Json& found = value.at(std::string(name));
  const bool fits = found.is_number_integer() && found >= least && found <= most;
  if (!fits) {
    throw badBehaviour(name, "is not a whole number from " + std::to_string(least) + " to " + std::to_string(most),
                       "give a number in that range");
  }
  return found.get<int>();
}

std::string kindFix() {
  return "give one of: " + joined(kBehaviourKinds, [](const KindRow& row) { return row.name; });
}

const KindRow& kindNamed(const std::string& name) {
  const auto row = std::find_if(kBehaviourKinds.begin(), kBehaviourKinds.end(),
                                [&](const KindRow& each) { return each.name == name; });
  if (row == kBehaviourKinds.end())
    throw badBehaviour("kind", "is not a known kind", kindFix());
  return *row;
}

std::string endpointFix(const std::vector<std::string>& endpoints) {
  return "give one of: " + joined(endpoints, [](const std::string& each) { return each; });
}

void requireEndpointName(const std::string& name, const std::vector<std::string>& endpoints) {
  if (std::find(endpoints.begin(), endpoints.end(), name) == endpoints.end())
    throw badBehaviour("endpoint", "is not a known endpoint", endpointFix(endpoints));
}

std::string readEndpoint(const Json& value, const std::vector<std::string>& endpoints) {
  std::string name = readText(value, "endpoint", endpointFix(endpoints));
  requireEndpointName(name, endpoints);
  return name;
}

void refuseStrangers(const Json& value, const KindRow& row) {
  for (const auto& [name, ignored] : value.items()) {
    const bool known = name == "endpoint" || name == "kind" || name == "count" || name == "count_events" ||
                       (!row.own_member.empty() && name == row.own_member);
    if (!known) {
      throw badBehaviour(name, "does not belong to a behaviour of kind " + std::string(row.name),
                         "leave it out; known are endpoint, kind, count, count_events" +
                             (row.own_member.empty() ? std::string() : " and " + std::string(row.own_member)));
    }
  }
}

void readOwnMember(Behaviour& behaviour, const Json& value, const KindRow& row) {
  if (row.own_member.empty())
    return;
  const auto found = value.find(row.own_member);
  if (found == value.end()) {
    if (!row.own_member_required)
      return;
    throw badBehaviour(row.own_member, "is missing", "a behaviour of kind " + std::string(row.name) + " needs it");
  }
  switch (behaviour.kind) {
    case BehaviourKind::kStatus:
      behaviour.status = readInteger(value, row.own_member, kLeastStatus, kLastStatus);
      break;
    case BehaviourKind::kDelay:
      behaviour.delay = std::chrono::milliseconds(
          readInteger(value, row.own_member, 0, static_cast<int>(kMaxBehaviourDelay.count())));
      break;
    case BehaviourKind::kGarbage:
      behaviour.text = readText(value, row.own_member, "give a text");
      break;
    default:
      behaviour.json = *found;
      break;
  }
}

std::size_t keptBytes(const Behaviour& behaviour) {
  return (behaviour.text ? behaviour.text->size() : 0) +
         (behaviour.kind == BehaviourKind::kJson ? jsonText(behaviour.json).size() : 0);
}

// Everything except the body, which may be large.
Json summaryOf(const Behaviour& behaviour) {
  Json value = {{"endpoint", behaviour.endpoint}, {"count", behaviour.count}, {"kind", rowOf(behaviour.kind).name}};
  if (behaviour.kind == BehaviourKind::kStatus)
    value["status"] = behaviour.status;
  if (behaviour.kind == BehaviourKind::kDelay)
    value["milliseconds"] = behaviour.delay.count();
  return value;
}

std::string hugeBody() {
  return "{\"Result\":true,\"Padding\":\"" + std::string(kHugeBodyBytes, 'x') + "\"}";
}

}  // namespace

Behaviour parseBehaviour(const Json& value, const std::vector<std::string>& endpoints) {
  if (!value.is_object()) {
    throw Refusal(400, "the JSON is not an object", kWhereBehaviour,
                  "send an object such as {\"endpoint\":\"tracking\",\"count\":3,\"kind\":\"status\",\"status\":500}");
  }
  Behaviour behaviour;
  behaviour.endpoint = readEndpoint(value, endpoints);
  const KindRow& row = kindNamed(readText(value, "kind", kindFix()));
  refuseStrangers(value, row);
  behaviour.kind = row.kind;
  behaviour.count_events = row.counts_events;
  if (value.contains("count"))
    behaviour.count = readInteger(value, "count", 1, kMaxBehaviourCount);
  if (const auto counts = value.find("count_events"); counts != value.end()) {
    if (!counts->is_boolean())
      throw badBehaviour("count_events", "is neither true nor false", "give true or false");
    behaviour.count_events = counts->get<bool>();
  }
  readOwnMember(behaviour, value, row);
  return behaviour;
}

Json describeBehaviour(const Behaviour& behaviour) {
  Json value = summaryOf(behaviour);
  if (behaviour.kind == BehaviourKind::kGarbage && behaviour.text)
    value["text"] = *behaviour.text;
  if (behaviour.kind == BehaviourKind::kJson)
    value["json"] = behaviour.json;
  value["count_events"] = behaviour.count_events;
  return value;
}

Json behaviourKinds() {
  Json kinds = Json::array();
  for (const KindRow& row : kBehaviourKinds) {
    kinds.push_back({{"kind", row.name},
                     {"own_member", row.own_member},
                     {"required", row.own_member_required},
                     {"counts_events", row.counts_events}});
  }
  return kinds;
}

void requireBehaviourNames(const std::string& endpoint, const std::string& kind,
                           const std::vector<std::string>& endpoints) {
  if (!endpoint.empty())
    requireEndpointName(endpoint, endpoints);
  if (!kind.empty())
    kindNamed(kind);
}

HttpReply misbehave(const Behaviour& behaviour, HttpReply usual) {
  switch (behaviour.kind) {
    case BehaviourKind::kStatus:
      return {behaviour.status, jsonText({{"error", "this status was asked for through /inspect/behaviour"}})};
    case BehaviourKind::kDelay:
      usual.delay = behaviour.delay;
      return usual;
    case BehaviourKind::kCloseBefore:
    case BehaviourKind::kCloseAfter:
      usual.close_without_answer = true;
      return usual;
    case BehaviourKind::kGarbage:
      return {200, behaviour.text.value_or(std::string(kGarbage))};
    case BehaviourKind::kTruncatedJson:
      return {200, usual.body.substr(0, usual.body.size() / 2)};
    case BehaviourKind::kNotObject:
      return {200, std::string(kNotAnObject)};
    case BehaviourKind::kHugeBody:
      return {200, hugeBody()};
    case BehaviourKind::kJson:
      break;
  }
  return {200, jsonText(behaviour.json)};
}

void Behaviours::add(Behaviour behaviour) {
  const std::size_t bytes = keptBytes(behaviour);
  if (waiting_.size() == kMaxBehaviours || bytes > kMaxBehaviourBytes - kept_bytes_) {
    throw Refusal(409,
                  "the queue is full (" + std::to_string(kMaxBehaviours) + " behaviours or " +
                      std::to_string(kMaxBehaviourBytes) + " bytes)",
                  "/inspect/behaviour", "let requests use some up, or clear the queue with DELETE");
  }
  kept_bytes_ += bytes;
  waiting_.push_back(std::move(behaviour));
}

std::optional<Behaviour> Behaviours::take(std::string_view endpoint) {
  const auto found =
      std::find_if(waiting_.begin(), waiting_.end(), [&](const Behaviour& each) { return each.endpoint == endpoint; });
  if (found == waiting_.end())
    return std::nullopt;
  Behaviour taken = *found;
  if (--found->count == 0) {
    kept_bytes_ -= keptBytes(*found);
    waiting_.erase(found);
  }
  taken.count = 1;
  return taken;
}

void Behaviours::clear() {
  waiting_.clear();
  kept_bytes_ = 0;
}

void Behaviours::remove(std::string_view endpoint, std::string_view kind) {
  const auto goes = [&](const Behaviour& each) {
    return (endpoint.empty() || each.endpoint == endpoint) && (kind.empty() || rowOf(each.kind).name == kind);
  };
  std::erase_if(waiting_, [&](const Behaviour& each) {
    if (!goes(each))
      return false;
    kept_bytes_ -= keptBytes(each);
    return true;
  });
}

Json Behaviours::summaries() const {
  Json all = Json::array();
  for (const Behaviour& behaviour : waiting_)
    all.push_back(summaryOf(behaviour));
  return all;
}

Json Behaviours::list() const {
  Json all = Json::array();
  for (const Behaviour& behaviour : waiting_)
    all.push_back(describeBehaviour(behaviour));
  return all;
}

}  // namespace morvik_service
