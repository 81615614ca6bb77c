// How a stored request is shown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "apps/service/base/json.h"
#include "apps/service/store/database.h"

namespace morvik_service {

/// The columns that `requestRow` reads, up to and with the table's name.
extern const std::string_view kSelectRequest;

/// A stored request whole.
Json requestRow(const Statement& row);

/// The columns that `summaryRow` reads.
extern const std::string_view kSelectSummary;

/// A stored request as one line of a list: neither headers nor bodies nor payload.
Json summaryRow(const Statement& row);

/// The JSON of a column, null for NULL.
Json storedJson(const Statement& row, int column);

/// Sets "body" in `shown`, or "body_base64url" when the bytes are no plain ASCII.
void showBody(Json& shown, std::string_view bytes);

}  // namespace morvik_service
