#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apps/service/store/store.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::TemporaryFolder;
using test::trackingPayload;

class StoreEventTest : public testing::Test {
 protected:
  void add(const std::vector<std::string>& events, bool counted = true) {
    RequestRecord record;
    record.endpoint = "tracking";
    record.request = test::post("/v1/tracking", "k=a&j=b");
    record.payload = trackingPayload(events);
    record.counting = Counting::kEvents;
    record.counted = counted;
    if (!counted)
      record.refusal = Json{{"error", "it is bad"}};
    store_.add(record, counts_);
  }
  std::vector<std::string> arrivals(const std::string& id) {
    last_ = store_.eventHistory(id);
    std::vector<std::string> told;
    for (const Json& each : last_["requests"])
      told.push_back(std::to_string(each["id"].get<int>()) + " " + each["arrival"].get<std::string>());
    return told;
  }
  using Told = std::vector<std::string>;

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Counts counts_;
  Json last_;
};

TEST_F(StoreEventTest, SaysWithWhichRequestsAnEventCame) {
  add({"a", "b"}, false);
  add({"a", "b"});
  add({"b"});
  add({"b", "a"});
  EXPECT_EQ((Told{"1 not counted", "2 first", "4 repeated"}), arrivals("a"));
  EXPECT_EQ(true, last_["known"]);
  EXPECT_EQ(2, last_["arrivals"]);
  EXPECT_EQ("a", last_["event"]["event_id"]);
  EXPECT_EQ(true, last_["complete"]);
}

TEST_F(StoreEventTest, CountsHowOftenAnEventIsInOneRequest) {
  add({"a", "a"});
  add({"a", "a", "a"}, false);
  EXPECT_EQ((Told{"1 first", "2 not counted"}), arrivals("a"));
  EXPECT_EQ(2, last_["requests"][0]["times"]);
  EXPECT_EQ(3, last_["requests"][1]["times"]);
}

TEST_F(StoreEventTest, DoesNotTakePartOfAnIdForIt) {
  add({"abc"});
  add({"abc"}, false);
  for (const char* id : {"", "ab", "bc", "ABC", "%", "_", "a\"b"}) {
    EXPECT_EQ((Told{}), arrivals(id)) << id;
    EXPECT_EQ(false, last_["known"]) << id;
  }
}

TEST_F(StoreEventTest, KnowsAnEventThatOnlyArrivedUncounted) {
  add({"a"}, false);
  EXPECT_EQ((Told{"1 not counted"}), arrivals("a"));
  EXPECT_EQ(false, last_["known"]);
  EXPECT_EQ(0, last_["arrivals"]);
}

TEST_F(StoreEventTest, LooksAtSoManyRequestsThatWereNotCounted) {
  add({"a"}, false);
  for (std::int64_t i = 1; i < kMaxSearchedRequests; ++i)
    add({}, false);
  EXPECT_EQ((Told{"1 not counted"}), arrivals("a"));
  EXPECT_EQ(true, last_["complete"]);
  add({"a"});
  EXPECT_EQ((Told{std::to_string(kMaxSearchedRequests + 1) + " first"}), arrivals("a"));
  EXPECT_EQ(false, last_["complete"]);
  EXPECT_EQ(2, last_["searched_from"]);
}

}  // namespace
}  // namespace morvik_service
