// Summarizes a request in one line, and tells which install sent it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "apps/service/base/json.h"

namespace morvik_service {

/// A longer line is cut.
inline constexpr std::size_t kMaxSummaryBytes = 160;

/// "shop/view, shop/purchase and 3 more", "install", "exception_reason of a crash", ...; "" if there is nothing to
/// say. `payload` may be of any shape. The text is cut at a character's border.
std::string aboutPayload(std::string_view endpoint, const Json& payload);

/// The install that a payload names, or "".
std::string installOf(const Json& payload);

/// The other identifiers of a payload: its advertising identifier and its hashed persistent id, as "idfa:..." and
/// "puid:..."; without those that are empty or all zeros.
std::vector<std::string> identitiesOf(const Json& payload);

}  // namespace morvik_service
