// A device over several days, in virtual time: sessions, kept sessions, day changes, a clock that is set, offline
// phases, kills and restarts, refused and lost answers. At the end the account must balance: what was recorded was
// counted by the service, is still stored, or is an "end" that a kept session left out.
//
// The seed is the test's parameter, so the name of a failing test repeats its run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>

#include "testing/world.h"

namespace morvik {
namespace {

using kit::Dictionary;
using kit::Value;
using testing::Answer;
using testing::TestWorld;

constexpr double kHourSeconds = 3600;
constexpr int kDays = 12;
constexpr const char* kTracking = "v1/tracking";
constexpr std::string_view kFilterLine = "RVK_QA-MorvikCoreLib tracking filter activity eventId - ";

/// A batch as it reached the service.
struct Arrival {
  std::vector<std::string> ids;
  bool counted = false;      ///< the service counted the events
  bool accepted = false;     ///< and its answer says so
  bool device_died = false;  ///< before it got the answer

  bool deviceKnows() const { return accepted && !device_died; }
};

class Life : public ::testing::TestWithParam<uint64_t> {
 protected:
  Life() {
    world_.ad_client.attribution_details.answerEveryCall(Value(), std::nullopt);
    world_.transport.setObserver([this](const kit::Request& request) {
      if (!request.url.ends_with(kTracking))
        return;
      ++batches_left_;
      last_batch_.reset();
    });
    world_.transport.on(kTracking).alwaysBy([this](const kit::Request& request) { return serve(request); });
    world_.transport.on("v1/conversion").alwaysBy([this](const kit::Request&) { return attribute(); });
  }

  uint64_t pick(uint64_t count) { return random_() % count; }
  bool happens(uint64_t percent) { return pick(100) < percent; }

  // ------------------------------------------------------------------------------------------------------ the service

  Answer attribute() {
    if (!is_kind_ && happens(30))
      return Answer::body(503, "busy");
    return TestWorld::conversionAnswer(Dictionary{{"user_no", 1001}, {"referralKey", 7}});
  }

  Answer serve(const kit::Request& request) {
    Arrival arrival;
    const Value batch = world_.payload(request);
    for (const Value& entry : batch["activity_info"].array())
      arrival.ids.emplace_back(entry["event_id"].string());
    const Answer answer = answerTo(arrival);
    last_batch_ = arrivals_.size();
    arrivals_.push_back(std::move(arrival));
    return answer.after(static_cast<double>(pick(400)) / 1000.0);
  }

  Answer answerTo(Arrival& arrival) {
    const uint64_t draw = is_kind_ ? 99 : pick(100);
    arrival.counted = draw >= 20;
    arrival.accepted = draw >= 50;
    if (draw < 10)
      return Answer::body(500, "out of order");
    if (draw < 20)
      return Answer::json(Dictionary{{"Result", false}});
    if (draw < 30)
      return Answer::body(502, "counted, but nobody says so");
    if (draw < 40)
      return Answer::error("closed after it counted");
    if (draw < 48)
      return Answer::body(200, "{\"Result\": tr");
    if (draw < 50)
      return Answer::silence();
    const double base_time = world_.loop.now().secondsSince1970() * 1000.0 + 1234.0;
    return Answer::json(Dictionary{{"Result", true}, {"BaseTime", base_time}});
  }

  // ------------------------------------------------------------------------------------------------------- the device

  /// A session start also frees the slot of a batch under way; two answers would then trim by the same keys. This user
  /// is not that quick: answers come first.
  void becomeActive() {
    ASSERT_TRUE(world_.loop.advanceUntil([this] { return world_.transport.unanswered() == 0; }, 60));
    world_.becomeActive();
  }

  void leave() {
    world_.enterBackground();
    if (happens(15)) {  // and returns within half a second
      world_.loop.advance(0.2);
      becomeActive();
      world_.loop.advance(1);
      world_.enterBackground();
    }
    world_.loop.advance(1);
  }

  void useTheApp() {
    const uint64_t events = pick(8);
    for (uint64_t i = 0; i < events; ++i) {
      world_.recordEvent("shop", happens(5) ? "end" : "look", std::to_string(pick(1000)));
      world_.loop.perform([this] { world_.core().chkAndSendDataWhenActivityCntMoreThenTen(); });
      world_.loop.advance(static_cast<double>(pick(60)));
    }
  }

  /// The process ends somewhere in the middle of its work.
  void die() {
    if (happens(50))
      world_.loop.notifications().post(kit::Notification::kApplicationDidEnterBackground);
    world_.loop.mainQueue().async(
        [this] { world_.services().addActivityGroupName("shop", "last", "", world_.loop.now()); });
    world_.loop.mainQueue().async([this] { world_.core().pushTracking(); });
    for (uint64_t steps = pick(7); steps > 0; --steps)
      world_.loop.step();
    noteUnknownAnswer();
    world_.restart();
    ++kills_;
    batches_left_ = 0;
    last_batch_.reset();
  }

  /// A batch may be under way; its answer is never seen.
  void noteUnknownAnswer() {
    size_t ended = 0;
    for (const auto& exchange : world_.services().endedExchanges())
      ended += exchange.url.ends_with(kTracking) ? 1U : 0U;
    ASSERT_LE(ended, batches_left_);
    ASSERT_LE(batches_left_ - ended, 1U);
    if (batches_left_ > ended && last_batch_)
      arrivals_[*last_batch_].device_died = true;
  }

  void liveOneDay() {
    const uint64_t sessions = 2 + pick(4);
    for (uint64_t i = 0; i < sessions; ++i) {
      if (happens(20))
        world_.transport.goOffline();
      else
        world_.transport.goOnline();
      becomeActive();
      useTheApp();
      if (happens(25)) {
        die();
        continue;
      }
      leave();
      if (happens(8))
        world_.loop.moveWallClock(static_cast<double>(pick(7200)) - 3600);
      world_.loop.advance(happens(40) ? static_cast<double>(1 + pick(50))
                                      : static_cast<double>(1 + pick(5)) * kHourSeconds);
    }
    world_.loop.advance(kHourSeconds * static_cast<double>(pick(12)));
  }

  /// Two more sessions, with a network and a service that answers: everything that can be delivered is.
  void endWell() {
    is_kind_ = true;
    world_.transport.goOnline();
    for (int i = 0; i < 2; ++i) {
      world_.loop.advance(2 * kHourSeconds);
      becomeActive();
      world_.loop.advance(30);
      world_.enterBackground();
    }
    world_.loop.advance(60);
  }

  // ------------------------------------------------------------------------------------------------------ the account

  std::set<std::string> storedIds() {
    std::set<std::string> ids;
    for (const Value& record : world_.userDefaults().fendoActivityInfos().array())
      ids.emplace(record["activityEventID"].string());
    return ids;
  }
  std::set<std::string> filteredIds() {
    std::set<std::string> ids;
    for (const std::string& message : world_.log.messages()) {
      if (message.starts_with(kFilterLine))
        ids.insert(message.substr(kFilterLine.size()));
    }
    return ids;
  }
  /// For each id the batches in which the service counted it, oldest first.
  std::map<std::string, std::vector<const Arrival*>> countedArrivals() const {
    std::map<std::string, std::vector<const Arrival*>> counted;
    for (const Arrival& arrival : arrivals_) {
      for (const std::string& id : arrival.ids) {
        if (arrival.counted)
          counted[id].push_back(&arrival);
      }
    }
    return counted;
  }

  TestWorld world_;
  std::mt19937_64 random_{GetParam()};
  std::vector<Arrival> arrivals_;
  size_t batches_left_ = 0;           ///< by this process
  std::optional<size_t> last_batch_;  ///< the arrival of the latest of these, if it arrived
  size_t kills_ = 0;
  bool is_kind_ = false;
};

TEST_P(Life, OverDaysBalancesItsAccount) {
  for (int day = 0; day < kDays; ++day)
    liveOneDay();
  endWell();

  const auto counted = countedArrivals();
  const auto stored = storedIds();
  const auto filtered = filteredIds();
  const uint64_t recorded = world_.services().nextEventNumber() - 1;
  size_t left_out = 0;
  size_t twice = 0;
  for (uint64_t number = 1; number <= recorded; ++number) {
    const std::string id = "event-" + std::to_string(number);
    const auto found = counted.find(id);
    if (found == counted.end()) {
      if (stored.contains(id))
        continue;
      ++left_out;
      EXPECT_TRUE(filtered.contains(id)) << id << " is lost";
      continue;
    }
    // What the device knows to be counted is not sent again, and not kept.
    const auto& arrivals = found->second;
    twice += arrivals.size() > 1 ? 1U : 0U;
    for (const Arrival* arrival : arrivals) {
      const bool is_last = arrival == arrivals.back() && !stored.contains(id);
      EXPECT_TRUE(is_last || !arrival->deviceKnows()) << id << " was sent or kept though its answer had come";
    }
  }
  for (const auto& [id, arrivals] : counted)
    EXPECT_LE(std::stoull(id.substr(id.find('-') + 1)), recorded) << id << " was never recorded";

  // Each of these happened.
  EXPECT_LE(stored.size(), 1U) << "after a good end only the last session's end is left";
  EXPECT_GT(recorded, 100U);
  EXPECT_GT(kills_, 3U);
  EXPECT_GT(twice, 3U);
  EXPECT_GT(left_out, 0U);
  EXPECT_GT(world_.log.countContaining("Keep Session on startSession"), 2U);
  EXPECT_GT(world_.log.count("MRVK_QA-The error was: the network is unreachable"), 0U);
  EXPECT_EQ(world_.log.countContaining("Exception"), 0U);
  EXPECT_LT(world_.log.lines().size(), testing::kMaxRecordedEntries) << "the log must reach back to the first day";
}

INSTANTIATE_TEST_SUITE_P(Seeds, Life, ::testing::Values(1, 2, 3, 20, 77, 1234, 99991, 20240301));

}  // namespace
}  // namespace morvik
