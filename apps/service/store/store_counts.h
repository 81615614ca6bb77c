// What the store counted, and goes on to know when the requests behind it are gone.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "apps/service/store/store.h"

namespace morvik_service {

/// What a counted request brought of one kind of a device's ledger.
struct ArrivedKind {
  std::string_view kind;    ///< as a ledger calls it
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

/// Lists of columns in the order of kArrived. Of a request that was not counted all are 0.
std::string arrivedColumns();
std::string droppedColumns();
std::string sumsOfArrived();

Totals readTotals(SQLite::Database& database);

/// Drops the request and what it brought, and keeps what of it counts. Within a transaction.
void dropRequest(SQLite::Database& database, std::int64_t id);

}  // namespace morvik_service
