#include <gtest/gtest.h>

#include <filesystem>

#include "apps/service/store/store.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::commerceClicks;
using test::impression;
using test::TemporaryFolder;
using test::trackingPayload;

constexpr std::int64_t kKeepBytes = std::int64_t{1024} * 1024;
constexpr std::size_t kBodyBytes = std::size_t{64} * 1024;
constexpr std::size_t kLargeBytes = std::size_t{8} * 1024 * 1024;

RequestRecord batch(const std::string& install, const std::vector<std::string>& event_ids) {
  RequestRecord record;
  record.time_milliseconds = 1709251199999;
  record.endpoint = "tracking";
  record.request = test::post("/v1/tracking", std::string(kBodyBytes, 'x'));
  record.payload = trackingPayload(event_ids);
  record.payload->at("install_id") = install;
  record.payload->at("impression_info").push_back(impression());
  record.counting = Counting::kEvents;
  record.counted = true;
  record.reply = {200, "{}"};
  return record;
}

RequestRecord clicks(const std::string& install) {
  RequestRecord record = batch(install, {});
  record.endpoint = "commerce-conversion";
  record.payload = commerceClicks({"one", "two"});
  record.counting = Counting::kPayload;
  return record;
}

class StoreRoomTest : public testing::Test {
 protected:
  void add(const RequestRecord& record) { store_->add(record, counts_); }
  void fill(const std::string& install, int count) {
    for (int i = 0; i < count; ++i)
      add(batch(install, {install + " " + std::to_string(i)}));
  }
  Json requests() { return Json::parse(store_->requestsJson({})); }
  Json events() { return Json::parse(store_->eventsJson({})); }
  void addLarge(std::size_t body_bytes) {
    RequestRecord large = batch("device", {});
    large.request.body = std::string(body_bytes, 'x');
    add(large);
  }
  std::uintmax_t fileBytes() { return std::filesystem::file_size(folder_.path("service.sqlite3")); }
  std::uintmax_t logBytes() { return std::filesystem::file_size(folder_.path("service.sqlite3-wal")); }

  TemporaryFolder folder_;
  Counts counts_;
  std::unique_ptr<Store> store_ = std::make_unique<Store>(folder_.path(), kKeepBytes);
};

TEST_F(StoreRoomTest, TheOldestRequestsGoAndTheNewestStay) {
  fill("device", 100);
  const Json kept = requests()["requests"];
  EXPECT_EQ(100, kept.back()["id"]);
  EXPECT_LT(50, kept.front()["id"]);
  EXPECT_LT(5U, kept.size());
  EXPECT_EQ(kept.size(), 101 - kept.front()["id"].get<std::size_t>()) << "none from between";
  EXPECT_TRUE(store_->request(1).is_null());
}

TEST_F(StoreRoomTest, TheFileStaysBelowItsLimitAndOneRequest) {
  fill("device", 200);
  store_.reset();
  EXPECT_LE(fileBytes(), static_cast<std::uintmax_t>(kKeepBytes) + 4 * kBodyBytes);
}

TEST_F(StoreRoomTest, WhatWasCountedStaysCounted) {
  fill("device", 100);
  RequestRecord refused = batch("device", {});
  refused.counted = false;
  refused.refusal = Json{{"error", "no"}};
  add(refused);
  EXPECT_EQ(100, events()["distinct"]);
  EXPECT_EQ(100, events()["arrivals"]);
  const Totals totals = store_->totals();
  EXPECT_EQ(101, totals.requests);
  EXPECT_EQ(1, totals.refused);
  EXPECT_EQ(100, totals.delivered);
  EXPECT_EQ(100, totals.impressions);
  EXPECT_EQ(100, store_->arrivedOf("device")["activities"]);
  EXPECT_EQ(100, store_->arrivedOf("device")["impressions"]);
  store_.reset();
  store_ = std::make_unique<Store>(folder_.path(), kKeepBytes);
  EXPECT_EQ(101, store_->totals().requests);
  EXPECT_EQ(100, store_->arrivedOf("device")["activities"]);
}

TEST_F(StoreRoomTest, AnEventWhoseRequestIsGoneArrivesAgainAndIsShownAgain) {
  fill("device", 100);
  EXPECT_NE("device 0", events()["events"][0]["event_id"]);
  add(batch("device", {"device 0"}));
  EXPECT_EQ(0, counts_.events_new);
  EXPECT_EQ(1, counts_.events_again);
  EXPECT_EQ("device 0", events()["events"][0]["event_id"]);
  EXPECT_EQ(2, events()["events"][0]["arrivals"]);
  EXPECT_EQ(Json({101}), events()["events"][0]["requests"]);
}

TEST_F(StoreRoomTest, AnEventThatALaterRequestBroughtTooIsKept) {
  add(batch("device", {"both"}));
  fill("other", 5);
  add(batch("device", {"both"}));
  fill("another", 11);
  EXPECT_TRUE(store_->request(1).is_null());
  EXPECT_EQ("both", events()["events"][0]["event_id"]);
  EXPECT_EQ(Json({7}), events()["events"][0]["requests"]);
}

TEST_F(StoreRoomTest, AnInstallWhoseRequestsAreGoneIsStillListed) {
  fill("gone", 3);
  fill("here", 40);
  const Json installs = Json::parse(store_->installsJson())["installs"];
  ASSERT_EQ(2U, installs.size());
  EXPECT_EQ("here", installs[0]["install"]);
  EXPECT_EQ(40, installs[0]["requests"]);
  EXPECT_EQ("gone", installs[1]["install"]);
  EXPECT_EQ(3, installs[1]["requests"]);
  EXPECT_EQ(3, installs[1]["newest"]);
  EXPECT_EQ("2024-02-29T23:59:59.999Z", installs[1]["last_time"]);
}

TEST_F(StoreRoomTest, ClicksThatAreGoneAreStillCounted) {
  add(clicks(""));
  const Json before = store_->arrivedOf("");
  EXPECT_EQ(2, before["commerce clicks"]);
  fill("here", 40);
  EXPECT_EQ(before, store_->arrivedOf(""));
}

TEST_F(StoreRoomTest, ARequestLargerThanTheStoreStaysUntilTheNextOne) {
  RequestRecord large = batch("device", {"large"});
  large.request.body = std::string(2 * kKeepBytes, 'x');
  add(large);
  EXPECT_EQ(1U, requests()["requests"].size());
  add(batch("device", {"small"}));
  EXPECT_EQ(1U, requests()["requests"].size());
  EXPECT_EQ(2, requests()["requests"][0]["id"]);
}

TEST_F(StoreRoomTest, WhatALargeRequestHeldIsGivenBackWhenItGoes) {
  for (int i = 0; i < 4; ++i)
    addLarge(kLargeBytes);
  EXPECT_GE(static_cast<std::uintmax_t>(kKeepBytes + kSpareBytes) + kLargeBytes, fileBytes()) << "the newest stays";
  fill("device", 5);
  EXPECT_GE(static_cast<std::uintmax_t>(kKeepBytes + kSpareBytes), fileBytes());
  EXPECT_GT(kLargeBytes, logBytes());
  EXPECT_EQ(5U, requests()["requests"].size());
  EXPECT_EQ(9, store_->totals().requests);
}

TEST_F(StoreRoomTest, NoMoreThanTheBoundIsGivenBackWithOneRequest) {
  addLarge(static_cast<std::size_t>(kGivenBackAtOnce) + 2 * kLargeBytes);
  fill("device", 1);
  EXPECT_LT(kLargeBytes, fileBytes());
  fill("device", 1);
  EXPECT_GE(static_cast<std::uintmax_t>(kKeepBytes + kSpareBytes), fileBytes());
}

TEST_F(StoreRoomTest, AReaderKeepsItsViewWhileRoomIsGivenBack) {
  addLarge(kLargeBytes);
  {
    Readers readers(folder_.path("service.sqlite3"));
    Readers::Lease reader = readers.take();
    SQLite::Statement length(reader.database(), "SELECT length(body) FROM requests WHERE id = 1");
    ASSERT_TRUE(length.executeStep());
    fill("device", 2);
    length.reset();
    ASSERT_TRUE(length.executeStep());
    EXPECT_EQ(static_cast<std::int64_t>(kLargeBytes), length.getColumn(0).getInt64());
  }
  addLarge(kLargeBytes);
  fill("device", 1);
  EXPECT_GE(static_cast<std::uintmax_t>(kKeepBytes + kSpareBytes), fileBytes()) << "once the reader is gone";
}

TEST_F(StoreRoomTest, AStoreOfAnEarlierVersionLearnsToGiveRoomBack) {
  store_.reset();
  {
    SQLite::Database earlier(folder_.path("service.sqlite3"), SQLite::OPEN_READWRITE);
    earlier.exec("PRAGMA auto_vacuum=NONE");
    earlier.exec("VACUUM");
  }
  store_ = std::make_unique<Store>(folder_.path(), kKeepBytes);
  addLarge(kLargeBytes);
  fill("device", 1);
  EXPECT_GE(static_cast<std::uintmax_t>(kKeepBytes + kSpareBytes), fileBytes());
}

TEST_F(StoreRoomTest, WhenOnlyIdsAreLeftTheOldestOfThemGo) {
  std::vector<std::string> ids;
  for (int i = 0; i < 12000; ++i)
    ids.push_back("an event with an id that takes some room " + std::to_string(i));
  add(batch("device", ids));
  add(batch("device", {"last"}));
  EXPECT_EQ(12001, events()["distinct"]);
  add(batch("device", {ids.front()}));
  EXPECT_EQ(1, counts_.events_new) << "its id is forgotten";
}

TEST_F(StoreRoomTest, AStoreThatIsLargerThanItMayBeIsBroughtDownWhenItIsOpened) {
  store_ = nullptr;
  store_ = std::make_unique<Store>(folder_.path());
  fill("device", 100);
  store_.reset();
  EXPECT_LT(kKeepBytes, fileBytes());
  store_ = std::make_unique<Store>(folder_.path(), kKeepBytes);
  EXPECT_GE(kKeepBytes, fileBytes());
  EXPECT_EQ(100, store_->totals().requests);
  EXPECT_EQ(100, requests()["requests"].back()["id"]);
}

}  // namespace
}  // namespace morvik_service
