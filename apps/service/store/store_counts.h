// What the store counted and still knows after the requests were deleted.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "apps/service/store/store.h"

namespace morvik_service {

/// What a counted request contained of one kind of a device's ledger.
struct ArrivedKind {
  std::string_view kind;    ///< its name in a ledger
  std::string_view column;  ///< of the table of dropped requests
  std::string_view sql;     ///< of a row of the table of requests
};

inline constexpr std::array<ArrivedKind, 6> kArrived = {{
    {"activities", "activities", "events_new"},
    {"impressions", "impressions", "impressions"},
    {"re-engagement clicks", "re_engagement_clicks", "endpoint = 'reengagement-conversion'"},
    {"commerce clicks", "commerce_clicks",
     "CASE endpoint WHEN 'commerce-conversion' THEN json_array_length(payload) ELSE 0 END"},
    {"crash reports", "crash_reports", "CASE endpoint WHEN 'crash' THEN json_array_length(payload) ELSE 0 END"},
    {"demographics", "demographics",
     "CASE endpoint WHEN 'demographics' THEN coalesce(json_array_length(payload, '$.user_demo_info'), 0) ELSE 0 END"},
}};

/// Lists of columns in the order of kArrived. All are 0 for a request that was not counted.
std::string arrivedColumns();
std::string droppedColumns();
std::string sumsOfArrived();

Totals readTotals(SQLite::Database& database);

/// Deletes the request and its content, and keeps its counts. Within a transaction.
void dropRequest(SQLite::Database& database, std::int64_t id);

}  // namespace morvik_service
