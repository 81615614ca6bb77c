#include "apps/service/inspect/inspect_query.h"

#include <algorithm>
#include <charconv>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereQuery = "the query";

std::int64_t readNumber(const std::string& text, std::string_view name) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number < 0) {
    throw Refusal(400, "\"" + std::string(name) + "\" is not a whole number of 0 or more", kWhereQuery,
                  "write " + std::string(name) + "=10");
  }
  return number;
}

std::string listed(std::initializer_list<std::string_view> names) {
  std::string text;
  std::size_t left = names.size();
  for (const std::string_view name : names) {
    --left;
    text += std::string(name) + (left > 1 ? ", " : left == 1 ? " and " : "");
  }
  return text;
}

}  // namespace

void requireKnownParameters(const HttpRequest& request, std::initializer_list<std::string_view> known) {
  for (const auto& [name, value] : request.query) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      throw Refusal(400, "the query parameter \"" + name + "\" is not known", kWhereQuery,
                    known.size() == 0 ? "use none here" : "use " + listed(known));
    }
    const auto same = [&name = name](const auto& each) { return each.first == name; };
    if (std::count_if(request.query.begin(), request.query.end(), same) > 1)
      throw Refusal(400, "the query parameter \"" + name + "\" stands twice", kWhereQuery, "give it once");
  }
}

const std::string* findParameter(const HttpRequest& request, std::string_view name) {
  const auto found =
      std::find_if(request.query.begin(), request.query.end(), [&](const auto& each) { return each.first == name; });
  return found == request.query.end() ? nullptr : &found->second;
}

std::int64_t numberParameter(const HttpRequest& request, std::string_view name, std::int64_t otherwise) {
  const std::string* text = findParameter(request, name);
  return text == nullptr ? otherwise : readNumber(*text, name);
}

std::string textParameter(const HttpRequest& request, std::string_view name) {
  const std::string* text = findParameter(request, name);
  return text == nullptr ? std::string() : *text;
}

Page readPage(const HttpRequest& request) {
  Page page;
  page.after = numberParameter(request, "after", page.after);
  page.limit = numberParameter(request, "limit", page.limit);
  return page;
}

SummaryQuery readSummaryQuery(const HttpRequest& request) {
  requireKnownParameters(request, {"before", "limit", "search", "install", "endpoint", "refused"});
  SummaryQuery query;
  query.before = numberParameter(request, "before", query.before);
  query.limit = std::min(numberParameter(request, "limit", query.limit), kMaxSummaries);
  query.search = textParameter(request, "search");
  if (query.search.size() > kMaxSearchBytes) {
    throw Refusal(400, "the search text is longer than " + std::to_string(kMaxSearchBytes) + " bytes", kWhereQuery,
                  "search for less");
  }
  query.install = textParameter(request, "install");
  query.endpoint = textParameter(request, "endpoint");
  query.refused_only = numberParameter(request, "refused", 0) != 0;
  return query;
}

}  // namespace morvik_service
