#include "apps/service/store/store_counts.h"

#include <functional>

#include "apps/service/store/store_rows.h"

namespace morvik_service {
namespace {

std::string listed(const std::function<std::string(const ArrivedKind&)>& of) {
  std::string columns;
  for (const ArrivedKind& each : kArrived)
    columns += (columns.empty() ? "" : ", ") + of(each);
  return columns;
}

// For an install with deleted requests.
std::string grownColumns() {
  return listed([](const ArrivedKind& each) {
    const std::string column(each.column);
    return column + " = " + column + " + excluded." + column;
  });
}

void runWith(SQLite::Database& database, const std::string& sql, std::int64_t id) {
  SQLite::Statement statement(database, sql);
  statement.bind(1, id);
  statement.exec();
}

}  // namespace

std::string arrivedColumns() {
  return listed([](const ArrivedKind& each) {
    return "CASE WHEN counted THEN " + std::string(each.sql) + " ELSE 0 END AS " + std::string(each.column);
  });
}

std::string droppedColumns() {
  return listed([](const ArrivedKind& each) { return std::string(each.column); });
}

std::string sumsOfArrived() {
  return listed([](const ArrivedKind& each) { return "coalesce(sum(" + std::string(each.column) + "), 0)"; });
}

Totals readTotals(SQLite::Database& database) {
  SQLite::Statement totals(database, "SELECT requests, refused, delivered, duplicate, impressions FROM totals");
  totals.executeStep();
  return {integerAt(totals, 0), integerAt(totals, 1), integerAt(totals, 2), integerAt(totals, 3), integerAt(totals, 4)};
}

void dropRequest(SQLite::Database& database, std::int64_t id) {
  runWith(database,
          "INSERT INTO dropped(install, requests, newest, newest_ms, " + droppedColumns() +
              ") SELECT install, 1, id, time_ms, " + arrivedColumns() +
              " FROM requests WHERE id = ?"
              " ON CONFLICT(install) DO UPDATE SET requests = requests + 1, newest = excluded.newest,"
              " newest_ms = excluded.newest_ms, " +
              grownColumns(),
          id);
  // The id of an event is kept even if no remaining request has it: another arrival is then a repetition.
  runWith(database,
          "UPDATE events SET event = '' WHERE number IN (SELECT event FROM arrivals AS gone WHERE request = ?1 AND"
          " NOT EXISTS (SELECT 1 FROM arrivals WHERE event = gone.event AND request > ?1))",
          id);
  runWith(database, "DELETE FROM arrivals WHERE request = ?", id);
  runWith(database, "DELETE FROM impressions WHERE request = ?", id);
  runWith(database, "DELETE FROM requests WHERE id = ?", id);
}

}  // namespace morvik_service
