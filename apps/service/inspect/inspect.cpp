#include "apps/service/inspect/inspect.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "apps/service/answers/endpoints.h"
#include "apps/service/base/refusal.h"
#include "apps/service/checks/request_rules.h"
#include "apps/service/inspect/broken_rules.h"
#include "apps/service/inspect/event_explanation.h"
#include "apps/service/inspect/inspect_query.h"
#include "apps/service/inspect/inspect_stream.h"
#include "apps/service/inspect/timeline.h"

namespace morvik_service {
namespace {

constexpr std::string_view kPrefix = "/inspect";

// The most that the page can show of one request; /inspect/requests returns all of it.
constexpr std::size_t kMaxShownBytes = std::size_t{256} * 1024;

void shorten(Json& shown) {
  for (const char* member : {"body", "body_base64url"}) {
    const auto text = shown.find(member);
    if (text != shown.end() && text->get_ref<const std::string&>().size() > kMaxShownBytes)
      *text = text->get<std::string>().substr(0, kMaxShownBytes);
  }
  const std::string payload = jsonText(shown.at("payload"));
  shown["payload_bytes"] = payload.size();
  if (payload.size() > kMaxShownBytes) {
    shown["payload"] = nullptr;
    shown["payload_start"] = payload.substr(0, kMaxShownBytes);
  }
}

Json readBody(const HttpRequest& request) {
  requireKeptBody(request);
  requireJson(request);
  return parseJson(request.body, kWhereBody);
}

HttpReply streamed(std::string content_type, std::shared_ptr<BodyStream> stream) {
  HttpReply reply;
  reply.content_type = std::move(content_type);
  reply.stream = std::move(stream);
  return reply;
}

HttpReply showRequests(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"after", "limit", "wait_milliseconds"});
  const Page page = readPage(request);
  const std::int64_t wait = std::min(numberParameter(request, "wait_milliseconds", 0), kMaxWaitMilliseconds);
  if (wait == 0)
    return {200, inspected.store.requestsJson(page)};
  return streamed(HttpReply().content_type,
                  makeWaitingListing(inspected, inspected.watchers.take(), page, std::chrono::milliseconds(wait)));
}

HttpReply showSummaries(const HttpRequest& request, const Inspected& inspected) {
  return {200, inspected.store.summariesJson(readSummaryQuery(request))};
}

HttpReply showRequest(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"id"});
  Json shown = inspected.store.request(numberParameter(request, "id", 0));
  if (shown.is_null())
    throw Refusal(404, "there is no request with this number", "the query", "look into /inspect/summaries");
  shown["rules"] = brokenRules(shown);
  shorten(shown);
  return {200, jsonText(shown)};
}

HttpReply showInstalls(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {});
  return {200, inspected.store.installsJson()};
}

HttpReply showTimeline(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"install"});
  const std::string install = textParameter(request, "install");
  const InstallRequests newest = inspected.store.requestsOfInstall(install);
  Json timeline = timelineOf(newest.requests);
  if (!newest.complete)
    timeline["complete"] = false;
  timeline["install"] = install;
  return {200, jsonText(timeline)};
}

// A browser that lost the stream names the last event it received.
HttpReply watch(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"after"});
  HttpRequest resumed = request;
  if (const std::string* last = findHeader(request, "Last-Event-ID"); last != nullptr && !last->empty())
    resumed.query = {{"after", *last}};
  const std::int64_t after = numberParameter(resumed, "after", inspected.store.newestRequest());
  return streamed("text/event-stream; charset=utf-8", makeEventStream(inspected, inspected.watchers.take(), after));
}

HttpReply showForms(const HttpRequest& request, const Inspected&) {
  requireKnownParameters(request, {});
  return {200, jsonText({{"endpoints", endpointNames()}, {"kinds", behaviourKinds()}})};
}

HttpReply showEvents(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"after", "limit"});
  return {200, inspected.store.eventsJson(readPage(request))};
}

HttpReply explainEvent(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"id"});
  const std::string event_id = textParameter(request, "id");
  if (event_id.empty())
    throw Refusal(400, "there is no event id", "the query", "give the event_id of an activity as id");
  if (event_id.size() > kMaxSearchBytes)
    throw Refusal(400, "the event id is longer than " + std::to_string(kMaxSearchBytes) + " bytes", "the query",
                  "give the event_id of an activity as id");
  Json history = inspected.store.eventHistory(event_id);
  history["sentence"] = eventSentence(history);
  return {200, jsonText(history)};
}

HttpReply showBehaviours(const HttpRequest&, const Inspected& inspected) {
  const std::lock_guard lock(inspected.mutex);
  return {200, jsonText({{"behaviours", inspected.behaviours.list()}})};
}

HttpReply addBehaviour(const HttpRequest& request, const Inspected& inspected) {
  Behaviour behaviour = parseBehaviour(readBody(request), endpointNames());
  {
    const std::lock_guard lock(inspected.mutex);
    inspected.behaviours.add(std::move(behaviour));
  }
  inspected.feed.publish();
  return showBehaviours(request, inspected);
}

HttpReply clearBehaviours(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"endpoint", "kind"});
  const std::string endpoint = textParameter(request, "endpoint");
  const std::string kind = textParameter(request, "kind");
  requireBehaviourNames(endpoint, kind, endpointNames());
  {
    const std::lock_guard lock(inspected.mutex);
    if (request.query.empty()) {
      inspected.behaviours.clear();
    } else {
      inspected.behaviours.remove(endpoint, kind);
    }
  }
  inspected.feed.publish();
  return showBehaviours(request, inspected);
}

HttpReply showAttribution(const HttpRequest&, const Inspected& inspected) {
  const std::lock_guard lock(inspected.mutex);
  return {200, jsonText({{"attribution", inspected.attribution.chosen()}})};
}

HttpReply chooseAttribution(const HttpRequest& request, const Inspected& inspected) {
  const std::string members = jsonText(readBody(request));
  {
    const std::lock_guard lock(inspected.mutex);
    inspected.attribution.choose(members);
  }
  return showAttribution(request, inspected);
}

Json toldLedgers(const Inspected& inspected) {
  const std::lock_guard lock(inspected.mutex);
  return inspected.ledgers.list();
}

Json toldLedger(const Inspected& inspected, const std::string& install) {
  const std::lock_guard lock(inspected.mutex);
  return inspected.ledgers.of(install);
}

// With the arrivals of one device if one is requested.
HttpReply showLedgers(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {"install"});
  const std::string* install = findParameter(request, "install");
  if (install == nullptr)
    return {200, jsonText({{"ledgers", toldLedgers(inspected)}})};
  Json ledger = toldLedger(inspected, *install);
  if (ledger.is_null())
    return {200, jsonText({{"ledgers", Json::array()}})};
  const Json arrived = inspected.store.arrivedOf(*install);
  for (Json& account : ledger.at("accounts"))
    account["arrived"] = arrived.value(account.at("kind").get<std::string>(), Json(nullptr));
  return {200, jsonText({{"ledgers", Json::array({std::move(ledger)})}})};
}

HttpReply takeLedger(const HttpRequest& request, const Inspected& inspected) {
  requireKnownParameters(request, {});
  requireKeptBody(request);
  requireJson(request);
  std::uint64_t told = 0;
  {
    const std::lock_guard lock(inspected.mutex);
    inspected.ledgers.tell(request.body);
    told = inspected.ledgers.told();
  }
  inspected.feed.publish();
  return {200, jsonText({{"told", told}})};
}

struct Verb {
  std::string_view method;
  std::string_view path;
  HttpReply (*act)(const HttpRequest& request, const Inspected& inspected);
};

constexpr std::array<Verb, 16> kVerbs = {{
    {"GET", "/inspect/requests", showRequests},
    {"GET", "/inspect/summaries", showSummaries},
    {"GET", "/inspect/request", showRequest},
    {"GET", "/inspect/installs", showInstalls},
    {"GET", "/inspect/timeline", showTimeline},
    {"GET", "/inspect/stream", watch},
    {"GET", "/inspect/forms", showForms},
    {"GET", "/inspect/events", showEvents},
    {"GET", "/inspect/event", explainEvent},
    {"GET", "/inspect/behaviour", showBehaviours},
    {"POST", "/inspect/behaviour", addBehaviour},
    {"DELETE", "/inspect/behaviour", clearBehaviours},
    {"GET", "/inspect/attribution", showAttribution},
    {"POST", "/inspect/attribution", chooseAttribution},
    {"GET", "/inspect/ledger", showLedgers},
    {"POST", "/inspect/ledger", takeLedger},
}};

Refusal noSuchVerb(const HttpRequest& request) {
  std::string all;
  std::string methods;
  for (const Verb& verb : kVerbs) {
    all += (all.empty() ? "" : ", ") + std::string(verb.method) + " " + std::string(verb.path);
    if (verb.path == request.path)
      methods += (methods.empty() ? "" : " or ") + std::string(verb.method);
  }
  if (methods.empty())
    return Refusal(404, "there is nothing at this path", "the path", "use one of: " + all);
  return Refusal(405, "this method is not known here", "the method", "use " + methods);
}

}  // namespace

bool isInspection(const HttpRequest& request) {
  const std::string_view path = request.path;
  return path == kPrefix || path.substr(0, kPrefix.size() + 1) == std::string(kPrefix) + "/";
}

HttpReply inspect(const HttpRequest& request, const Inspected& inspected) {
  for (const Verb& verb : kVerbs) {
    if (verb.method == request.method && verb.path == request.path)
      return verb.act(request, inspected);
  }
  throw noSuchVerb(request);
}

}  // namespace morvik_service
