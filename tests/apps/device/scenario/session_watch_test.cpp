#include "apps/device/scenario/session_watch.h"

#include <gtest/gtest.h>

#include <vector>

#include "testing/memory_store.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Array;
using morvik::kit::Date;
using morvik::kit::Dictionary;
using Event = SessionWatch::Event;

constexpr Date kNow = Date::fromSeconds(1'709'251'200);

class SessionWatchTest : public ::testing::Test {
 protected:
  void launch(int64_t count) { store.set("com.morvik.core.appLaunchCount", count); }
  void storeRecords(std::initializer_list<std::pair<const char*, Date>> records) {
    morvik::kit::MutableArray list;
    for (const auto& [name, created_at] : records) {
      list.append(
          Dictionary{{"activityGroupName", "session"}, {"activityName", name}, {"activityCreatedAt", created_at}});
    }
    store.set("fendoActivityInfos", std::move(list));
  }

  morvik::testing::MemoryStore store;
  std::vector<Event> events;
  SessionWatch watch{store, [this](Event event) { events.push_back(event); }};
};

TEST_F(SessionWatchTest, SeesASessionBegin) {
  launch(1);
  storeRecords({{"start", kNow}, {"retention", kNow}});
  watch.look(kNow);
  watch.look(kNow);
  EXPECT_EQ(events, std::vector<Event>{Event::kBegun});
}

TEST_F(SessionWatchTest, SeesThatTheLastOneIsKept) {
  storeRecords({{"start", Date::fromSeconds(1)}, {"end", kNow}});
  launch(1);
  watch.look(kNow);
  EXPECT_EQ(events, std::vector<Event>{Event::kKept});
}

TEST_F(SessionWatchTest, SeesASessionEnd) {
  store.set("MorvikCoreUserInfo_endSessoinDate", kNow);
  watch.look(kNow);
  watch.look(kNow);
  EXPECT_EQ(events, std::vector<Event>{Event::kEnded});
}

TEST_F(SessionWatchTest, TellsNothingOfWhatWasThereBefore) {
  launch(3);
  store.set("MorvikCoreUserInfo_endSessoinDate", kNow);
  std::vector<Event> later;
  SessionWatch second(store, [&later](Event event) { later.push_back(event); });
  second.look(kNow);
  EXPECT_TRUE(later.empty());
}

TEST_F(SessionWatchTest, TellsNothingWhenAKillTakesItBack) {
  store.synchronize();
  launch(1);
  store.set("MorvikCoreUserInfo_endSessoinDate", kNow);
  watch.look(kNow);
  store.kill();
  watch.look(kNow);
  EXPECT_EQ(events, (std::vector<Event>{Event::kKept, Event::kEnded}));
}

}  // namespace
}  // namespace morvik_device::scenario
