#include "apps/service/inspect.h"

#include <array>
#include <charconv>
#include <string>
#include <string_view>

#include "apps/service/endpoints.h"
#include "apps/service/refusal.h"
#include "apps/service/request_rules.h"

namespace morvik_service {
namespace {

constexpr std::string_view kPrefix = "/inspect";

// A host name without its port, "[::1]" without its brackets.
std::string_view hostOf(std::string_view authority) {
  if (!authority.empty() && authority.front() == '[') {
    const std::size_t end = authority.find(']');
    return end == std::string_view::npos ? std::string_view() : authority.substr(1, end - 1);
  }
  return authority.substr(0, authority.find(':'));
}

bool isLoopbackName(std::string_view authority) {
  const std::string_view host = hostOf(authority);
  return host == "localhost" || host == "127.0.0.1" || host == "::1";
}

bool isLoopbackOrigin(std::string_view origin) {
  const std::size_t scheme_end = origin.find("://");
  return scheme_end != std::string_view::npos && isLoopbackName(origin.substr(scheme_end + 3));
}

void requireLocalSender(const HttpRequest& request) {
  if (!request.from_loopback) {
    throw Refusal(403, "inspection is for this machine alone", "the peer's address", "connect from this machine");
  }
  const std::string* host = findHeader(request, "Host");
  if (host == nullptr || !isLoopbackName(*host)) {
    throw Refusal(403, "the request names another host", "header Host", "call localhost, 127.0.0.1 or [::1]");
  }
  const std::string* origin = findHeader(request, "Origin");
  if (origin != nullptr && !isLoopbackOrigin(*origin)) {
    throw Refusal(403, "the request comes from a page of another host", "header Origin",
                  "call from a page of this machine, or without an Origin header");
  }
}

std::int64_t readNumber(const std::string& text, const std::string& name) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number < 0) {
    throw Refusal(400, "\"" + name + "\" is no whole number from 0 on", "the query", "write " + name + "=10");
  }
  return number;
}

Page readPage(const HttpRequest& request) {
  Page page;
  for (const auto& [name, value] : request.query) {
    if (name == "after") {
      page.after = readNumber(value, name);
    } else if (name == "limit") {
      page.limit = readNumber(value, name);
    } else {
      throw Refusal(400, "the query parameter \"" + name + "\" is not known", "the query", "use after and limit");
    }
  }
  return page;
}

Json readBody(const HttpRequest& request) {
  requireKeptBody(request);
  return parseJson(request.body, kWhereBody);
}

HttpReply showRequests(const HttpRequest& request, const Inspected& inspected) {
  return {200, inspected.store.requestsJson(readPage(request))};
}

HttpReply showEvents(const HttpRequest& request, const Inspected& inspected) {
  return {200, inspected.store.eventsJson(readPage(request))};
}

HttpReply showBehaviours(const HttpRequest&, const Inspected& inspected) {
  return {200, jsonText({{"behaviours", inspected.behaviours.list()}})};
}

HttpReply addBehaviour(const HttpRequest& request, const Inspected& inspected) {
  inspected.behaviours.add(parseBehaviour(readBody(request), endpointNames()));
  return showBehaviours(request, inspected);
}

HttpReply clearBehaviours(const HttpRequest& request, const Inspected& inspected) {
  inspected.behaviours.clear();
  return showBehaviours(request, inspected);
}

HttpReply showAttribution(const HttpRequest&, const Inspected& inspected) {
  return {200, jsonText({{"attribution", inspected.attribution.chosen()}})};
}

HttpReply chooseAttribution(const HttpRequest& request, const Inspected& inspected) {
  inspected.attribution.choose(jsonText(readBody(request)));
  return showAttribution(request, inspected);
}

struct Verb {
  std::string_view method;
  std::string_view path;
  HttpReply (*act)(const HttpRequest& request, const Inspected& inspected);
};

constexpr std::array<Verb, 7> kVerbs = {{
    {"GET", "/inspect/requests", showRequests},
    {"GET", "/inspect/events", showEvents},
    {"GET", "/inspect/behaviour", showBehaviours},
    {"POST", "/inspect/behaviour", addBehaviour},
    {"DELETE", "/inspect/behaviour", clearBehaviours},
    {"GET", "/inspect/attribution", showAttribution},
    {"POST", "/inspect/attribution", chooseAttribution},
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
  requireLocalSender(request);
  for (const Verb& verb : kVerbs) {
    if (verb.method == request.method && verb.path == request.path)
      return verb.act(request, inspected);
  }
  throw noSuchVerb(request);
}

}  // namespace morvik_service
