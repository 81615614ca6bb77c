// Reads the query parameters of an inspection. All throw Refusal 400 that names the parameter.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "apps/service/http/http_message.h"
#include "apps/service/store/store.h"

namespace morvik_service {

/// A longer search text is refused.
inline constexpr std::size_t kMaxSearchBytes = 200;
/// The longest wait of a request for something that has not arrived yet.
inline constexpr std::int64_t kMaxWaitMilliseconds = 30000;

/// Refuses parameters that are not among `known`, and repeated ones.
void requireKnownParameters(const HttpRequest& request, std::initializer_list<std::string_view> known);

/// The value of a parameter, or nullptr.
const std::string* findParameter(const HttpRequest& request, std::string_view name);

/// A whole number of 0 or more; `otherwise` if the parameter is missing.
std::int64_t numberParameter(const HttpRequest& request, std::string_view name, std::int64_t otherwise);
std::string textParameter(const HttpRequest& request, std::string_view name);

/// after, limit.
Page readPage(const HttpRequest& request);
/// before, limit, search, install, endpoint, refused=1.
SummaryQuery readSummaryQuery(const HttpRequest& request);

}  // namespace morvik_service
