// The store's lists for people: newest first, short entries, searched in bounded steps.
#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/VariadicBind.h>

#include <sstream>

#include "apps/service/base/ascii.h"
#include "apps/service/base/times.h"
#include "apps/service/store/store.h"
#include "apps/service/store/store_counts.h"
#include "apps/service/store/store_rows.h"

namespace morvik_service {
namespace {

std::vector<std::string> wordsOf(const std::string& search) {
  std::istringstream stream(lowered(search));
  std::vector<std::string> words;
  for (std::string word; stream >> word;)
    words.push_back(word);
  return words;
}

// The columns that a search reads, after those of a summary.
constexpr int kPayloadColumn = 17;
constexpr int kBodyColumn = 18;

std::string_view searchedBody(const SQLite::Statement& row) {
  // The sealed bytes are searched only if nothing could be decoded.
  return row.isColumnNull(kPayloadColumn) ? bytesAt(row, kBodyColumn) : bytesAt(row, kPayloadColumn);
}

bool holdsAll(const SQLite::Statement& row, const std::vector<std::string>& words) {
  constexpr int kEndpoint = 2, kMethod = 3, kPath = 4, kRefusal = 6, kBehaviour = 7, kInstall = 15;
  for (const std::string& word : words) {
    bool found = false;
    for (const int column : {kEndpoint, kMethod, kPath, kRefusal, kBehaviour, kInstall})
      found = found || containsWithoutCase(bytesAt(row, column), word);
    if (!found && !containsWithoutCase(searchedBody(row), word))
      return false;
  }
  return true;
}

bool isWanted(const SQLite::Statement& row, const SummaryQuery& query, const std::vector<std::string>& words) {
  constexpr int kEndpoint = 2, kRefusal = 6;
  if (!query.endpoint.empty() && bytesAt(row, kEndpoint) != query.endpoint)
    return false;
  if (query.refused_only && row.isColumnNull(kRefusal))
    return false;
  return words.empty() || holdsAll(row, words);
}

std::string summarySql(const SummaryQuery& query) {
  std::string sql(kSelectSummary);
  sql.insert(sql.find(" FROM"), ", payload, body");
  return sql + " WHERE id < ?" + (query.install.empty() ? "" : " AND install = ?") + " ORDER BY id DESC";
}

}  // namespace

std::string Store::summariesJson(const SummaryQuery& query) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement rows(reader.database(), summarySql(query));
  rows.bind(1, query.before);
  if (!query.install.empty())
    rows.bind(2, query.install);
  const std::vector<std::string> words = wordsOf(query.search);
  const std::int64_t limit = std::min(query.limit, kMaxSummaries);
  Json found = Json::array();
  std::int64_t next_before = query.before;
  std::int64_t looked_at = 0;
  std::size_t bytes_read = 0;
  bool complete = true;
  while (rows.executeStep()) {
    if (static_cast<std::int64_t>(found.size()) == limit || looked_at == query.most_searched ||
        bytes_read > kMaxSearchedBytes) {
      complete = false;
      break;
    }
    ++looked_at;
    next_before = integerAt(rows, 0);
    if (!words.empty())
      bytes_read += searchedBody(rows).size();
    if (isWanted(rows, query, words))
      found.push_back(summaryRow(rows));
  }
  return jsonText(
      {{"requests", std::move(found)}, {"next_before", complete ? 0 : next_before}, {"complete", complete}});
}

std::vector<Json> Store::summariesAfter(std::int64_t after, std::int64_t limit) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement rows(reader.database(), std::string(kSelectSummary) + " WHERE id > ? ORDER BY id LIMIT ?");
  SQLite::bind(rows, after, limit);
  std::vector<Json> summaries;
  while (rows.executeStep())
    summaries.push_back(summaryRow(rows));
  return summaries;
}

std::int64_t Store::newestRequest() {
  Readers::Lease reader = readers_.take();
  return reader.database().execAndGet("SELECT coalesce(max(id), 0) FROM requests").getInt64();
}

Json Store::request(std::int64_t id) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement row(reader.database(), std::string(kSelectRequest) + " WHERE id = ?");
  row.bind(1, id);
  return row.executeStep() ? requestRow(row) : Json(nullptr);
}

InstallRequests Store::requestsOfInstall(const std::string& install, std::size_t limit_bytes) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement rows(
      reader.database(),
      "SELECT id, time_ms, endpoint, payload, counted FROM requests WHERE install = ? AND payload IS NOT "
      "NULL ORDER BY id DESC LIMIT ?");
  SQLite::bind(rows, install, kMaxTimelineRequests + 1);
  InstallRequests found;
  std::size_t bytes_read = 0;
  while (rows.executeStep()) {
    const auto count = static_cast<std::int64_t>(found.requests.size());
    if (count == kMaxTimelineRequests || bytes_read > limit_bytes) {
      found.complete = false;
      break;
    }
    bytes_read += bytesAt(rows, 3).size();
    found.requests.push_back({{"id", integerAt(rows, 0)},
                              {"time_ms", integerAt(rows, 1)},
                              {"endpoint", bytesAt(rows, 2)},
                              {"payload", storedJson(rows, 3)},
                              {"counted", integerAt(rows, 4) != 0}});
  }
  return found;
}

std::string Store::installsJson(std::int64_t limit) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement rows(
      reader.database(),
      "SELECT install, requests, last, coalesce((SELECT time_ms FROM requests WHERE id = last), dropped_ms) FROM"
      " (SELECT install, sum(requests) AS requests, max(newest) AS last, max(newest_ms) AS dropped_ms FROM"
      " (SELECT install, count(*) AS requests, max(id) AS newest, 0 AS newest_ms FROM requests"
      " WHERE install > '' GROUP BY install"
      " UNION ALL SELECT install, requests, newest, newest_ms FROM dropped WHERE install > '')"
      " GROUP BY install) ORDER BY last DESC LIMIT ?");
  rows.bind(1, limit + 1);
  Json installs = Json::array();
  bool complete = true;
  while (rows.executeStep()) {
    if (static_cast<std::int64_t>(installs.size()) == limit) {
      complete = false;
      break;
    }
    installs.push_back({{"install", bytesAt(rows, 0)},
                        {"requests", integerAt(rows, 1)},
                        {"newest", integerAt(rows, 2)},
                        {"last_time", isoTime(integerAt(rows, 3))}});
  }
  return jsonText({{"installs", std::move(installs)}, {"complete", complete}});
}

Json Store::arrivedOf(const std::string& install) {
  Readers::Lease reader = readers_.take();
  SQLite::Statement sums(reader.database(), "SELECT " + sumsOfArrived() + " FROM (SELECT " + arrivedColumns() +
                                                " FROM requests WHERE install = ?1 UNION ALL SELECT " +
                                                droppedColumns() + " FROM dropped WHERE install = ?1)");
  sums.bind(1, install);
  sums.executeStep();
  Json arrived = Json::object();
  for (std::size_t i = 0; i < kArrived.size(); ++i)
    arrived[std::string(kArrived[i].kind)] = integerAt(sums, static_cast<int>(i));
  return arrived;
}

Totals Store::totals() {
  Readers::Lease reader = readers_.take();
  return readTotals(reader.database());
}

}  // namespace morvik_service
