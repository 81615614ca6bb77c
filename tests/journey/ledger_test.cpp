// The ledger after a journey of the whole kit, as an app reads it: days with kills, offline phases and lost answers,
// and a click whose request fails in one process after the other. Compared with what the service counted and what the
// store has.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <set>
#include <string>

#include "simulation/test_device.h"

namespace morvik {
namespace {

using namespace std::chrono_literals;
using simulation::TestDevice;
using testing::Answer;

constexpr const char* kTracking = "v1/tracking";
constexpr const char* kReEngagement = "v1/reengagement-conversion";
constexpr int kDays = 6;
constexpr uint64_t kMaxSessionsADay = 5;
constexpr uint64_t kMaxEventsASession = 7;

class LedgerOfALife : public ::testing::TestWithParam<uint64_t> {
 protected:
  LedgerOfALife() {
    device_.network().on(kTracking).alwaysBy([this](const kit::Request& request) { return answer(request); });
  }

  uint64_t pick(uint64_t count) { return random_() % count; }
  bool happens(uint64_t percent) { return pick(100) < percent; }

  Answer answer(const kit::Request& request) {
    const uint64_t draw = is_kind_ ? 99 : pick(100);
    if (draw < 20)
      return Answer::body(500, "out of order");
    const testing::ServedRequest served = device_.service().receive(request);
    if (draw < 40)
      return Answer::error("closed after it counted");
    return device_.service().answer(served).after(static_cast<double>(pick(3)));
  }

  void useTheApp() {
    for (uint64_t events = pick(kMaxEventsASession + 1); events > 0; --events) {
      device_.kit().addActivity("shop", "look", std::nullopt);
      device_.advance(std::chrono::seconds(pick(30)));
      ++recorded_by_the_app_;
    }
  }

  void liveASession() {
    if (happens(20))
      device_.goOffline();
    else
      device_.goOnline();
    device_.open();
    device_.advance(5s);  // its first batch is answered: a second one meanwhile could give up events by rule
    useTheApp();
    if (happens(25)) {
      device_.kill();
      device_.restart();
      ++kills_;
      return;
    }
    device_.leave();
    device_.advance(happens(40) ? 10s : 2h);
  }

  void endWell() {
    is_kind_ = true;
    device_.goOnline();
    for (int session = 0; session < 2; ++session) {
      device_.open();
      device_.advance(30s);
      device_.leave();
      device_.advance(2h);
    }
  }

  std::set<std::string> storedIds() {
    std::set<std::string> ids;
    for (const kit::Value& record : device_.instance().properties().fendoActivityInfos().array())
      ids.emplace(record["activityEventID"].string());
    return ids;
  }

  TestDevice device_;
  std::mt19937_64 random_{GetParam()};
  bool is_kind_ = false;
  uint64_t recorded_by_the_app_ = 0;
  size_t kills_ = 0;
};

TEST_P(LedgerOfALife, AgreesWithTheServiceAndTheStore) {
  for (int day = 0; day < kDays; ++day) {
    for (uint64_t sessions = 1 + pick(kMaxSessionsADay); sessions > 0; --sessions) {
      liveASession();
      ASSERT_TRUE(device_.kit().ledger().isSound()) << "on day " << day;
    }
    device_.advance(8h);
  }
  endWell();

  const Ledger::Account account = device_.kit().ledger().of("activities");
  const std::set<std::string> stored = storedIds();
  std::set<std::string> known = stored;
  uint64_t arrived_of_the_app = 0;
  for (const kit::Value& event : device_.service().events()) {
    known.emplace(event["event_id"].string());
    arrived_of_the_app += event["group"].string() == "shop" ? 1U : 0U;
  }
  EXPECT_EQ(arrived_of_the_app, recorded_by_the_app_);
  EXPECT_TRUE(account.isSound());
  EXPECT_EQ(account.under_way, 0U);
  EXPECT_EQ(account.stored, stored.size());
  for (const Ledger::GivenUp& each : account.given_up)
    EXPECT_EQ(each.reason, "the \"end\" of a session that went on within a minute");
  // Such an "end" may have arrived before it was given up, with a batch whose answer was lost.
  const uint64_t arrived_and_gone = known.size() - stored.size();
  EXPECT_GE(arrived_and_gone, account.delivered);
  EXPECT_LE(arrived_and_gone, account.delivered + account.givenUp());
  EXPECT_GE(account.recorded, known.size());
  EXPECT_LE(account.recorded, known.size() + account.givenUp());
  // All of these happened.
  EXPECT_GT(kills_, 1U);
  EXPECT_GT(account.recorded, recorded_by_the_app_ + kills_);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LedgerOfALife, ::testing::Values(1, 2, 3, 20, 77, 1234));

class LedgerOfAFailedClick : public ::testing::Test {
 protected:
  LedgerOfAFailedClick() {
    device_.network().on(kReEngagement).always(Answer::error("down"));
    device_.open();
    device_.kit().passOpenURL("app://open?mrvk_eng=1&sn=1&ck=12");
    device_.settle();
  }

  Ledger::Account account() {
    const Ledger ledger = device_.kit().ledger();
    EXPECT_TRUE(ledger.isSound());
    return ledger.of("re-engagement clicks");
  }
  /// The session ends, which sends the click again, and the next process takes over.
  void endSessionAndProcess() {
    device_.leave();
    device_.restart();
    device_.advance(1h);
    device_.open();
  }

  TestDevice device_;
};

TEST_F(LedgerOfAFailedClick, KeepsItStoredOverProcessesUntilItArrives) {
  for (int process = 1; process <= 4; ++process) {
    EXPECT_EQ(account().stored, 1U) << "process " << process;
    endSessionAndProcess();
  }
  device_.network().on(kReEngagement).clear();
  endSessionAndProcess();
  EXPECT_EQ(account().recorded, 1U);
  EXPECT_EQ(account().delivered, 1U);
  EXPECT_EQ(device_.service().requests(testing::ServiceEndpoint::kReEngagement).size(), 1U);
}

TEST_F(LedgerOfAFailedClick, SaysWhyItIsGivenUpAtTheSixthSessionEnd) {
  for (int process = 1; process <= 6; ++process) {
    EXPECT_EQ(account().stored, 1U) << "process " << process;
    endSessionAndProcess();
  }
  EXPECT_EQ(account().recorded, 1U);
  EXPECT_EQ(account().stored, 0U);
  ASSERT_EQ(account().given_up.size(), 1U);
  EXPECT_EQ(account().given_up[0].reason, "not accepted until the sixth session end");
}

}  // namespace
}  // namespace morvik
