// How a stored request is shown.
#pragma once

#include <SQLiteCpp/Statement.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "apps/service/base/json.h"

namespace morvik_service {

/// A column of the current row of `row`.
std::int64_t integerAt(const SQLite::Statement& row, int column);
/// Text or blob as stored; "" for NULL. Valid as long as the row.
std::string_view bytesAt(const SQLite::Statement& row, int column);

/// The columns that `requestRow` reads, up to and with the table's name.
extern const std::string_view kSelectRequest;

/// A complete stored request.
Json requestRow(const SQLite::Statement& row);

/// The columns that `summaryRow` reads.
extern const std::string_view kSelectSummary;

/// A stored request as one line of a list: neither headers nor bodies nor payload.
Json summaryRow(const SQLite::Statement& row);

/// The JSON of a column, null for NULL.
Json storedJson(const SQLite::Statement& row, int column);

/// Sets "body" in `shown`, or "body_base64url" if the bytes are not plain ASCII.
void showBody(Json& shown, std::string_view bytes);

}  // namespace morvik_service
