#include "apps/service/store/store_schema.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include <string>

#include "apps/service/base/refusal.h"
#include "apps/service/store/store.h"

namespace morvik_service {
namespace {

constexpr std::int64_t kSchemaVersion = 4;
// A larger write-ahead log, left by a burst, is truncated.
constexpr int kMaxIdleLogBytes = 4 * 1024 * 1024;

constexpr const char* kFirstTables = R"sql(
CREATE TABLE requests(
  id INTEGER PRIMARY KEY AUTOINCREMENT, time_ms INTEGER NOT NULL, endpoint TEXT NOT NULL, method TEXT NOT NULL,
  path TEXT NOT NULL, headers TEXT NOT NULL, body BLOB NOT NULL, body_bytes INTEGER NOT NULL, payload TEXT,
  refusal TEXT, behaviour TEXT, counted INTEGER NOT NULL, answered INTEGER NOT NULL, status INTEGER NOT NULL,
  answer BLOB NOT NULL, answer_bytes INTEGER NOT NULL, events_new INTEGER NOT NULL DEFAULT 0,
  events_again INTEGER NOT NULL DEFAULT 0, events_without_id INTEGER NOT NULL DEFAULT 0,
  impressions INTEGER NOT NULL DEFAULT 0);
CREATE TABLE events(
  number INTEGER PRIMARY KEY AUTOINCREMENT, event_id TEXT NOT NULL UNIQUE, event TEXT NOT NULL,
  arrivals INTEGER NOT NULL);
CREATE TABLE arrivals(
  event INTEGER NOT NULL REFERENCES events, request INTEGER NOT NULL REFERENCES requests, times INTEGER NOT NULL,
  PRIMARY KEY(event, request)) WITHOUT ROWID;
CREATE TABLE impressions(
  id INTEGER PRIMARY KEY AUTOINCREMENT, request INTEGER NOT NULL REFERENCES requests, impression TEXT NOT NULL);
CREATE TABLE installs(
  user_no INTEGER PRIMARY KEY AUTOINCREMENT, install_id TEXT NOT NULL UNIQUE, first_seen_ms INTEGER NOT NULL);
)sql";

// The install and the subject of a request, so that lists need not read payloads.
constexpr const char* kSecondTables = R"sql(
ALTER TABLE requests ADD COLUMN install TEXT NOT NULL DEFAULT '';
ALTER TABLE requests ADD COLUMN about TEXT NOT NULL DEFAULT '';
UPDATE requests SET install = coalesce(json_extract(payload, '$.install_id'), '')
  WHERE payload IS NOT NULL AND json_valid(payload) AND json_type(payload) = 'object';
CREATE INDEX requests_of_install ON requests(install, id);
CREATE TABLE identities(identity TEXT PRIMARY KEY, install TEXT NOT NULL) WITHOUT ROWID;
)sql";

// What is kept of deleted requests.
constexpr const char* kThirdTables = R"sql(
CREATE TABLE totals(
  requests INTEGER NOT NULL, refused INTEGER NOT NULL, delivered INTEGER NOT NULL, duplicate INTEGER NOT NULL,
  impressions INTEGER NOT NULL);
INSERT INTO totals SELECT count(*), coalesce(sum(refusal IS NOT NULL), 0), coalesce(sum(events_new), 0),
  coalesce(sum(events_again), 0), coalesce(sum(impressions), 0) FROM requests;
CREATE TABLE dropped(
  install TEXT PRIMARY KEY, requests INTEGER NOT NULL, newest INTEGER NOT NULL, newest_ms INTEGER NOT NULL,
  activities INTEGER NOT NULL, impressions INTEGER NOT NULL, re_engagement_clicks INTEGER NOT NULL,
  commerce_clicks INTEGER NOT NULL, crash_reports INTEGER NOT NULL, demographics INTEGER NOT NULL) WITHOUT ROWID;
CREATE INDEX arrivals_of_request ON arrivals(request);
CREATE INDEX impressions_of_request ON impressions(request);
)sql";

// Refusals called the text that says how to fix the request by another name.
constexpr const char* kFourthTables = R"sql(
UPDATE requests SET refusal = json_remove(json_set(refusal, '$.fix', json_extract(refusal, '$.mend')), '$.mend')
  WHERE refusal IS NOT NULL AND json_extract(refusal, '$.mend') IS NOT NULL;
)sql";

}  // namespace

void openSchema(SQLite::Database& database) {
  // Takes effect in an empty file only; a file of an earlier version adopts it when it is rebuilt.
  database.exec("PRAGMA auto_vacuum=INCREMENTAL");
  database.exec("PRAGMA journal_mode=WAL");
  database.exec("PRAGMA journal_size_limit=" + std::to_string(kMaxIdleLogBytes));
  database.exec("PRAGMA synchronous=NORMAL");
  SQLite::Transaction transaction(database);
  const std::int64_t version = database.execAndGet("PRAGMA user_version").getInt64();
  if (version > kSchemaVersion) {
    throw SetupError(
        "the store was written by a newer version of this program; it is left as it is, choose another "
        "folder with --store");
  }
  if (version < 1) {
    database.exec(kFirstTables);
    SQLite::Statement sequence(database, "INSERT INTO sqlite_sequence(name, seq) VALUES('installs', ?)");
    sequence.bind(1, kFirstUserNo - 1);
    sequence.exec();
  }
  if (version < 2)
    database.exec(kSecondTables);
  if (version < 3)
    database.exec(kThirdTables);
  if (version < 4)
    database.exec(kFourthTables);
  database.exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
  transaction.commit();
}

}  // namespace morvik_service
