#include <gtest/gtest.h>

#include "apps/service/store/store.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;
using test::trackingPayload;

class StoreListsTest : public testing::Test {
 protected:
  void add(const std::string& install, const std::vector<std::string>& events, const std::string& idfa = "") {
    RequestRecord record;
    record.endpoint = "tracking";
    record.request = test::post("/v1/tracking", "k=a&j=b");
    record.payload = trackingPayload(events);
    (*record.payload)["install_id"] = install;
    (*record.payload)["idfa"] = idfa;
    (*record.payload)["puid"] = "";
    record.counting = Counting::kEvents;
    record.counted = true;
    store_.add(record, counts_);
  }
  void addStranger(const std::string& endpoint, const std::optional<Json>& payload, const std::string& body = "") {
    RequestRecord record;
    record.endpoint = endpoint;
    record.request = test::post("/v1/" + endpoint, body);
    record.payload = payload;
    if (!payload)
      record.refusal = Json{{"error", "it is bad"}};
    store_.add(record, counts_);
  }
  std::vector<int> ids(const SummaryQuery& query) {
    std::vector<int> found;
    last_ = Json::parse(store_.summariesJson(query));
    for (const Json& each : last_["requests"])
      found.push_back(each["id"]);
    return found;
  }
  using Ids = std::vector<int>;

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Counts counts_;
  Json last_;
};

TEST_F(StoreListsTest, NewestFirstPageByPage) {
  for (int i = 0; i < 5; ++i)
    add("i", {std::to_string(i)});
  EXPECT_EQ((Ids{5, 4}), ids({.limit = 2}));
  EXPECT_EQ(false, last_["complete"]);
  EXPECT_EQ((Ids{3, 2}), ids({.before = last_["next_before"], .limit = 2}));
  EXPECT_EQ((Ids{1}), ids({.before = last_["next_before"], .limit = 2}));
  EXPECT_EQ(true, last_["complete"]);
  EXPECT_EQ((Ids{}), ids({.before = 1}));
}

TEST_F(StoreListsTest, WhatArrivedOfAnInstallIsCountedByKind) {
  const auto arrive = [&](const std::string& endpoint, const Json& payload, bool counted = true) {
    RequestRecord record;
    record.endpoint = endpoint;
    record.payload = payload;
    record.counting = endpoint == "tracking" ? Counting::kEvents : Counting::kPayload;
    record.counted = counted;
    store_.add(record, counts_);
  };
  const auto withIdfa = [](Json list) {
    for (Json& each : list)
      each["idfa"] = "an idfa";
    return list;
  };
  add("i", {"a", "b"}, "an idfa");
  add("i", {"b", "c"}, "an idfa");
  add("another", {"d"});
  Json batch = trackingPayload({});
  batch["install_id"] = "i";
  batch["impression_info"] = Json::array({test::impression(), test::impression()});
  arrive("tracking", batch);
  Json click = test::reEngagementPayload(7);
  click["install_id"] = "i";
  arrive("reengagement-conversion", click);
  arrive("reengagement-conversion", click, false);
  arrive("commerce-conversion", withIdfa(test::commerceClicks({"x", "y"})));
  arrive("crash", withIdfa(Json::array({test::crashReport("one"), test::crashReport("two")})));
  Json told = test::demographicsPayload();
  told["install_id"] = "i";
  arrive("demographics", told);
  arrive("demographics", {{"install_id", "i"}});
  const Json arrived = store_.arrivedOf("i");
  EXPECT_EQ(3, arrived["activities"]);
  EXPECT_EQ(2, arrived["impressions"]);
  EXPECT_EQ(1, arrived["re-engagement clicks"]);
  EXPECT_EQ(2, arrived["commerce clicks"]);
  EXPECT_EQ(2, arrived["crash reports"]);
  EXPECT_EQ(told["user_demo_info"].size(), arrived["demographics"]);
  EXPECT_EQ(1, store_.arrivedOf("another")["activities"]);
  EXPECT_EQ(R"({"activities":0,"impressions":0,"re-engagement clicks":0,"commerce clicks":0,"crash reports":0,)"
            R"("demographics":0})",
            jsonText(store_.arrivedOf("nobody")));
}

TEST_F(StoreListsTest, ALineHoldsNeitherBodiesNorPayload) {
  add("i", {"e"});
  ids({});
  EXPECT_EQ(R"({"id":1,"time":"1970-01-01T00:00:00.000Z","endpoint":"tracking","method":"POST","path":"/v1/tracking",)"
            R"("body_bytes":7,"refused":null,"behaviour":null,"counted":true,"events_new":1,"events_again":0,)"
            R"("events_without_id":0,"impressions":0,"sent":true,"status":200,"install":"i","about":"shop/view"})",
            jsonText(last_["requests"][0]));
}

TEST_F(StoreListsTest, AnswersNoMoreThanItsLimit) {
  for (int i = 0; i <= kMaxSummaries; ++i)
    add("i", {});
  EXPECT_EQ(static_cast<std::size_t>(kMaxSummaries), ids({.limit = 1000000}).size());
}

TEST_F(StoreListsTest, EveryWordOfASearchMustStandSomewhere) {
  add("install-1", {"apple"});
  add("install-2", {"pear"});
  addStranger("crash", std::nullopt, "raw PEAR body");
  EXPECT_EQ((Ids{1}), ids({.search = "APPLE"}));
  EXPECT_EQ((Ids{2}), ids({.search = "tracking  pear"}));
  EXPECT_EQ((Ids{3, 2}), ids({.search = "pear"}));
  EXPECT_EQ((Ids{3}), ids({.search = "bad crash"}));
  EXPECT_EQ((Ids{2, 1}), ids({.search = "install-"}));
  EXPECT_EQ((Ids{}), ids({.search = "apple pear"}));
}

TEST_F(StoreListsTest, InstallEndpointAndRefusalNarrowTheList) {
  add("one", {"a"});
  add("two", {"b"});
  addStranger("crash", std::nullopt);
  EXPECT_EQ((Ids{1}), ids({.install = "one"}));
  EXPECT_EQ((Ids{3}), ids({.endpoint = "crash"}));
  EXPECT_EQ((Ids{3}), ids({.refused_only = true}));
}

TEST_F(StoreListsTest, ASearchGoesOnInStepsAndSaysWhereItIs) {
  add("i", {"needle"});
  for (int i = 0; i < 9; ++i)
    add("i", {});
  EXPECT_EQ((Ids{}), ids({.search = "needle", .most_searched = 4}));
  EXPECT_EQ(false, last_["complete"]);
  EXPECT_EQ(7, last_["next_before"]);
  EXPECT_EQ((Ids{1}), ids({.before = 5, .search = "needle", .most_searched = 4}));
}

TEST_F(StoreListsTest, ASearchThroughLargeBodiesStopsEarly) {
  constexpr std::size_t kBodies = 4;
  for (std::size_t i = 0; i < kBodies; ++i)
    addStranger("crash", std::nullopt, std::string(kMaxSearchedBytes / (kBodies - 1) + 1, 'x'));
  EXPECT_EQ((Ids{}), ids({.search = "needle"}));
  EXPECT_EQ(false, last_["complete"]);
  EXPECT_EQ(2, last_["next_before"]);
  EXPECT_EQ((Ids{}), ids({.before = 2, .search = "needle"}));
  EXPECT_EQ(true, last_["complete"]);
}

TEST_F(StoreListsTest, PayloadsWithoutAnInstallAreFoundByTheirIdentifier) {
  addStranger("crash", Json::array({{{"idfa", "ab-1"}}}));
  add("install-1", {}, "ab-1");
  addStranger("crash", Json::array({{{"idfa", "ab-1"}}}));
  EXPECT_EQ((Ids{3, 2}), ids({.install = "install-1"}));
  add("install-2", {}, "ab-1");
  addStranger("crash", Json::array({{{"idfa", "ab-1"}}}));
  EXPECT_EQ((Ids{5, 4}), ids({.install = "install-2"}));
}

TEST_F(StoreListsTest, ARefusedRequestGivesNobodysIdentifierToAnInstall) {
  add("install-1", {}, "ab-1");
  RequestRecord forged;
  forged.endpoint = "erasure";
  forged.request = test::post("/v1/erasure", "");
  forged.payload = Json{{"install_id", "install-2"}, {"idfa", "ab-1"}};
  forged.refusal = Json{{"error", "it is bad"}};
  store_.add(forged, counts_);
  addStranger("crash", Json::array({{{"idfa", "ab-1"}}}));
  EXPECT_EQ((Ids{3, 1}), ids({.install = "install-1"}));
  EXPECT_EQ((Ids{2}), ids({.install = "install-2"}));
}

TEST_F(StoreListsTest, OfLargePayloadsOfAnInstallTheNewestAreRead) {
  constexpr std::size_t kPayloads = 4;
  constexpr std::size_t kLimitBytes = 3000;
  const std::string padding(kLimitBytes / (kPayloads - 1) + 1, 'x');
  for (std::size_t i = 0; i < kPayloads - 1; ++i)
    addStranger("conversion", Json{{"install_id", "i"}, {"padding", padding}});
  EXPECT_EQ(true, store_.requestsOfInstall("i", kLimitBytes).complete);
  addStranger("conversion", Json{{"install_id", "i"}, {"padding", padding}});
  const InstallRequests found = store_.requestsOfInstall("i", kLimitBytes);
  EXPECT_EQ(false, found.complete);
  ASSERT_EQ(kPayloads - 1, found.requests.size());
  EXPECT_EQ(kPayloads, found.requests.front()["id"]);
}

TEST_F(StoreListsTest, BehindAPayloadLongerThanTheLimitNothingOlderIsRead) {
  addStranger("conversion", Json{{"install_id", "i"}});
  addStranger("conversion", Json{{"install_id", "i"}, {"padding", std::string(kMaxTimelineBytes, 'x')}});
  const InstallRequests found = store_.requestsOfInstall("i");
  EXPECT_EQ(false, found.complete);
  ASSERT_EQ(1U, found.requests.size());
  EXPECT_EQ(2, found.requests.front()["id"]);
}

TEST_F(StoreListsTest, InstallsAreListedTheOneHeardOfLastFirst) {
  add("one", {});
  add("two", {});
  add("one", {});
  const Json listed = Json::parse(store_.installsJson());
  EXPECT_EQ(true, listed["complete"]);
  ASSERT_EQ(2U, listed["installs"].size());
  EXPECT_EQ(R"({"install":"one","requests":2,"newest":3,"last_time":"1970-01-01T00:00:00.000Z"})",
            jsonText(listed["installs"][0]));
  EXPECT_EQ("two", listed["installs"][1]["install"]);
  EXPECT_EQ(false, Json::parse(store_.installsJson(1))["complete"]);
}

TEST_F(StoreListsTest, TotalsAreCountedOnceAndKept) {
  add("i", {"a", "b"});
  EXPECT_EQ(2, store_.totals().delivered);
  add("i", {"b", "c"});
  addStranger("crash", std::nullopt);
  const Totals& totals = store_.totals();
  EXPECT_EQ(3, totals.requests);
  EXPECT_EQ(1, totals.refused);
  EXPECT_EQ(3, totals.delivered);
  EXPECT_EQ(1, totals.duplicate);
}

TEST_F(StoreListsTest, TotalsOfAnOlderRunAreCountedFromTheStore) {
  const TemporaryFolder folder;
  {
    Store first(folder.path());
    RequestRecord record;
    record.refusal = Json{{"error", "no"}};
    first.add(record, counts_);
  }
  Store second(folder.path());
  EXPECT_EQ(1, second.totals().requests);
  EXPECT_EQ(1, second.totals().refused);
}

TEST_F(StoreListsTest, ARequestIsFoundByItsNumber) {
  add("i", {"a"});
  EXPECT_EQ("a", store_.request(1)["payload"]["activity_info"][0]["event_id"]);
  EXPECT_TRUE(store_.request(2).is_null());
  EXPECT_EQ(1, store_.newestRequest());
  EXPECT_EQ(1U, store_.summariesAfter(0, 10).size());
  EXPECT_TRUE(store_.summariesAfter(1, 10).empty());
}

}  // namespace
}  // namespace morvik_service
