// How the store keeps to its size.
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

constexpr std::int64_t kIncremental = 2;  // what SQLite calls it

std::int64_t pragma(SQLite::Database& database, const std::string& name) {
  return database.execAndGet("PRAGMA " + name).getInt64();
}

std::int64_t fileBytes(SQLite::Database& database) {
  return pragma(database, "page_count") * pragma(database, "page_size");
}

// Of the file, what holds something.
std::int64_t usedBytes(SQLite::Database& database) {
  return (pragma(database, "page_count") - pragma(database, "freelist_count")) * pragma(database, "page_size");
}

// False when there is none but the newest, which stays: whoever just sent it looks for it.
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

// Ids are small, but nothing bounds their number. One that went counts as new should its event ever arrive again.
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
    // It needs room of its own, which a full disk has not; the free pages will do.
    if (error.getErrorCode() != SQLITE_FULL && error.getErrorCode() != SQLITE_IOERR)
      throw;
  }
}

// The file keeps the pages that became free for what comes next, but not those of a large request. The log is cut when
// no reader needs it; else a later commit does so. Readers wait for none of this.
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
    // The request is kept, and that is what counts: the pages stay free, the next request tries again.
  }
}

}  // namespace morvik_service
