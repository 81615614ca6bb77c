// More than one batch may carry: its limit, the batches that follow, and those that a service finds too large.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/json_writer.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activities;
using testing::activity;
using testing::Answer;
using testing::at;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing::TestWorld;
using testing::texts;
using testing::WorldOptions;

const Value kAccepted = Dictionary{{"Result", true}};

WorldOptions limitedTo(kit::BatchLimit limit) {
  WorldOptions options = WorldOptions::attributed();
  options.batch_limit = limit;
  return options;
}

Value impression(int64_t key, double seconds) {
  return Dictionary{{"campaignKey", key}, {"createdAt", at(seconds)}};
}

class Backlog : public ::testing::Test {
 protected:
  explicit Backlog(kit::BatchLimit limit = {.records = 3}) : world(limitedTo(limit)) {}

  void store(const Value& list) { world.userDefaults().setFendoActivityInfos(list); }
  std::vector<std::string> storedIds() { return texts(world.userDefaults().fendoActivityInfos(), "activityEventID"); }
  void push() {
    world.loop.perform([this] { world.core().pushTracking(); });
    world.loop.runUntilIdle();
  }
  void answer(const Answer& answer) { world.transport.on("v1/tracking").then(answer); }
  void alwaysAnswer(const Answer& answer) { world.transport.on("v1/tracking").always(answer); }
  /// A session that goes on within a minute, with this in its list. All its batches but the first are accepted.
  void keepSessionWith(const Value& list, const Answer& first = Answer::json(kAccepted)) {
    alwaysAnswer(Answer::json(kAccepted));
    world.becomeActive();
    store(Array());
    world.enterBackground();
    world.loop.advance(1);
    store(list);
    world.transport.clearRequests();
    world.transport.on("v1/tracking").clear();
    answer(first);
    alwaysAnswer(Answer::json(kAccepted));
    world.becomeActive();
    world.loop.runUntilIdle();
  }
  /// A session without a "start" and without a batch of its own.
  void openSession() {
    const Value kept = world.userDefaults().fendoActivityInfos();
    store(Array());
    world.becomeActive();
    store(kept);
    world.core().set_isTrackingCalled(false);
    world.transport.clearRequests();
  }
  std::vector<std::vector<std::string>> sentIds() {
    std::vector<std::vector<std::string>> ids;
    for (const Value& batch : world.payloads("v1/tracking"))
      ids.push_back(texts(batch["activity_info"], "event_id"));
    return ids;
  }
  std::vector<size_t> sizes() {
    std::vector<size_t> sizes;
    for (const Value& batch : world.payloads("v1/tracking"))
      sizes.push_back(batch["activity_info"].size());
    return sizes;
  }

  TestWorld world;
};

TEST_F(Backlog, ABatchCarriesTheOldestUpToTheLimitAndTheirIdsAlone) {
  store(Array{activity("g", "late", at(9), "late"), activity("g", "third", at(3), "third"),
              activity("g", "first", at(1), "first"), activity("g", "second", at(2), "second")});
  alwaysAnswer(Answer::silence());
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("first", "second", "third")));
  EXPECT_THAT(texts(world.userDefaults().fendoActivityInfosSentEventKeys()), ElementsAre("first", "second", "third"));
}

TEST_F(Backlog, ActivitiesOfTheSameMomentAreTakenInTheOrderOfTheListSortedOrNot) {
  store(Array{activity("g", "n", at(5), "a"), activity("g", "n", at(5), "b"), activity("g", "n", at(5), "c"),
              activity("g", "n", at(5), "d"), activity("g", "n", at(1), "first")});
  alwaysAnswer(Answer::silence());
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("first", "a", "b")));
}

TEST_F(Backlog, AnAcceptedBatchLeavesTheRest) {
  store(activities(5));
  answer(Answer::json(kAccepted));
  push();
  EXPECT_THAT(storedIds(), ElementsAre("id-3", "id-4"));
}

TEST_F(Backlog, ImpressionsHaveTheLimitOfTheirOwnAndThoseThatWereLeftOutStay) {
  store(activities(1));
  world.userDefaults().setFendoImpressionInfos(
      Array{impression(5, 5), impression(1, 1), impression(4, 4), impression(2, 2), impression(3, 3)});
  answer(Answer::json(kAccepted));
  push();
  const Value sent = world.payloads("v1/tracking")[0]["impression_info"];
  ASSERT_THAT(sent.array(), SizeIs(3));
  EXPECT_EQ(sent.array()[0]["campaign_key"].integer(), 1);
  EXPECT_EQ(sent.array()[2]["campaign_key"].integer(), 3);
  const kit::Array left = world.userDefaults().fendoImpressionInfos().array();
  ASSERT_THAT(left, SizeIs(2));
  EXPECT_EQ(left[0]["campaignKey"].integer(), 5);
  EXPECT_EQ(left[1]["campaignKey"].integer(), 4);
}

TEST_F(Backlog, AnImpressionThatCameDuringTheUploadOfAPartStays) {
  store(activities(1));
  world.userDefaults().setFendoImpressionInfos(
      Array{impression(1, 1), impression(2, 2), impression(3, 3), impression(4, 4)});
  answer(Answer::json(kAccepted).after(5));
  push();
  kit::MutableArray longer(world.userDefaults().fendoImpressionInfos());
  longer.append(impression(5, 5));
  world.userDefaults().setFendoImpressionInfos(Value(std::move(longer)));
  world.loop.advance(5);
  EXPECT_THAT(world.userDefaults().fendoImpressionInfos().array(), SizeIs(2));
}

class BacklogOfBytes : public Backlog {
 protected:
  BacklogOfBytes() : Backlog({.records = 1000, .plain_bytes = 1000}) {}
  static Value sized(size_t bytes, const std::string& id) {
    return activity("g", "n", at(1), id, std::string(bytes, 'x'));
  }
};

TEST_F(BacklogOfBytes, ABatchStaysWithinTheBytesOfItsEntries) {
  store(Array{sized(250, "a"), sized(250, "b"), sized(250, "c"), sized(250, "d")});
  alwaysAnswer(Answer::silence());
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b")));
  size_t bytes = 0;
  for (const Value& entry : world.payloads("v1/tracking")[0]["activity_info"].array())
    bytes += std::get<std::string>(services::writeJson(entry)).size();
  EXPECT_LE(bytes, 1000U);
}

TEST_F(BacklogOfBytes, OneThatIsLargerGoesAlone) {
  store(Array{sized(5000, "large"), sized(1, "small")});
  alwaysAnswer(Answer::silence());
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("large")));
}

TEST_F(BacklogOfBytes, TheNextBatchFollowsWhileAsManyBytesWait) {
  store(Array{sized(300, "a"), sized(300, "b"), sized(300, "c"), sized(300, "d"), sized(300, "e")});
  alwaysAnswer(Answer::json(kAccepted));
  openSession();
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b"), ElementsAre("c", "d")));
  EXPECT_THAT(storedIds(), ElementsAre("e"));
}

// -------------------------------------------------------------------------------------------------- the batches behind

TEST_F(Backlog, TheNextBatchFollowsInALaterTurnWhileAFullOneWaits) {
  store(activities(8));
  openSession();
  alwaysAnswer(Answer::json(kAccepted));
  push();
  EXPECT_THAT(sizes(), ElementsAre(3, 3));
  EXPECT_THAT(storedIds(), ElementsAre("id-6", "id-7"));
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Backlog, TheNextBatchIsDueWhenTheAnswersTurnEnds) {
  store(activities(8));
  openSession();
  answer(Answer::json(kAccepted));
  std::vector<bool> due;
  world.core().setDeliveryObserver({.batchDidEnd = [&](BatchEnd) {
    due.push_back(world.core().isNextBatchDue() && !world.core().isBatchUnderWay());
  }});
  push();
  ASSERT_FALSE(due.empty());
  EXPECT_TRUE(due.front());
}

TEST_F(Backlog, WithoutASessionNothingFollows) {
  store(activities(8));
  alwaysAnswer(Answer::json(kAccepted));
  push();
  EXPECT_THAT(sizes(), ElementsAre(3));
}

TEST_F(Backlog, AfterAnAnswerThatRemovedNothingNothingFollows) {
  store(activities(8));
  openSession();
  alwaysAnswer(Answer::json(kAccepted).after(1));
  push();
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array());
  world.loop.advance(1);
  EXPECT_THAT(sizes(), ElementsAre(3));
  EXPECT_THAT(storedIds(), SizeIs(8));
}

TEST_F(Backlog, WithoutALimitAnAcceptedBatchIsFollowedByNone) {
  TestWorld unlimited(WorldOptions::attributed());
  unlimited.transport.on("v1/tracking").always(Answer::json(kAccepted));
  unlimited.becomeActive();
  unlimited.userDefaults().setFendoActivityInfos(activities(500));
  unlimited.loop.perform([&] { unlimited.core().pushTracking(); });
  unlimited.loop.runUntilIdle();
  EXPECT_EQ(unlimited.payloads("v1/tracking").back()["activity_info"].size(), 500U);
}

// The oldest are sent; the kept session's "end" is the last of all.
Value sevenAndAnEnd() {
  kit::MutableArray list(activities(6));
  list.append(activity("session", "end", at(100), "end"));
  list.append(activity("shop", "purchase", at(101), "after"));
  return Value(std::move(list));
}

TEST_F(Backlog, TheFollowingBatchesOfAKeptSessionLeaveItsEndOut) {
  keepSessionWith(sevenAndAnEnd());
  EXPECT_THAT(storedIds(), ElementsAre("end", "after"));
  // A trigger sends what is left; the session goes on, and its end stays out.
  push();
  EXPECT_EQ(sentIds().back(), std::vector<std::string>{"after"});
  EXPECT_THAT(storedIds(), IsEmpty());
}

Value end(double seconds, const std::string& id) {
  return activity("session", "end", at(seconds), id);
}

Value other(double seconds, const std::string& id) {
  return activity("g", "n", at(seconds), id);
}

TEST_F(Backlog, TheBatchesOfAKeptSessionSendTheEndOfAnEarlierOne) {
  keepSessionWith(Array{other(1, "a"), end(2, "old"), other(3, "start-b"), other(4, "b1"), other(5, "b2"),
                        other(6, "b3"), end(7, "kept"), other(8, "after")});
  EXPECT_THAT(storedIds(), ElementsAre("kept", "after"));
  push();
  EXPECT_THAT(sentIds(),
              ElementsAre(ElementsAre("a", "start-b", "b1"), ElementsAre("old", "b2", "b3"), ElementsAre("after")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, MoreEndsOfEarlierSessionsThanABatchMayCarryHoldNothingUpAndAreSent) {
  keepSessionWith(Array{end(1, "e1"), end(2, "e2"), end(3, "e3"), end(4, "e4"), other(5, "a"), other(6, "b"),
                        other(7, "c"), other(8, "d"), end(9, "kept"), other(10, "after")});
  EXPECT_THAT(sentIds(),
              ElementsAre(ElementsAre("a", "b", "c"), ElementsAre("e1", "e2", "e3"), ElementsAre("e4", "d", "after")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, NoEndButTheKeptOneIsDeletedWhereNothingElseWaits) {
  keepSessionWith(Array{end(1, "old"), other(2, "a"), other(3, "b"), other(4, "c"), end(5, "second"), end(6, "kept")});
  push();
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b", "c"), ElementsAre("old", "second")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, TheKeptEndIsTheLastByItsDateWhereverItIsStored) {
  keepSessionWith(Array{end(100, "kept"), other(1, "a"), other(2, "b"), other(3, "c"), other(4, "d"), end(5, "old")});
  push();
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b", "c"), ElementsAre("d", "old")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, AnEndThatIsRecordedBetweenTheBatchesOfAKeptSessionIsSent) {
  keepSessionWith(Array{other(1, "a"), other(2, "b"), other(3, "c"), end(4, "kept"), other(5, "d")});
  kit::MutableArray longer(world.userDefaults().fendoActivityInfos());
  longer.append(end(6, "of the app"));
  world.userDefaults().setFendoActivityInfos(Value(std::move(longer)));
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b", "c"), ElementsAre("d", "of the app")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, TheHalvesOfABatchThatWasTooLargeSendTheEndOfAnEarlierSession) {
  keepSessionWith(Array{end(1, "old"), other(2, "a"), other(3, "b"), end(4, "kept")}, Answer::body(413, ""));
  push();
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b"), ElementsAre("old"), ElementsAre("a", "b")));
  EXPECT_THAT(storedIds(), IsEmpty());
}

TEST_F(Backlog, TheHalfOfABatchThatWasTooLargeLeavesTheEndOfAKeptSessionOutToo) {
  keepSessionWith(Array{end(1, "end"), other(2, "a"), other(3, "b")}, Answer::body(413, ""));
  EXPECT_THAT(sentIds(), ElementsAre(ElementsAre("a", "b"), ElementsAre("a")));
  EXPECT_THAT(storedIds(), ElementsAre("b"));
}

TEST_F(Backlog, OnceTheSessionHasEndedForGoodItsEndIsSent) {
  alwaysAnswer(Answer::json(kAccepted));
  world.becomeActive();
  store(Array());
  world.enterBackground();
  world.loop.advance(1);
  store(activities(8));
  world.becomeActive();
  world.enterBackground();
  world.loop.advance(1);
  push();
  const std::vector<std::string> names = texts(world.payloads("v1/tracking").back()["activity_info"], "activity");
  EXPECT_EQ(names.back(), "end");
}

// ---------------------------------------------------------------------------------------------------------- too large

TEST_F(Backlog, ABatchThatIsTooLargeIsHalvedUntilItIsTakenAndGrowsAgain) {
  TestWorld phone(limitedTo({.records = 8}));
  phone.becomeActive();
  phone.userDefaults().setFendoActivityInfos(activities(12));
  phone.core().set_isTrackingCalled(false);
  phone.transport.clearRequests();
  phone.transport.on("v1/tracking").then(Answer::body(413, "")).then(Answer::body(413, ""));
  phone.transport.on("v1/tracking").always(Answer::json(kAccepted));
  phone.loop.perform([&] { phone.core().pushTracking(); });
  phone.loop.runUntilIdle();
  std::vector<size_t> sent;
  for (const Value& batch : phone.payloads("v1/tracking"))
    sent.push_back(batch["activity_info"].size());
  EXPECT_THAT(sent, ElementsAre(8, 4, 2, 4));
}

TEST_F(Backlog, AServiceThatFindsEverythingTooLargeLosesNothingAndIsNotAskedForEver) {
  store(activities(3));
  alwaysAnswer(Answer::body(413, ""));
  push();
  EXPECT_THAT(sizes(), ElementsAre(3, 1));
  EXPECT_THAT(storedIds(), SizeIs(3));
  EXPECT_FALSE(world.core()._isTrackingCalled());
}

TEST_F(Backlog, TheHalfOfABatchThatIsTooLargeFollowsInALaterTurn) {
  store(activities(3));
  answer(Answer::body(413, ""));
  std::vector<bool> due;
  world.core().setDeliveryObserver({.batchDidEnd = [&](BatchEnd) {
    due.push_back(world.core().isNextBatchDue() && !world.core().isBatchUnderWay());
  }});
  push();
  ASSERT_FALSE(due.empty());
  EXPECT_TRUE(due.front());
  EXPECT_FALSE(world.core().isNextBatchDue());
}

TEST_F(Backlog, ImpressionsAreHalvedTooAndLeftOutAtLast) {
  store(activities(1));
  world.userDefaults().setFendoImpressionInfos(Array{impression(1, 1), impression(2, 2)});
  answer(Answer::body(413, ""));
  answer(Answer::body(413, ""));
  alwaysAnswer(Answer::json(kAccepted));
  push();
  std::vector<size_t> carried;
  for (const Value& batch : world.payloads("v1/tracking"))
    carried.push_back(batch["impression_info"].size());
  EXPECT_THAT(carried, ElementsAre(2, 1, 0));
  EXPECT_THAT(storedIds(), IsEmpty());
  EXPECT_THAT(world.userDefaults().fendoImpressionInfos().array(), SizeIs(2));
}

TEST_F(Backlog, AfterATimeOutTheHalvedBatchGoesWithTheNextTrigger) {
  store(activities(2));
  answer(Answer::silence());
  push();
  world.loop.advance(120);
  EXPECT_THAT(sizes(), ElementsAre(2));
  alwaysAnswer(Answer::json(kAccepted));
  push();
  EXPECT_THAT(sizes(), ElementsAre(2, 1));
}

TEST_F(Backlog, AnyOtherFailureLeavesTheLimit) {
  store(activities(3));
  for (const int status : {400, 500, 503}) {
    answer(Answer::body(status, ""));
    push();
  }
  answer(Answer::error("down"));
  push();
  answer(Answer::error("the connection was lost").after(14.999));
  push();
  world.loop.advance(60);
  alwaysAnswer(Answer::silence());
  push();
  EXPECT_THAT(sizes(), ElementsAre(3, 3, 3, 3, 3, 3));
}

TEST_F(Backlog, AnActivityOfMoreThanAMebibyteThatIsTooLargeAloneIsGivenUpAndTheOthersAreDelivered) {
  const std::string large(kMaxKeptEntryBytes + 1, 'x');
  store(
      Array{activity("g", "n", at(1), "large", large), activity("g", "n", at(2), "a"), activity("g", "n", at(3), "b")});
  world.log.clear();
  answer(Answer::body(413, ""));
  answer(Answer::body(413, ""));
  alwaysAnswer(Answer::json(kAccepted));
  push();
  EXPECT_THAT(sizes(), ElementsAre(3, 1, 1));
  EXPECT_THAT(storedIds(), ElementsAre("b"));
  EXPECT_THAT(world.log.lines(),
              Contains(Field(&testing::LogLine::text, HasSubstr("MRVK_QA-an activity is given up"))));
}

TEST_F(Backlog, AnActivityOfAMebibyteOrLessIsNeverGivenUp) {
  const std::string large(kMaxKeptEntryBytes - 1000, 'x');
  store(Array{activity("g", "n", at(1), "large", large)});
  alwaysAnswer(Answer::body(413, ""));
  push();
  push();
  EXPECT_THAT(storedIds(), ElementsAre("large"));
  EXPECT_THAT(sizes(), ElementsAre(1, 1));
}

TEST_F(Backlog, UnderTheUsersWishNothingFollows) {
  store(activities(8));
  openSession();
  answer(Answer::body(413, "").after(1));
  push();
  world.services().setIsGDPRForgetMe(true);
  world.loop.advance(2);
  EXPECT_THAT(sizes(), ElementsAre(3));
}

}  // namespace
}  // namespace morvik
