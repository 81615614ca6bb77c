// How the store keeps to its size.
#include "apps/service/store.h"
#include "apps/service/store_counts.h"

namespace morvik_service {
namespace {

std::int64_t pragma(Database& database, const std::string& name) {
  Statement query(database, "PRAGMA " + name);
  query.step();
  return query.integer(0);
}

// Of the file, what holds something.
std::int64_t usedBytes(Database& database) {
  return (pragma(database, "page_count") - pragma(database, "freelist_count")) * pragma(database, "page_size");
}

// False when there is none but the newest, which stays: whoever just sent it looks for it.
bool dropOldestRequest(Database& database) {
  Statement query(database, "SELECT min(id), max(id) FROM requests");
  query.step();
  const std::int64_t oldest = query.integer(0);
  if (oldest == query.integer(1))
    return false;
  query.reset();
  dropRequest(database, oldest);
  return true;
}

// Ids are small, but nothing bounds their number. One that went counts as new should its event ever arrive again.
bool dropOldestIds(Database& database) {
  Statement(database,
            "DELETE FROM events WHERE number IN (SELECT number FROM events WHERE event = '' ORDER BY number LIMIT ?)")
      .bind(kForgottenIdsAtOnce)
      .run();
  return database.changedRows() > 0;
}

}  // namespace

void Store::dropUntilItFits() {
  while (usedBytes(database_) > keep_bytes_ && (dropOldestRequest(database_) || dropOldestIds(database_))) {
  }
}

// The file keeps the pages that became free, for what comes next. One that was larger before is made anew once.
void Store::giveRoomBack() {
  if (pragma(database_, "page_count") * pragma(database_, "page_size") <= keep_bytes_)
    return;
  try {
    database_.execute("VACUUM");
    database_.execute("PRAGMA wal_checkpoint(TRUNCATE)");
  } catch (const DatabaseError& error) {
    // It needs room of its own, which a full disk has not; the free pages will do.
    if (error.resultCode() != SQLITE_FULL && error.resultCode() != SQLITE_IOERR)
      throw;
  }
}

}  // namespace morvik_service
