// How a device sends more than fits into one batch, and batches that a service finds too large.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "morvik/morvik.h"
#include "runtime/sending/batch_limit.h"
#include "services/endpoints.h"
#include "simulation/test_device.h"

namespace morvik::simulation {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fakes = ::morvik::testing;

constexpr double kAnswerSeconds = 4;

fakes::Answer slowAcceptance() {
  return fakes::Answer::json(kit::Dictionary{{"Result", true}}).after(kAnswerSeconds);
}

/// Conversions and batches share the connections to one host.
TestDeviceOptions withOneHost() {
  TestDeviceOptions options;
  options.app.endpoints = {{"kFendoTrackingBaseLiveUrl", "https://one.morvik.example/"},
                           {"kFendoConversionBaseLiveUrl", "https://one.morvik.example/"}};
  return options;
}

class BacklogOfADevice : public ::testing::Test {
 protected:
  explicit BacklogOfADevice(const TestDeviceOptions& options = {}) : device(options) { device.open(); }
  /// In one turn, so that no trigger comes in between.
  void record(size_t count) {
    device.perform([&] {
      for (size_t event = 0; event < count; ++event)
        device.kit().addActivity("shop", "look");
    });
  }
  void flush() {
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
    device.settle();
  }
  /// Sizes of the batches that arrived, without those before the first event.
  std::vector<size_t> sizes() {
    std::vector<size_t> sizes;
    for (const fakes::ServedRequest& request : device.service().requests(fakes::ServiceEndpoint::kTracking)) {
      size_t events = 0;
      for (const kit::Value& entry : request.payload["activity_info"].array())
        events += entry["activity"].string() == "look" ? 1U : 0U;
      if (events > 0)
        sizes.push_back(events);
    }
    return sizes;
  }
  fakes::ScriptedTransport::Script& tracking() { return device.network().on(services::kTrackingPath); }
  size_t batches() { return device.network().requests(services::kTrackingPath).size(); }
  /// Two batches are too large. The third, with ten events, is accepted, and its answer is under way; twenty may
  /// follow.
  void beginSeriesOfForty() {
    tracking().then(fakes::Answer::body(413, "")).then(fakes::Answer::body(413, "")).then(slowAcceptance());
    record(40);
    device.settle();
    device.network().clearRequests();
  }
  /// Runs `block` once the answer has been handled, before what that sets off.
  void whenTheAnswerHasCome(std::function<void()> block) {
    device.instance().mainQueue().after(kAnswerSeconds, std::move(block));
  }
  /// Leaves a session that will go on. What was recorded before its "end" waits, and nothing else.
  void keepSessionWith(size_t count) {
    device.advance(minutes(2));
    device.goOffline();
    record(count);
    device.leave();
    device.goOnline();
    ends = device.delivered(services::kFendoActivityGroupSession, "end");
    device.network().clearRequests();
  }
  /// The session's last "end" was neither sent nor lost.
  void expectTheEndIsLeftOut() {
    EXPECT_EQ(device.delivered(services::kFendoActivityGroupSession, "end"), ends);
    EXPECT_TRUE(device.kit().ledger().isSound());
  }
  void note(const FlushResult& result) { results.push_back(result); }

  TestDevice device;
  std::vector<FlushResult> results;
  size_t ends = 0;
};

TEST_F(BacklogOfADevice, GoesInBatchesOfTheHostsLimit) {
  record(runtime::kBatchLimit.records + 1);
  device.settle();
  EXPECT_THAT(sizes(), ElementsAre(runtime::kBatchLimit.records));
  EXPECT_EQ(device.waiting("shop", "look"), 1u);
  flush();
  EXPECT_THAT(sizes(), ElementsAre(runtime::kBatchLimit.records, 1));
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, IsFlushedInAsManyBatchesAsItTakes) {
  record(9);
  tracking().then(fakes::Answer::body(413, "")).then(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_THAT(sizes(), ElementsAre(2, 4, 3));
  EXPECT_EQ(device.delivered("shop", "look"), 9u);
}

TEST_F(BacklogOfADevice, IsFlushedAfterTheSessionToo) {
  tracking().then(fakes::Answer::error("down"));
  device.leave();
  record(9);
  tracking().then(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(device.delivered("shop", "look"), 9u);
}

TEST_F(BacklogOfADevice, WaitsWithoutLossForAServiceThatFindsEverythingTooLarge) {
  record(9);
  tracking().always(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kRefused);
  EXPECT_EQ(device.waiting("shop", "look"), 9u);
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, IsWholeAgainForTheNextProcessOfADeviceWhoseBatchesHadBecomeSmall) {
  record(9);
  tracking().always(fakes::Answer::body(413, ""));
  flush();
  tracking().clear();
  device.restart();
  device.open();
  EXPECT_THAT(sizes(), ElementsAre(9));
}

// -------------------------------------------------------------------------------------------------------- its flushes

TEST_F(BacklogOfADevice, IsFlushedWhenTheLastOfItsBatchesIsAccepted) {
  record(9);
  tracking().then(fakes::Answer::body(413, "")).then(slowAcceptance()).then(slowAcceptance());
  device.network().clearRequests();
  flush();
  EXPECT_EQ(batches(), 2u);
  device.advance(seconds(5));
  EXPECT_EQ(batches(), 3u);
  EXPECT_THAT(results, IsEmpty()) << "four are delivered";
  device.advance(seconds(5));
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(batches(), 3u);
}

TEST_F(BacklogOfADevice, IsNotFlushedWhereOneOfItsBatchesFails) {
  record(9);
  tracking().then(fakes::Answer::body(413, "")).then(slowAcceptance()).always(fakes::Answer::body(503, ""));
  flush();
  device.advance(seconds(5));
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kRefused);
  EXPECT_EQ(results[0].waiting, 5u);
}

TEST_F(BacklogOfADevice, TellsAFlushOfAnActivityThatIsGivenUp) {
  device.perform([this] {
    device.kit().addActivity("shop", "large", std::string(kMaxEventBytes - 100, 'x'));
    device.kit().addActivity("shop", "look");
  });
  tracking().then(fakes::Answer::body(413, "")).then(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_FALSE(results[0].is_delivered);
  EXPECT_EQ(results[0].reason, FlushReason::kGivenUp);
  EXPECT_EQ(results[0].given_up, 1u);
  EXPECT_EQ(results[0].waiting, 0u);
  EXPECT_EQ(device.delivered("shop", "look"), 1u);
}

TEST_F(BacklogOfADevice, TellsAFlushNothingOfAnActivityThatWasRecordedAfterIt) {
  device.setClockBy(minutes(5));
  tracking().then(fakes::Answer::body(503, "").after(kAnswerSeconds)).then(fakes::Answer::body(413, ""));
  tracking().then(fakes::Answer::body(413, ""));
  record(1);
  device.kit().pushTracking();
  flush();
  device.setClockBy(-minutes(5));
  device.perform([this] { device.kit().addActivity("shop", "large", std::string(kMaxEventBytes - 100, 'x')); });
  device.advance(seconds(5));
  EXPECT_EQ(device.waiting("shop", "large"), 0u);
  EXPECT_EQ(device.delivered("shop", "large"), 0u);
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(results[0].given_up, 0u);
}

// ----------------------------------------------------------------------------- sending off, wishes, stops in between

TEST_F(BacklogOfADevice, GoesOnByItselfWhileASessionIsOpen) {
  beginSeriesOfForty();
  device.advance(seconds(5));
  EXPECT_THAT(sizes(), ElementsAre(20));
  EXPECT_EQ(device.waiting("shop", "look"), 10u);
}

TEST_F(BacklogOfADevice, WaitsWhileSendingIsOffAndGoesOnWithOnAgain) {
  beginSeriesOfForty();
  device.kit().flush([this](const FlushResult& result) { note(result); }, seconds(30));
  whenTheAnswerHasCome([this] { device.kit().setSendingEnabled(false); });
  device.advance(seconds(5));
  EXPECT_EQ(batches(), 0u);
  EXPECT_EQ(device.waiting("shop", "look"), 30u);
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kSendingOff);
  EXPECT_EQ(results[0].waiting, 30u);
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_THAT(sizes(), ElementsAre(20));
  flush();
  EXPECT_EQ(device.delivered("shop", "look"), 30u) << "a script accepted ten, not the service";
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, OffAndOnWhileABatchOfItIsUnderWayDisturbsNoSeries) {
  beginSeriesOfForty();
  device.kit().setSendingEnabled(false);
  device.settle();
  device.kit().setSendingEnabled(true);
  device.settle();
  EXPECT_EQ(batches(), 0u) << "one at a time";
  device.advance(seconds(5));
  EXPECT_THAT(sizes(), ElementsAre(20, 10)) << "the rest is sent as at a session start";
  EXPECT_EQ(device.waiting("shop", "look"), 0u);
}

TEST_F(BacklogOfADevice, OfAKeptSessionDeliversTheEndsOfEarlierOnes) {
  device.advance(minutes(2));
  device.goOffline();
  for (int session = 0; session < 3; ++session) {
    device.open();
    record(3);
    device.leave();
    device.advance(minutes(2));
  }
  device.open();
  record(9);
  device.leave();
  device.goOnline();
  const size_t waiting = device.waiting(services::kFendoActivityGroupSession, "end");
  const size_t ended = device.delivered(services::kFendoActivityGroupSession, "end");
  EXPECT_GE(waiting, 4U);
  tracking().then(fakes::Answer::body(413, "")).then(fakes::Answer::body(413, ""));
  device.kit().applicationDidBecomeActive();
  device.settle();
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(device.delivered(services::kFendoActivityGroupSession, "end"), ended + waiting - 1);
  EXPECT_EQ(device.delivered("shop", "look"), 18U);
  const Ledger::Account activities = device.kit().ledger().of("activities");
  ASSERT_THAT(activities.given_up, SizeIs(1));
  EXPECT_EQ(activities.given_up[0].reason, "the \"end\" of a session that went on within a minute");
  EXPECT_EQ(activities.given_up[0].count, 1U);
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, OnAgainLeavesTheEndOfAKeptSessionInTheRestOut) {
  keepSessionWith(9);
  tracking().then(fakes::Answer::body(413, "")).then(slowAcceptance());
  device.kit().applicationDidBecomeActive();
  device.settle();
  device.kit().setSendingEnabled(false);
  device.settle();
  device.kit().setSendingEnabled(true);
  device.advance(seconds(5));
  EXPECT_EQ(device.waiting("shop", "look"), 0u);
  EXPECT_EQ(device.waiting(services::kFendoActivityGroupSession, "end"), 0u);
  expectTheEndIsLeftOut();
}

class BacklogBehindFullConnections : public BacklogOfADevice {
 protected:
  BacklogBehindFullConnections() : BacklogOfADevice(withOneHost()) {}
  /// Takes all connections but the one of the batch under way; one more request waits for that one.
  void fillConnections() {
    device.network()
        .on(services::kReEngagementConversionPath)
        .always(fakes::Answer::json(kit::Dictionary{}).after(2 * kAnswerSeconds));
    for (size_t click = 0; click < fakes::kMaxConnectionsPerHost; ++click)
      device.kit().passOpenURL("https://shop.example/?mrvk_eng=1&sn=3&ck=" + std::to_string(click + 12));
    device.settle();
  }
};

TEST_F(BacklogBehindFullConnections, ABatchOfTheSeriesThatIsHeldIsMadeAgainWithoutTheEndOfAKeptSession) {
  // Two of the five leave three and the "end", as many as may follow: the batch that is held leaves nothing behind.
  keepSessionWith(5);
  tracking().then(fakes::Answer::body(413, "")).then(slowAcceptance());
  device.kit().applicationDidBecomeActive();
  device.settle();
  fillConnections();
  device.network().clearRequests();
  device.advance(seconds(5));
  EXPECT_EQ(batches(), 0u);
  EXPECT_GT(device.instance().pending().requests, 0u);
  device.kit().setSendingEnabled(false);
  device.settle();
  device.advance(minutes(1));
  EXPECT_EQ(batches(), 0u);
  device.kit().setSendingEnabled(true);
  device.settle();
  flush();
  EXPECT_EQ(device.waiting("shop", "look"), 0u);
  EXPECT_EQ(device.waiting(services::kFendoActivityGroupSession, "end"), 0u);
  expectTheEndIsLeftOut();
}

TEST_F(BacklogOfADevice, LeavesWhatABatchThatNeverLeftCarriedBehindOneThatIsAccepted) {
  beginSeriesOfForty();
  device.perform([this] {
    device.kit().applicationDidBecomeActive();  // which frees the slot
    device.kit().pushTracking();
    device.kit().setSendingEnabled(false);
  });
  device.advance(seconds(5));
  EXPECT_EQ(device.waiting("shop", "look"), 40u) << "the accepted ones are sent again";
  device.kit().setSendingEnabled(true);
  flush();
  EXPECT_EQ(device.delivered("shop", "look"), 40u);
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, IsNotSentAnyMoreOnceTheUserAsksToBeForgotten) {
  beginSeriesOfForty();
  device.kit().flush([this](const FlushResult& result) { note(result); }, seconds(30));
  whenTheAnswerHasCome([this] { device.kit().gdprForgetMe(true); });
  device.advance(minutes(1));
  EXPECT_EQ(batches(), 0u);
  EXPECT_EQ(device.waiting("shop", "look"), 30u);
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kForgotten);
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, WaitsForTheNextProcessWhereTheKitIsStoppedInBetween) {
  beginSeriesOfForty();
  device.kit().flush([this](const FlushResult& result) { note(result); }, seconds(30));
  device.advance(seconds(1));
  device.kit().stop();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kStopped);
  EXPECT_EQ(results[0].waiting, 40u);
  device.advance(seconds(30));
  EXPECT_EQ(batches(), 0u);
  device.restart();
  device.open();
  flush();
  EXPECT_EQ(device.delivered("shop", "look"), 40u);
}

TEST_F(BacklogOfADevice, IsDeliveredWholeByAStopThatMayTakeItsTime) {
  record(9);
  tracking().then(fakes::Answer::body(413, "")).then(slowAcceptance()).then(slowAcceptance());
  device.kit().stop(seconds(20));
  EXPECT_EQ(device.waiting("shop", "look"), 0u);
}

}  // namespace
}  // namespace morvik::simulation
