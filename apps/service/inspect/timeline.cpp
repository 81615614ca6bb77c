#include "apps/service/inspect/timeline.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "apps/service/base/times.h"
#include "apps/service/store/summary.h"

namespace morvik_service {
namespace {

constexpr std::string_view kSessionGroup = "session";
constexpr std::int64_t kKoreaOffsetMilliseconds = std::int64_t{9} * 3600 * 1000;

// The times of activities and crashes are in UTC+9, with or without punctuation.
std::optional<std::int64_t> koreaTime(const std::string& text) {
  std::string digits;
  std::copy_if(text.begin(), text.end(), std::back_inserter(digits), [](char c) { return c >= '0' && c <= '9'; });
  const std::optional<std::int64_t> time = parseCompactTime(digits);
  if (!time)
    return std::nullopt;
  return *time - kKoreaOffsetMilliseconds;
}

bool byTime(const Json& a, const Json& b) {
  return a.at("time") < b.at("time");
}

// Two activities mark a session. An end without a known start is skipped; a start that is followed by another start has
// no end.
Json sessionsOf(const std::vector<Json>& borders) {
  Json sessions = Json::array();
  bool open = false;
  for (const Json& border : borders) {
    if (border.at("activity") == "start") {
      sessions.push_back({{"start", border.at("time")}, {"end", nullptr}});
      open = true;
    } else if (open) {
      sessions.back()["end"] = border.at("time");
      open = false;
    }
  }
  return sessions;
}

class Teller {
 public:
  void take(const Json& request) {
    const std::string endpoint = request.at("endpoint");
    if (endpoint == "tracking") {
      takeActivities(request);
    } else {
      takeMarks(endpoint, request);
    }
  }

  Json finish() {
    for (std::vector<Json>* list : {&borders_, &activities_, &marks_}) {
      // The requests are newest first; events of the same second keep their order.
      std::reverse(list->begin(), list->end());
      std::stable_sort(list->begin(), list->end(), byTime);
    }
    return {
        {"sessions", sessionsOf(borders_)}, {"activities", activities_}, {"marks", marks_}, {"complete", complete_}};
  }

 private:
  void takeActivities(const Json& request) {
    const Json& payload = request.at("payload");
    const auto list = payload.find("activity_info");
    if (list == payload.end() || !list->is_array())
      return;
    std::for_each(list->rbegin(), list->rend(), [&](const Json& entry) { takeActivity(entry, request.at("id")); });
  }

  void takeActivity(const Json& entry, const Json& request_id) {
    const std::optional<std::int64_t> time = koreaTime(memberText(entry, "created_at"));
    const std::string id = memberText(entry, "event_id");
    if (!time || (!id.empty() && seen_.count(id) > 0))
      return;
    if (borders_.size() + activities_.size() >= kMaxTimelineActivities) {
      complete_ = false;
      return;
    }
    seen_.insert(id);
    const std::string group = memberText(entry, "group");
    const std::string activity = memberText(entry, "activity");
    const bool is_border = group == kSessionGroup && (activity == "start" || activity == "end");
    (is_border ? borders_ : activities_)
        .push_back({{"time", *time},
                    {"group", group},
                    {"activity", activity},
                    {"param", memberText(entry, "param")},
                    {"event_id", id},
                    {"request", request_id}});
  }

  void mark(const Json& request, const char* kind, const std::string& text, const Json& time) {
    marks_.push_back({{"time", time}, {"kind", kind}, {"text", text}, {"request", request.at("id")}});
  }

  void takeMarks(const std::string& endpoint, const Json& request) {
    struct MarkKind {
      std::string_view endpoint;
      const char* name;
    };
    static constexpr std::array<MarkKind, 7> kMarkKinds = {{{"conversion", "attribution"},
                                                            {"thirdparty-conversion", "attribution"},
                                                            {"iad-attribution", "attribution"},
                                                            {"reengagement-conversion", "deep link"},
                                                            {"commerce-conversion", "commerce click"},
                                                            {"demographics", "demographics"},
                                                            {"erasure", "erasure"}}};
    if (endpoint == "crash") {
      takeCrashes(request);
      return;
    }
    const auto kind = std::find_if(kMarkKinds.begin(), kMarkKinds.end(),
                                   [&](const MarkKind& each) { return each.endpoint == endpoint; });
    if (kind != kMarkKinds.end())
      mark(request, kind->name, aboutPayload(endpoint, request.at("payload")), request.at("time_ms"));
  }

  // Reports are sent again with later ones until an answer accepts them.
  void takeCrashes(const Json& request) {
    if (!request.at("payload").is_array())
      return;
    for (const Json& report : request.at("payload")) {
      const std::string told = memberText(report, "local_kst_time");
      if (!seen_.insert("crash " + told + memberText(report, "exception_reason")).second)
        continue;
      const std::optional<std::int64_t> time = koreaTime(told);
      mark(request, "crash", memberText(report, "exception_reason"), time ? Json(*time) : request.at("time_ms"));
    }
  }

  std::unordered_set<std::string> seen_;
  std::vector<Json> borders_;
  std::vector<Json> activities_;
  std::vector<Json> marks_;
  bool complete_ = true;
};

}  // namespace

Json timelineOf(const std::vector<Json>& requests) {
  Teller teller;
  for (const Json& request : requests)
    teller.take(request);
  return teller.finish();
}

}  // namespace morvik_service
