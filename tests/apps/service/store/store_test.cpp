#include "apps/service/store/store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "apps/service/base/files.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::impression;
using test::TemporaryFolder;
using test::trackingPayload;

RequestRecord batch(const std::vector<std::string>& event_ids) {
  RequestRecord record;
  record.time_milliseconds = 1709251199999;
  record.endpoint = "tracking";
  record.request = test::post("/v1/tracking", "k=a&j=b");
  record.payload = trackingPayload(event_ids);
  record.counting = Counting::kEvents;
  record.counted = true;
  record.reply = {200, "{\"Result\":true}"};
  return record;
}

class StoreTest : public testing::Test {
 protected:
  std::int64_t add(const RequestRecord& record) { return store_.add(record, counts_); }
  Json requests(const Page& page = {}) { return Json::parse(store_.requestsJson(page)); }
  Json events(const Page& page = {}) { return Json::parse(store_.eventsJson(page)); }

  TemporaryFolder folder_;
  Store store_{folder_.path("deep/store")};
  Counts counts_;
};

TEST_F(StoreTest, AnEventIsKeptOnceAndItsArrivalsAreCounted) {
  add(batch({"one", "two"}));
  EXPECT_EQ(2, counts_.events_new);
  add(batch({"two", "three", "two"}));
  EXPECT_EQ(1, counts_.events_new);
  EXPECT_EQ(2, counts_.events_again);
  const Json shown = events();
  EXPECT_EQ(3, shown["distinct"]);
  EXPECT_EQ(5, shown["arrivals"]);
  ASSERT_EQ(3U, shown["events"].size());
  EXPECT_EQ("two", shown["events"][1]["event_id"]);
  EXPECT_EQ("shop", shown["events"][1]["group"]);
  EXPECT_EQ(3, shown["events"][1]["arrivals"]);
  EXPECT_EQ(Json({1, 2, 2}), shown["events"][1]["requests"]);
}

TEST_F(StoreTest, ARequestThatWasNotCountedLeavesNoEvents) {
  RequestRecord record = batch({"one"});
  record.counted = false;
  record.behaviour = Json{{"kind", "close_before"}};
  record.reply.close_without_answer = true;
  add(record);
  EXPECT_EQ(0, events()["distinct"]);
  const Json shown = requests()["requests"][0];
  EXPECT_EQ(false, shown["counted"]);
  EXPECT_EQ(false, shown["answer"]["sent"]);
  EXPECT_EQ("close_before", shown["behaviour"]["kind"]);
  EXPECT_EQ("one", shown["payload"]["activity_info"][0]["event_id"]);
}

TEST_F(StoreTest, APayloadThatIsNoBatchCountsAsItStands) {
  RequestRecord record = batch({});
  record.counting = Counting::kPayload;
  record.payload = Json::array({{{"clickId", "one"}}});
  add(record);
  EXPECT_EQ(0, events()["distinct"]);
  const Json shown = requests()["requests"][0];
  EXPECT_EQ(true, shown["counted"]);
  EXPECT_EQ(*record.payload, shown["payload"]);
}

TEST_F(StoreTest, ARequestIsShownAsItCame) {
  RequestRecord record = batch({"one", ""});
  record.payload->at("impression_info").push_back(impression());
  add(record);
  const Json shown = requests()["requests"][0];
  EXPECT_EQ(1, shown["id"]);
  EXPECT_EQ("2024-02-29T23:59:59.999Z", shown["time"]);
  EXPECT_EQ("tracking", shown["endpoint"]);
  EXPECT_EQ("POST", shown["method"]);
  EXPECT_EQ("/v1/tracking", shown["path"]);
  EXPECT_EQ(Json::array({"Host", "127.0.0.1:8443"}), shown["headers"][0]);
  EXPECT_EQ("k=a&j=b", shown["body"]);
  EXPECT_EQ(7, shown["body_bytes"]);
  EXPECT_EQ(*record.payload, shown["payload"]);
  EXPECT_TRUE(shown["refusal"].is_null());
  EXPECT_TRUE(shown["behaviour"].is_null());
  EXPECT_EQ(1, shown["events_new"]);
  EXPECT_EQ(0, shown["events_again"]);
  EXPECT_EQ(1, shown["events_without_id"]);
  EXPECT_EQ(1, shown["impressions"]);
  EXPECT_EQ(R"({"sent":true,"status":200,"body":"{\"Result\":true}","body_bytes":15})", jsonText(shown["answer"]));
}

TEST_F(StoreTest, ABodyThatIsNoTextIsShownWithoutLosingABit) {
  RequestRecord record = batch({});
  record.request.body = std::string("\0\xff\xfe", 3);
  add(record);
  EXPECT_EQ("AP_-", requests()["requests"][0]["body_base64url"]);
}

TEST_F(StoreTest, OfAHugeAnswerItsBeginningAndItsLengthAreKept) {
  RequestRecord record = batch({});
  record.reply.body = std::string(kMaxStoredAnswerBytes + 1, 'x');
  add(record);
  const Json answer = requests()["requests"][0]["answer"];
  EXPECT_EQ(kMaxStoredAnswerBytes, answer["body"].get<std::string>().size());
  EXPECT_EQ(kMaxStoredAnswerBytes + 1, answer["body_bytes"]);
}

TEST_F(StoreTest, APageEndsAtItsLimitAndSaysWhereToGoOn) {
  for (int i = 0; i < 3; ++i)
    add(batch({"event " + std::to_string(i)}));
  const Json first = requests({.limit = 2});
  EXPECT_EQ(2U, first["requests"].size());
  EXPECT_EQ(false, first["complete"]);
  const Json rest = requests({.after = first["next_after"], .limit = 2});
  EXPECT_EQ(1U, rest["requests"].size());
  EXPECT_EQ(3, rest["requests"][0]["id"]);
  EXPECT_EQ(true, rest["complete"]);
  EXPECT_EQ(3, rest["next_after"]);
  const Json nothing = requests({.after = 3});
  EXPECT_TRUE(nothing["requests"].empty());
  EXPECT_EQ(3, nothing["next_after"]);
  const Json some_events = events({.after = 1, .limit = 1});
  EXPECT_EQ("event 1", some_events["events"][0]["event_id"]);
  EXPECT_EQ(false, some_events["complete"]);
  EXPECT_EQ(3, some_events["distinct"]);
}

TEST_F(StoreTest, APageIsBoundedInBytesAndStillGetsOn) {
  for (int i = 0; i < 3; ++i)
    add(batch({"event " + std::to_string(i)}));
  Page page{.max_bytes = 1};
  for (std::int64_t id = 1; id <= 3; ++id) {
    const Json shown = requests(page);
    ASSERT_EQ(1U, shown["requests"].size());
    EXPECT_EQ(id, shown["requests"][0]["id"]);
    EXPECT_EQ(id == 3, shown["complete"]);
    page.after = shown["next_after"];
  }
}

TEST_F(StoreTest, AnInstallKeepsItsNumberAndItsFirstTime) {
  const Install first = store_.install("device-a", 1000);
  EXPECT_EQ(kFirstUserNo, first.user_no);
  EXPECT_EQ(1000, first.first_seen_milliseconds);
  EXPECT_EQ(kFirstUserNo + 1, store_.install("device-b", 2000).user_no);
  const Install again = store_.install("device-a", 3000);
  EXPECT_EQ(kFirstUserNo, again.user_no);
  EXPECT_EQ(1000, again.first_seen_milliseconds);
}

TEST_F(StoreTest, ARequestThatCannotBeCountedLeavesNoTrace) {
  RequestRecord record = batch({"one", "two"});
  record.payload->at("activity_info")[1].erase("event_id");
  EXPECT_THROW(add(record), Json::out_of_range);
  EXPECT_TRUE(requests()["requests"].empty());
  EXPECT_EQ(0, events()["distinct"]);
  add(batch({"one"}));
  EXPECT_EQ(1, counts_.events_new);
}

TEST_F(StoreTest, ASecondServiceOnTheSameFolderIsRefused) {
  try {
    const Store second(folder_.path("deep/store"));
    ADD_FAILURE() << "it was opened";
  } catch (const SetupError& error) {
    EXPECT_EQ("the store in " + folder_.path("deep/store") +
                  " is in use by another service; stop that one or choose another folder with --store",
              error.what());
  }
}

TEST(Store, EverythingIsThereAfterARestart) {
  const TemporaryFolder folder;
  Counts counts;
  Store(folder.path()).add(batch({"one"}), counts);
  EXPECT_EQ(kFirstUserNo, Store(folder.path()).install("device", 1).user_no);
  Store store(folder.path());
  EXPECT_EQ(2, store.add(batch({"one"}), counts));
  EXPECT_EQ(1, counts.events_again);
  EXPECT_EQ(kFirstUserNo, store.install("device", 2).user_no);
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status.st_mode & 0777U;
}

void expectPrivate(const std::string& folder) {
  EXPECT_EQ(kPrivateFolderMode, modeOf(folder));
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    EXPECT_EQ(kPrivateMode, modeOf(entry.path())) << entry.path();
}

TEST(Store, FolderAndFilesAreTheirOwnersAlone) {
  const TemporaryFolder folder;
  Counts counts;
  Store store(folder.path("store"));
  store.add(batch({"one"}), counts);
  expectPrivate(folder.path("store"));
  EXPECT_EQ(4, std::distance(std::filesystem::directory_iterator(folder.path("store")), {}));
}

TEST(Store, WhatAnEarlierVersionLeftOpenIsClosedToOthers) {
  const TemporaryFolder folder;
  { const Store store(folder.path("store")); }
  ::chmod(folder.path("store").c_str(), 0755);
  ::chmod(folder.path("store/service.sqlite3").c_str(), 0644);
  const Store store(folder.path("store"));
  expectPrivate(folder.path("store"));
}

TEST(Store, AFolderThatHoldsOtherFilesKeepsItsModeAndTheStoresFilesArePrivate) {
  const TemporaryFolder folder;
  makeFolder(folder.path("home"));
  ::chmod(folder.path("home").c_str(), 0755);
  replaceFile(folder.path("home/other"), "", kPublicMode);
  const Store store(folder.path("home"));
  EXPECT_EQ(0755U, modeOf(folder.path("home")));
  EXPECT_EQ(kPrivateMode, modeOf(folder.path("home/service.sqlite3")));
  EXPECT_EQ(kPublicMode, modeOf(folder.path("home/other")));
}

TEST_F(StoreTest, WhoReadsWaitsForNoWriterAndSeesWhatWasCommitted) {
  add(batch({"one"}));
  SQLite::Database writer(folder_.path("deep/store/service.sqlite3"), SQLite::OPEN_READWRITE);
  writer.exec("BEGIN IMMEDIATE; UPDATE requests SET path = '/changed'");
  EXPECT_EQ("/v1/tracking", requests()["requests"][0]["path"]);
  EXPECT_EQ(1, events()["distinct"]);
  EXPECT_EQ(1, store_.totals().requests);
  writer.exec("ROLLBACK");
}

TEST_F(StoreTest, WhoWritesWaitsForNoReader) {
  add(batch({"one"}));
  SQLite::Database reader(folder_.path("deep/store/service.sqlite3"), SQLite::OPEN_READWRITE);
  reader.exec("BEGIN");
  SQLite::Statement rows(reader, "SELECT id FROM requests");
  ASSERT_TRUE(rows.executeStep());
  EXPECT_EQ(2, add(batch({"two"})));
  EXPECT_EQ(2, store_.newestRequest());
}

TEST(Store, ANewerVersionIsLeftAsItIs) {
  const TemporaryFolder folder;
  { const Store store(folder.path()); }
  {
    SQLite::Database database(folder.path("service.sqlite3"), SQLite::OPEN_READWRITE);
    database.exec("PRAGMA user_version=99");
  }
  EXPECT_THROW(Store{folder.path()}, SetupError);
  SQLite::Database database(folder.path("service.sqlite3"), SQLite::OPEN_READWRITE);
  SQLite::Statement query(database, "PRAGMA user_version");
  ASSERT_TRUE(query.executeStep());
  EXPECT_EQ(99, query.getColumn(0).getInt64());
}

TEST(Store, AFileThatIsNoDatabaseIsRefused) {
  const TemporaryFolder folder;
  replaceFile(folder.path("service.sqlite3"), std::string(8192, 'g'), kPublicMode);
  try {
    const Store store(folder.path());
    ADD_FAILURE() << "it was opened";
  } catch (const SetupError& error) {
    EXPECT_EQ("cannot use the store in " + folder.path() + ": file is not a database", error.what());
  }
}

TEST(Store, AFolderThatCannotBeMadeIsRefused) {
  const TemporaryFolder folder;
  { const Store store(folder.path()); }
  EXPECT_THROW(Store{folder.path("service.sqlite3")}, SetupError);
}

}  // namespace
}  // namespace morvik_service
