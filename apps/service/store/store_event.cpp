// What the store knows of one event.
#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

#include <algorithm>
#include <string>
#include <vector>

#include "apps/service/store/store.h"
#include "apps/service/store/store_rows.h"

namespace morvik_service {
namespace {

// The columns after those of a summary.
constexpr int kFirstOwnColumn = 17;

std::string withColumns(const char* columns) {
  std::string sql(kSelectSummary);
  sql.insert(sql.find(" FROM"), columns);
  return sql;
}

// Once earlier requests with the event were deleted, none of the others was the first.
void addCounted(SQLite::Database& database, std::int64_t event_number, std::int64_t arrivals, Json& requests) {
  SQLite::Statement rows(database, withColumns(", times") +
                                       " JOIN arrivals ON arrivals.request = requests.id WHERE event = ? ORDER BY id");
  rows.bind(1, event_number);
  std::int64_t left = arrivals;
  while (rows.executeStep()) {
    Json shown = summaryRow(rows);
    shown["times"] = integerAt(rows, kFirstOwnColumn);
    left -= integerAt(rows, kFirstOwnColumn);
    shown["arrival"] = "repeated";
    requests.push_back(std::move(shown));
  }
  if (left == 0 && !requests.empty())
    requests.front()["arrival"] = "first";
}

std::int64_t occurrences(std::string_view text, std::string_view what) {
  std::int64_t count = 0;
  for (std::size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + what.size()))
    ++count;
  return count;
}

// Returns the oldest request that was looked at; 0: all were.
std::int64_t addNotCounted(SQLite::Database& database, const std::string& event_id, Json& requests) {
  constexpr int kEndpoint = 2;
  constexpr int kCounted = 8;
  const std::string member = "\"event_id\":" + jsonText(event_id);
  SQLite::Statement rows(database, withColumns(", payload") + " ORDER BY id DESC");
  std::int64_t oldest = 0;
  std::int64_t looked_at = 0;
  std::size_t bytes_read = 0;
  while (rows.executeStep()) {
    if (looked_at == kMaxSearchedRequests || bytes_read > kMaxSearchedBytes)
      return oldest;
    ++looked_at;
    oldest = integerAt(rows, 0);
    if (integerAt(rows, kCounted) != 0 || bytesAt(rows, kEndpoint) != "tracking")
      continue;
    const std::string_view payload = bytesAt(rows, kFirstOwnColumn);
    bytes_read += payload.size();
    if (const std::int64_t times = occurrences(payload, member); times > 0) {
      Json shown = summaryRow(rows);
      shown["times"] = times;
      shown["arrival"] = "not counted";
      requests.push_back(std::move(shown));
    }
  }
  return 0;
}

}  // namespace

Json Store::eventHistory(const std::string& event_id) {
  Readers::Lease reader = readers_.take();
  Json history = {{"event_id", event_id}, {"known", false}, {"arrivals", 0}, {"event", nullptr}};
  Json requests = Json::array();
  SQLite::Statement event(reader.database(), "SELECT number, arrivals, event FROM events WHERE event_id = ?");
  event.bind(1, event_id);
  if (event.executeStep()) {
    history["known"] = true;
    history["arrivals"] = integerAt(event, 1);
    if (!bytesAt(event, 2).empty())
      history["event"] = storedJson(event, 2);
    addCounted(reader.database(), integerAt(event, 0), integerAt(event, 1), requests);
  }
  const std::int64_t searched_from = addNotCounted(reader.database(), event_id, requests);
  std::sort(requests.begin(), requests.end(), [](const Json& a, const Json& b) { return a.at("id") < b.at("id"); });
  history["requests"] = std::move(requests);
  history["complete"] = searched_from == 0;
  history["searched_from"] = searched_from;
  return history;
}

}  // namespace morvik_service
