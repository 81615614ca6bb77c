#include "apps/service/inspect/broken_rules.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_set>

#include "apps/service/answers/endpoints.h"
#include "apps/service/base/ascii.h"
#include "apps/service/base/times.h"
#include "apps/service/checks/member_rules.h"

namespace morvik_service {
namespace {

class Rules {
 public:
  void add(const std::string& what, const std::string& where, const std::string& fix) {
    if (list_.size() < kMaxRulesListed)
      list_.push_back({{"what", what}, {"where", where}, {"fix", fix}});
  }
  bool full() const { return list_.size() >= kMaxRulesListed; }
  Json list() && { return std::move(list_); }

 private:
  Json list_ = Json::array();
};

// "xxxxxxxx-xxxx-7xxx-[89ab]xxx-xxxxxxxxxxxx" in lower case.
bool isTimeOrderedUuid(std::string_view text) {
  constexpr std::string_view kPattern = "xxxxxxxx-xxxx-7xxx-vxxx-xxxxxxxxxxxx";
  const auto fits = [](char c, char pattern) {
    if (pattern == 'v')
      return c == '8' || c == '9' || c == 'a' || c == 'b';
    if (pattern != 'x')
      return c == pattern;
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  };
  return text.size() == kPattern.size() && std::equal(text.begin(), text.end(), kPattern.begin(), fits);
}

void checkCreationTime(const Json& entry, const Place& place, std::string& previous, Rules& rules) {
  const std::string time = memberText(entry, "created_at");
  if (!parseCompactTime(time)) {
    rules.add("the time \"" + time.substr(0, 40) + "\" is not of the form yyyyMMddHHmmss", place.path("created_at"),
              "write 14 digits, at UTC+9");
    return;
  }
  if (time < previous)
    rules.add("the entry is earlier than the one before it", place.path("created_at"), "send entries in order of time");
  previous = time;
}

void checkEventId(const Json& entry, const Place& place, std::unordered_set<std::string>& ids, Rules& rules) {
  const std::string id = memberText(entry, "event_id");
  if (id.empty()) {
    rules.add("the event has no id, so nobody can count it once", place.path("event_id"), "send a UUID of version 7");
    return;
  }
  if (!isTimeOrderedUuid(id))
    rules.add("\"" + id.substr(0, 40) + "\" is not a lower-case UUID of version 7", place.path("event_id"),
              "send 36 characters such as 018f3c1e-7b2a-7cde-8f01-23456789abcd");
  if (!ids.insert(id).second)
    rules.add("the same event stands twice in one batch", place.path("event_id"), "send each event once");
}

void checkStrangers(const Json& entry, std::size_t members, const Place& place, Rules& rules) {
  if (entry.is_object() && entry.size() > members)
    rules.add("the entry has more than its " + std::to_string(members) + " members", place.path(),
              "send the members that the protocol lists");
}

void checkBatch(const Json& payload, Rules& rules) {
  constexpr std::size_t kMembersOfAnActivity = 7;
  constexpr std::size_t kMembersOfAnImpression = 6;
  std::unordered_set<std::string> ids;
  for (const char* name : {"activity_info", "impression_info"}) {
    const auto list = payload.find(name);
    if (list == payload.end() || !list->is_array())
      continue;
    const bool are_activities = list->size() > 0 && std::string_view(name) == "activity_info";
    std::string previous;
    std::size_t index = 0;
    for (const Json& entry : *list) {
      const Place place = Place(name).entry(index++);
      if (rules.full())
        return;
      checkCreationTime(entry, place, previous, rules);
      checkStrangers(entry, are_activities ? kMembersOfAnActivity : kMembersOfAnImpression, place, rules);
      if (are_activities)
        checkEventId(entry, place, ids, rules);
    }
  }
}

const Json* headerValue(const Json& request, std::string_view name) {
  for (const Json& header : request.at("headers")) {
    if (equalWithoutCase(header.at(0).get_ref<const std::string&>(), name))
      return &header.at(1);
  }
  return nullptr;
}

void checkContentType(const Json& request, const Endpoint& endpoint, Rules& rules) {
  const bool is_json = endpoint.form == PayloadForm::kJsonArray || endpoint.form == PayloadForm::kJsonObject;
  const Json* type = headerValue(request, "Content-Type");
  if (type == nullptr || is_json || endpoint.form == PayloadForm::kAppKeyInPath)
    return;
  constexpr const char* kForm = "application/x-www-form-urlencoded; charset=utf-8";
  if (type->get<std::string>().rfind("application/x-www-form-urlencoded", 0) == 0 && *type != kForm)
    rules.add("the form does not say that it is UTF-8", "header Content-Type", std::string("send \"") + kForm + "\"");
}

void checkAccepted(const Json& request, const Endpoint& endpoint, Rules& rules) {
  const Json& payload = request.at("payload");
  if (request.at("body_bytes") == 0 && !endpoint.payload_required && endpoint.form != PayloadForm::kAppKeyInPath)
    rules.add("the request has no parameters: the device could not build its payload", "the request body",
              "look into the device's log for the reason");
  checkContentType(request, endpoint, rules);
  if (endpoint.name == "tracking" && payload.is_object())
    checkBatch(payload, rules);
}

}  // namespace

Json brokenRules(const Json& request) {
  Rules rules;
  const Json& refusal = request.at("refusal");
  if (!refusal.is_null())
    rules.add(memberText(refusal, "error"), memberText(refusal, "where"), memberText(refusal, "fix"));
  const Endpoint* endpoint = findEndpoint(request.at("path").get_ref<const std::string&>());
  if (endpoint != nullptr && refusal.is_null())
    checkAccepted(request, *endpoint, rules);
  return std::move(rules).list();
}

}  // namespace morvik_service
