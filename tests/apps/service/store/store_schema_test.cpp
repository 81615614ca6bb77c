#include "apps/service/store/store_schema.h"

#include <gtest/gtest.h>

#include "apps/service/store/store.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;

// The tables as the first version wrote them.
constexpr const char* kOldStore = R"sql(
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
INSERT INTO requests(time_ms, endpoint, method, path, headers, body, body_bytes, payload, counted, answered, status,
  answer, answer_bytes) VALUES
  (1, 'tracking', 'POST', '/v1/tracking', '[]', '', 0, '{"install_id":"old"}', 1, 1, 200, '{}', 2),
  (2, 'crash', 'POST', '/v1/crash', '[]', '', 0, '[7]', 1, 1, 200, '{}', 2),
  (3, '', 'GET', '/nothing', '[]', '', 0, NULL, 0, 1, 404, '{}', 2);
UPDATE requests SET events_new = 2, events_again = 1, impressions = 4 WHERE id = 1;
UPDATE requests SET refusal = '{"error":"nothing here","where":"the path","mend":"use another"}' WHERE id = 3;
PRAGMA user_version=1;
)sql";

TEST(StoreSchema, AStoreOfTheFirstVersionKeepsItsRequestsAndLearnsWhoseTheyAre) {
  const TemporaryFolder folder;
  SQLite::Database(folder.path("service.sqlite3"), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(kOldStore);
  Store store(folder.path());
  EXPECT_EQ(3, store.newestRequest());
  EXPECT_EQ(3U, Json::parse(store.requestsJson({}))["requests"].size());
  const Json listed = Json::parse(store.summariesJson({.install = "old"}));
  ASSERT_EQ(1U, listed["requests"].size());
  EXPECT_EQ(1, listed["requests"][0]["id"]);
  const Totals totals = store.totals();
  EXPECT_EQ(3, totals.requests);
  EXPECT_EQ(1, totals.refused);
  EXPECT_EQ(2, totals.delivered);
  EXPECT_EQ(1, totals.duplicate);
  EXPECT_EQ(4, totals.impressions);
}

TEST(StoreSchema, ARefusalOfAnEarlierVersionStillSaysHowToFixTheRequest) {
  const TemporaryFolder folder;
  SQLite::Database(folder.path("service.sqlite3"), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(kOldStore);
  Store store(folder.path());
  const Json requests = Json::parse(store.requestsJson({}))["requests"];
  EXPECT_EQ(Json({{"error", "nothing here"}, {"where", "the path"}, {"fix", "use another"}}),
            requests.at(2)["refusal"]);
  EXPECT_TRUE(requests.at(0)["refusal"].is_null());
}

}  // namespace
}  // namespace morvik_service
