#include "apps/service/service.h"

#include <utility>

#include "apps/service/base/printable.h"
#include "apps/service/base/refusal.h"
#include "apps/service/checks/request_rules.h"
#include "apps/service/inspect/inspect.h"
#include "apps/service/inspect/page.h"

namespace morvik_service {
namespace {

Json describeRefusal(const Refusal& refusal) {
  return {{"error", refusal.what()}, {"where", refusal.where()}, {"fix", refusal.fix()}};
}

HttpReply refusalReply(const Refusal& refusal) {
  return {refusal.status(), jsonText(describeRefusal(refusal))};
}

Refusal storeFailed(const SQLite::Exception& error) {
  return Refusal(503, std::string("the store cannot take this in: ") + error.what(), "the service's disk",
                 "free some space or fix the folder given with --store, then send again");
}

Refusal noSuchPath() {
  std::string paths;
  for (const Endpoint& endpoint : endpoints())
    paths += std::string(endpoint.method) + " " + std::string(endpoint.path) + ", ";
  return Refusal(404, "there is nothing at this path", "the path", "use one of: " + paths + "GET /inspect/requests");
}

Refusal noSuchMethod(const Endpoint& endpoint) {
  return Refusal(405, "this method is not known here", "the method", "use " + std::string(endpoint.method));
}

void refuse(RequestRecord& record, const Refusal& refusal) {
  record.refusal = describeRefusal(refusal);
  record.reply = refusalReply(refusal);
}

bool isForBrowsers(const HttpRequest& request) {
  return isInspection(request) || isPage(request);
}

// Nobody reads a body sent to an unknown path; its length is enough.
HttpRequest withoutBody(const HttpRequest& request) {
  HttpRequest head{.method = request.method, .path = request.path, .query = request.query, .headers = request.headers};
  head.body_bytes = request.body_bytes;
  head.body_too_large = request.body_too_large;
  head.from_loopback = request.from_loopback;
  return head;
}

// Checks the payload. False: it is refused, and the endpoint has its own answer for that, which is in the record.
bool acceptPayload(const Endpoint& endpoint, const Keys& keys, RequestRecord& record) {
  try {
    checkPayload(endpoint, *record.payload, keys);
    return true;
  } catch (const Refusal& refusal) {
    if (endpoint.answer_refused == nullptr)
      throw;
    refuse(record, refusal);
    record.reply = {200, jsonText(endpoint.answer_refused(refusal))};
    return false;
  }
}

std::string countsText(const Counts& counts) {
  std::string text = "; " + std::to_string(counts.events_new) + " new events, " + std::to_string(counts.events_again) +
                     " seen before, " + std::to_string(counts.impressions) + " impressions";
  if (counts.events_without_id > 0)
    text += ", " + std::to_string(counts.events_without_id) + " events without id";
  return text;
}

// Method, path and the reason of a refusal may contain untrusted text; a log line stays one line.
std::string describe(const RequestRecord& record, const Counts& counts, std::int64_t id) {
  std::string line = isoTime(record.time_milliseconds) + " #" + std::to_string(id) + " " +
                     printableWord(record.request.method) + " " + printableWord(record.request.path) + " " +
                     std::to_string(record.request.body_bytes) + " bytes -> ";
  line += record.reply.close_without_answer ? "connection closed" : std::to_string(record.reply.status);
  if (record.counted && record.counting == Counting::kEvents)
    line += countsText(counts);
  if (record.refusal)
    line += "; refused: " + printable(record.refusal->at("error").get_ref<const std::string&>());
  if (record.behaviour)
    line += "; asked to misbehave: " + record.behaviour->at("kind").get<std::string>();
  return line;
}

}  // namespace

Service::Service(Keys keys, AnswerData data, Store& store, Clock clock, LineSink write_line, AdminRules rules)
    : keys_(std::move(keys)),
      clock_(std::move(clock)),
      write_line_(std::move(write_line)),
      rules_(std::move(rules)),
      secrets_(keys_),
      store_(store),
      data_(std::move(data)),
      attribution_(data_.attribution),
      ledgers_(clock_) {}

HttpReply Service::handle(const HttpRequest& request) {
  HttpReply reply = answer(request);
  if (isForBrowsers(request)) {
    for (auto& header : adminHeaders())
      reply.headers.push_back(std::move(header));
  }
  return reply;
}

HttpReply Service::answer(const HttpRequest& request) {
  try {
    return isForBrowsers(request) ? answerAdmin(request) : takeIn(request);
  } catch (const Refusal& refusal) {
    return refusalReply(refusal);
  } catch (const SQLite::Exception& error) {
    writeLine(isoTime(clock_()) + " the store failed: " + error.what());
    return refusalReply(storeFailed(error));
  }
}

HttpReply Service::takeIn(const HttpRequest& request) {
  const std::lock_guard lock(taking_in_);
  // Before anything is stored, or a behaviour used up.
  requireOwnSite(request);
  RequestRecord record;
  record.time_milliseconds = clock_();
  const Endpoint* endpoint = findEndpoint(request.path);
  record.request = endpoint == nullptr ? withoutBody(request) : request;
  if (endpoint != nullptr && request.method == endpoint->method) {
    handleEndpoint(*endpoint, record);
  } else {
    refuse(record, endpoint == nullptr ? noSuchPath() : noSuchMethod(*endpoint));
  }
  HttpReply reply = record.reply;
  remember(record);
  return reply;
}

HttpReply Service::answerAdmin(const HttpRequest& request) {
  requireAdmin(request, rules_);
  return isPage(request)
             ? page(request)
             : inspect(request, {store_, behaviours_, attribution_, ledgers_, feed_, choice_mutex_, watchers_, rules_});
}

void Service::handleEndpoint(const Endpoint& endpoint, RequestRecord& record) {
  record.endpoint = endpoint.name;
  const std::optional<Behaviour> behaviour = takeBehaviour(endpoint);
  if (behaviour)
    record.behaviour = describeBehaviour(*behaviour);
  const bool may_count = !behaviour || behaviour->count_events;
  try {
    answerUsually(endpoint, may_count, record);
  } catch (const Refusal& refusal) {
    record.counted = false;
    refuse(record, refusal);
  }
  if (behaviour)
    record.reply = misbehave(*behaviour, std::move(record.reply));
}

void Service::answerUsually(const Endpoint& endpoint, bool may_count, RequestRecord& record) {
  record.payload = readPayload(record.request, endpoint.form, keys_, endpoint.key);
  if (!record.payload && endpoint.payload_required)
    throw Refusal(400, "the body is empty", kWhereBody, howToSend(endpoint.form));
  if (record.payload && !acceptPayload(endpoint, keys_, record))
    return;
  takeAttribution();
  record.counting = endpoint.counting;
  record.counted = endpoint.counting != Counting::kNothing && may_count;
  record.reply = {
      200, jsonText(answerOf(endpoint, {record.time_milliseconds, record.payload, record.counted, data_, store_}))};
}

void Service::remember(RequestRecord& record) {
  secrets_.hide(record);
  Counts counts;
  const std::int64_t id = store_.add(record, counts);
  feed_.publish();
  writeLine(describe(record, counts, id));
}

std::optional<Behaviour> Service::takeBehaviour(const Endpoint& endpoint) {
  const std::lock_guard lock(choice_mutex_);
  return behaviours_.take(endpoint.name);
}

void Service::takeAttribution() {
  const std::lock_guard lock(choice_mutex_);
  data_.attribution = attribution_;
}

void Service::writeLine(const std::string& line) {
  const std::lock_guard lock(line_mutex_);
  write_line_(line);
}

}  // namespace morvik_service
