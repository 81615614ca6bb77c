// What a tracking batch is made of.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/describe.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::activity;
using testing::at;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::texts;
using testing::WorldOptions;

constexpr const char* kBlockedLine =
    "MRVK_QA-MorvikCoreLib tracking is blocked  because the tracking is working now, this activitis will be send again on "
    "endSession";

class Batch : public ::testing::Test {
 protected:
  Value build(EndActivities end_activities = EndActivities::kSend) {
    world.core().set_isTrackingCalled(false);
    return world.core().makeTrackingParameter(end_activities);
  }
  /// The plain batch, opened from the parameters.
  Value opened(const Value& parameters) {
    kit::Request request;
    request.url = "https://tracking.morvik.example/v1/tracking";
    request.body = services::formEncoded(parameters.dictionary());
    return world.payload(request);
  }
  void store(std::initializer_list<Value> records) { world.userDefaults().setFendoActivityInfos(Array(records)); }
  Value sentKeys() { return world.userDefaults().fendoActivityInfosSentEventKeys(); }

  TestWorld world{WorldOptions::attributed()};
};

TEST_F(Batch, WithoutActivitiesIsTheNoDataAnswerAndKeepsTheSlot) {
  EXPECT_EQ(build(), Value(Dictionary{{"result", "failure"}}));
  EXPECT_TRUE(world.core()._isTrackingCalled());
}

/// Records in descending order of their dates, so that they have to be sorted.
Value manyActivities() {
  kit::MutableArray records;
  for (size_t i = 2 * kit::StopCheck::kSteps; i > 0; --i)
    records.append(activity("shop", "buy", at(static_cast<double>(i)), "e" + std::to_string(i)));
  return Value(std::move(records));
}

TEST_F(Batch, OfManyActivitiesIsAbandonedWithoutALineWhenTheKitIsBeingStopped) {
  const Value records = manyActivities();
  world.userDefaults().setFendoActivityInfos(records);
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  const size_t lines = world.log.lines().size();
  world.sharedState().stop_request.make();
  EXPECT_TRUE(build().isAbsent());
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_TRUE(world.userDefaults().fendoActivityInfos().identicalTo(records));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("old"));
  EXPECT_EQ(world.log.lines().size(), lines);
}

TEST_F(Batch, OfAFewActivitiesIsBuiltWhileTheKitIsBeingStopped) {
  store({activity("shop", "buy", at(1), "e1")});
  world.sharedState().stop_request.make();
  EXPECT_FALSE(build().isAbsent());
}

TEST_F(Batch, WithoutActivitiesLeavesTheStoredSentEventKeysAsTheyWere) {
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  build();
  EXPECT_THAT(texts(sentKeys()), ElementsAre("old"));
}

TEST_F(Batch, OfAFilteredEndAloneIsTheNoDataAnswerAndNotesTheEndsId) {
  store({activity("session", "end", at(1), "e1")});
  EXPECT_EQ(build(EndActivities::kFilter), Value(Dictionary{{"result", "failure"}}));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e1"));
  EXPECT_TRUE(world.core()._isTrackingCalled());
}

TEST_F(Batch, OfImpressionsAloneIsTheNoDataAnswer) {
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"createdAt", at(1)}}});
  EXPECT_EQ(build(), Value(Dictionary{{"result", "failure"}}));
}

TEST_F(Batch, HasTheCommonParametersAndThenTheTwoArrays) {
  store({activity("shop", "buy", at(1), "e1")});
  const Value batch = opened(build());
  Value expected_common(world.services().makeCommonParameter("1.2.3"));
  for (const kit::Entry& entry : expected_common.dictionary())
    EXPECT_EQ(batch[entry.key.string()], entry.value) << entry.key.string();
  EXPECT_EQ(batch["sdk_version"], Value("1.2.3"));
  EXPECT_EQ(batch.size(), expected_common.size() + 2);
  EXPECT_TRUE(batch["activity_info"].isArray());
  EXPECT_EQ(batch["impression_info"], Value(Array{}));
}

TEST_F(Batch, EntriesHaveExactlySevenKeys) {
  store({activity("shop", "buy", at(1), "e1", "sku")});
  EXPECT_EQ(opened(build())["activity_info"], Value(Array{Dictionary{{"group", "shop"},
                                                                     {"activity", "buy"},
                                                                     {"param", "sku"},
                                                                     {"prev_group", ""},
                                                                     {"prev_activity", ""},
                                                                     {"created_at", "20240301090001"},
                                                                     {"event_id", "e1"}}}));
}

TEST_F(Batch, TheFirstEntryHasBlankPredecessorsAndTheNextOnesNameTheirs) {
  store({activity("a", "one", at(1), "e1"), activity("b", "two", at(2), "e2")});
  const Value entries = opened(build())["activity_info"];
  EXPECT_THAT(texts(entries, "prev_group"), ElementsAre("", "a"));
  EXPECT_THAT(texts(entries, "prev_activity"), ElementsAre("", "one"));
}

TEST_F(Batch, IsSortedByTimeAndKeepsTheOrderOfEqualTimes) {
  store({activity("g", "third", at(3), "e3"), activity("g", "first", at(1), "e1"), activity("g", "tie a", at(2), "e2"),
         activity("g", "tie b", at(2), "e4")});
  EXPECT_THAT(texts(opened(build())["activity_info"], "activity"), ElementsAre("first", "tie a", "tie b", "third"));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e1", "e2", "e4", "e3"));
}

TEST_F(Batch, LeavesTheStoredListInItsOrder) {
  store({activity("g", "late", at(3), "e3"), activity("g", "early", at(1), "e1")});
  build();
  EXPECT_THAT(texts(world.userDefaults().fendoActivityInfos(), "activityName"), ElementsAre("late", "early"));
}

TEST_F(Batch, AMissingOrNullParamIsBlank) {
  store({activity("g", "absent", at(1), "e1", Value()), activity("g", "null", at(2), "e2", Value::null())});
  EXPECT_THAT(texts(opened(build())["activity_info"], "param"), ElementsAre("", ""));
}

TEST_F(Batch, ANullGroupIsSentAsNullAndNamedAsBlank) {
  store({Dictionary{{"activityGroupName", Value::null()},
                    {"activityName", "one"},
                    {"activityCreatedAt", at(1)},
                    {"activityEventID", Value::null()}},
         activity("g", "two", at(2), "e2")});
  const Array entries = opened(build())["activity_info"].array();
  EXPECT_TRUE(entries[0]["group"].isNull());
  EXPECT_EQ(entries[0]["event_id"], Value(""));
  EXPECT_EQ(entries[1]["prev_group"], Value(""));
  EXPECT_EQ(entries[1]["prev_activity"], Value("one"));
}

TEST_F(Batch, CreatedAtIsShiftedByTheServersTimeAndWrittenInKoreanTime) {
  world.services().setIntervalSinceServerDate(90.5);
  store({activity("g", "n", at(0.5), "e1")});
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"createdAt", at(1)}}});
  const Value batch = opened(build());
  EXPECT_THAT(texts(batch["activity_info"], "created_at"), ElementsAre("20240301090131"));
  EXPECT_THAT(texts(batch["impression_info"], "created_at"), ElementsAre("20240301090131"));
}

TEST_F(Batch, SendsEndLikeAnyOtherWhenTheSessionWasNotKept) {
  store({activity("session", "end", at(1), "e1"), activity("g", "n", at(2), "e2")});
  EXPECT_THAT(texts(opened(build())["activity_info"], "activity"), ElementsAre("end", "n"));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e1", "e2"));
}

TEST_F(Batch, LeavesEndOutOfAKeptSessionAndStillNamesItAsPredecessor) {
  store({activity("session", "end", at(1), "e1"), activity("g", "n", at(2), "e2")});
  const Value entries = opened(build(EndActivities::kFilter))["activity_info"];
  EXPECT_THAT(texts(entries, "activity"), ElementsAre("n"));
  EXPECT_THAT(texts(entries, "prev_group"), ElementsAre("session"));
  EXPECT_THAT(texts(entries, "prev_activity"), ElementsAre("end"));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e2", "e1"));
  EXPECT_TRUE(world.log.has("RVK_QA-MorvikCoreLib tracking filter activity eventId - e1"));
  EXPECT_EQ(world.log.find("RVK_QA-MorvikCoreLib tracking filter activity eventId - e1")->prefix->level, "TRACE");
}

TEST_F(Batch, OfSeveralFilteredEndsNotesTheLastOnly) {
  store(
      {activity("session", "end", at(1), "e1"), activity("app", "end", at(2), "e2"), activity("g", "n", at(3), "e3")});
  EXPECT_THAT(texts(opened(build(EndActivities::kFilter))["activity_info"], "activity"), ElementsAre("n"));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e3", "e2"));
}

TEST_F(Batch, AFilteredEndWithoutIdIsNotNoted) {
  store({activity("session", "end", at(1), "e1", ""), activity("session", "end", at(2), "")});
  build(EndActivities::kFilter);
  EXPECT_TRUE(sentKeys().isAbsent());
  EXPECT_TRUE(world.log.has("RVK_QA-MorvikCoreLib tracking filter activity eventId - "));
}

TEST_F(Batch, ReplacesTheSentEventKeysAndFlushesThem) {
  world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
  store({activity("g", "n", at(1), "e1")});
  world.store.clearJournal();
  build();
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("fendoActivityInfosSentEventKeys", "synchronize"));
  EXPECT_THAT(texts(sentKeys()), ElementsAre("e1"));
}

TEST_F(Batch, ImpressionsHaveExactlySixKeysInOrderOfTheirDates) {
  store({activity("g", "n", at(1), "e1")});
  world.userDefaults().setFendoImpressionInfos(
      Array{Dictionary{{"campaignKey", 5},
                       {"spaceKey", "top"},
                       {"resourceKey", 6},
                       {"conversionKey", 7},
                       {"isFirstTime", true},
                       {"createdAt", at(9)}},
            Dictionary{{"campaignKey", "12 apples"}, {"spaceKey", Value::null()}, {"createdAt", at(8)}}});
  EXPECT_EQ(opened(build())["impression_info"], Value(Array{Dictionary{{"campaign_key", 12},
                                                                       {"space_key", ""},
                                                                       {"resource_key", 0},
                                                                       {"conversion_key", 0},
                                                                       {"isFirstTime", false},
                                                                       {"created_at", "20240301090008"}},
                                                            Dictionary{{"campaign_key", 5},
                                                                       {"space_key", "top"},
                                                                       {"resource_key", 6},
                                                                       {"conversion_key", 7},
                                                                       {"isFirstTime", true},
                                                                       {"created_at", "20240301090009"}}}));
}

TEST_F(Batch, IsSealedWithTheTrackingKey) {
  store({activity("g", "n", at(1), "e1")});
  const Value parameters = build();
  EXPECT_EQ(parameters["k"], Value("test-app"));
  kit::Request request;
  request.url = "https://conversion.morvik.example/v1/conversion";  // opened with the hash key
  request.body = services::formEncoded(parameters.dictionary());
  EXPECT_THROW(world.payload(request), std::invalid_argument);
  EXPECT_TRUE(opened(parameters).isDictionary());
}

TEST_F(Batch, IsLoggedWholeBeforeItIsSealed) {
  store({activity("g", "n", at(1), "e1")});
  const Value batch = opened(build());
  const auto line = world.log.find("MRVK_QA-trackingParams_jsonDict : " + services::describe(batch));
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "TRACE");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCoreLib makeTrackingParameter:]");
  EXPECT_EQ(line->prefix->file, "tracking.cpp");
}

TEST_F(Batch, IsRefusedWhileTheSlotIsTaken) {
  store({activity("g", "n", at(1), "e1")});
  world.core().set_isTrackingCalled(true);
  EXPECT_TRUE(world.core().makeTrackingParameter(EndActivities::kSend).isAbsent());
  EXPECT_TRUE(world.log.has(kBlockedLine));
  EXPECT_EQ(world.log.find(kBlockedLine)->prefix->level, "TRACE");
  EXPECT_TRUE(sentKeys().isAbsent());
}

TEST_F(Batch, UnderForgetMeIsRefusedSilentlyAndLeavesTheSlot) {
  store({activity("g", "n", at(1), "e1")});
  world.services().setIsGDPRForgetMe(true);
  world.log.clear();
  EXPECT_TRUE(build().isAbsent());
  EXPECT_FALSE(world.core()._isTrackingCalled());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(Batch, OfARecordWithoutGroupOrNameFailsAndKeepsTheSlotAndTheKeysStoredBefore) {
  for (const char* missing : {"activityGroupName", "activityName"}) {
    kit::MutableDictionary record(activity("g", "n", at(1), "e1"));
    record.remove(missing);
    store({Value(std::move(record))});
    world.userDefaults().setFendoActivityInfosSentEventKeys(Array{"old"});
    EXPECT_TRUE(build().isAbsent()) << missing;
    EXPECT_TRUE(world.core()._isTrackingCalled()) << missing;
    EXPECT_THAT(texts(sentKeys()), ElementsAre("old")) << missing;
  }
  EXPECT_EQ(world.log.countContaining("Exception from makeTrackingParameter!"), 2U);
}

TEST_F(Batch, OfRecordsWithoutDatesFails) {
  store({Dictionary{{"activityGroupName", "g"}, {"activityName", "n"}, {"activityEventID", "e1"}}});
  EXPECT_TRUE(build().isAbsent());
  store({activity("g", "n", at(1), "e1")});
  world.userDefaults().setFendoImpressionInfos(Array{Dictionary{{"campaignKey", 1}}});
  EXPECT_TRUE(build().isAbsent());
  EXPECT_EQ(world.log.countContaining("needs a value, and there is none for the key created_at"), 2U);
}

TEST_F(Batch, ThePropertyOfThatNameReadsItsBackingField) {
  store({activity("g", "n", at(1), "e1")});
  build();
  EXPECT_TRUE(world.core().makeTrackingParameter().isAbsent());
}

}  // namespace
}  // namespace morvik
