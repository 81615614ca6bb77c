// Keeps the store within its size.
#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>

#include "apps/service/store/store.h"
#include "apps/service/store/store_counts.h"
#include "apps/service/store/store_rows.h"

namespace morvik_service {
namespace {

constexpr std::int64_t kIncremental = 2;  // SQLite's value for it

std::int64_t pragma(SQLite::Database& database, const std::string& name) {
  return database.execAndGet("PRAGMA " + name).getInt64();
}

std::int64_t fileBytes(SQLite::Database& database) {
  return pragma(database, "page_count") * pragma(database, "page_size");
}

// The used part of the file.
std::int64_t usedBytes(SQLite::Database& database) {
  return (pragma(database, "page_count") - pragma(database, "freelist_count")) * pragma(database, "page_size");
}

// False if only the newest is left, which stays: its sender will look for it.
bool dropOldestRequest(SQLite::Database& database) {
  SQLite::Statement query(database, "SELECT min(id), max(id) FROM requests");
  query.executeStep();
  const std::int64_t oldest = integerAt(query, 0);
  if (oldest == integerAt(query, 1))
    return false;
  query.reset();
  dropRequest(database, oldest);
  return true;
}

// Ids are small, but nothing else bounds their number. If the event of a deleted id arrives again, it counts as new.
bool dropOldestIds(SQLite::Database& database) {
  SQLite::Statement drop(
      database,
      "DELETE FROM events WHERE number IN (SELECT number FROM events WHERE event = '' ORDER BY number LIMIT ?)");
  drop.bind(1, kForgottenIdsAtOnce);
  return drop.exec() > 0;
}

}  // namespace

void Store::dropUntilItFits() {
  while (usedBytes(database_) > keep_bytes_ && (dropOldestRequest(database_) || dropOldestIds(database_))) {
  }
}

// A file of an earlier version cannot return pages one by one until it has been rebuilt once.
void Store::makeFileAnew() {
  if (fileBytes(database_) <= keep_bytes_ && pragma(database_, "auto_vacuum") == kIncremental)
    return;
  try {
    database_.exec("VACUUM");
    database_.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  } catch (const SQLite::Exception& error) {
    // Rebuilding needs space, which a full disk lacks; the free pages suffice.
    if (error.getErrorCode() != SQLITE_FULL && error.getErrorCode() != SQLITE_IOERR)
      throw;
  }
}

// The file keeps freed pages for later requests, but not those of a large request. The log is truncated if no reader
// needs it, else by a later commit. Readers never wait for this.
void Store::giveRoomBack() {
  const std::int64_t excess_bytes = fileBytes(database_) - keep_bytes_;
  if (excess_bytes <= kSpareBytes)
    return;
  const std::int64_t page_bytes = pragma(database_, "page_size");
  const std::int64_t free_pages = pragma(database_, "freelist_count");
  const std::int64_t pages = std::min({excess_bytes / page_bytes, kGivenBackAtOnce / page_bytes, free_pages});
  if (pages == 0)
    return;
  try {
    database_.exec("PRAGMA incremental_vacuum(" + std::to_string(pages) + ")");
    database_.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  } catch (const SQLite::Exception&) {
    // The request is stored, which matters more: the pages stay free, and the next request tries again.
  }
}

}  // namespace morvik_service
