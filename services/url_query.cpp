#include "services/url_query.h"

#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "services/json_writer.h"
#include "services/text_codes.h"

namespace morvik::services {
namespace {

/// The part between '?' and '#'; nothing without a '?'.
std::optional<std::string_view> queryPart(std::string_view url) {
  url = url.substr(0, url.find('#'));
  const size_t mark = url.find('?');
  if (mark == std::string_view::npos)
    return std::nullopt;
  return url.substr(mark + 1);
}

std::string decoded(std::string_view text) {
  std::string bytes;
  appendFormDecoded(text, bytes);
  if (isUtf8(bytes))
    return bytes;
  std::string repaired;
  appendRepairedUtf8(bytes, repaired);
  return repaired;
}

}  // namespace

kit::Value urlQuery(std::string_view url) {
  const auto query = queryPart(url);
  if (!query)
    return {};
  kit::MutableDictionary parameters;
  std::unordered_set<std::string> seen;
  for (std::string_view rest = *query; !rest.empty();) {
    const std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(pair.size() == rest.size() ? pair.size() : pair.size() + 1);
    const size_t equals = pair.find('=');
    std::string key = decoded(pair.substr(0, equals));
    if (key.empty() || seen.count(key) != 0)
      continue;
    parameters.add(key, equals == std::string_view::npos ? std::string() : decoded(pair.substr(equals + 1)));
    seen.insert(std::move(key));
  }
  return kit::Value(std::move(parameters));
}

std::string_view withoutQuery(std::string_view url) {
  return url.substr(0, url.find_first_of("?#"));
}

}  // namespace morvik::services
