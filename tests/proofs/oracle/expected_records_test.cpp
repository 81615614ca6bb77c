#include "proofs/oracle/expected_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

namespace morvik::proofs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr RecordKind kKind = RecordKind::kActivities;

class ExpectedRecordsTest : public ::testing::Test {
 protected:
  RecordNumber recordKept(const char* name, double when) {
    const RecordNumber number = records_.record(kKind, name, when);
    records_.keep(number, when);
    return number;
  }
  void settleAt(uint64_t recorded, double now) {
    std::array<uint64_t, kRecordKinds> all{};
    all[static_cast<size_t>(kKind)] = recorded;
    records_.settle(all, now);
  }

  ExpectedRecords records_;
};

TEST(MayGo, TellsWhetherAKindHasARuleWithThisReason) {
  EXPECT_TRUE(mayGo(RecordKind::kImpressions, RemovalReason::kAddedDuringUpload));
  EXPECT_FALSE(mayGo(RecordKind::kActivities, RemovalReason::kAddedDuringUpload)) << "the table has no such row";
}

TEST(RecordsAreSent, EachToTheEndpointOfItsKind) {
  using testing::ServiceEndpoint;
  EXPECT_EQ(endpointTaking(RecordKind::kActivities), ServiceEndpoint::kTracking);
  EXPECT_EQ(endpointTaking(RecordKind::kImpressions), ServiceEndpoint::kTracking);
  EXPECT_EQ(endpointTaking(RecordKind::kReEngagementClicks), ServiceEndpoint::kReEngagement);
  EXPECT_EQ(endpointTaking(RecordKind::kCommerceClicks), ServiceEndpoint::kCommerce);
  EXPECT_EQ(endpointTaking(RecordKind::kCrashReports), ServiceEndpoint::kCrash);
  EXPECT_EQ(endpointTaking(RecordKind::kDemographics), ServiceEndpoint::kDemographics);
}

TEST(RecordsIn, AreTheElementsOfAListOrADemographicValueThatIsPending) {
  EXPECT_EQ(recordsIn(RecordKind::kImpressions, kit::Array{1, 2}), 2U);
  EXPECT_EQ(recordsIn(RecordKind::kImpressions, kit::Value()), 0U);
  EXPECT_EQ(recordsIn(RecordKind::kDemographics, kit::Value("a user")), 1U);
  EXPECT_EQ(recordsIn(RecordKind::kDemographics, kit::Value(0)), 1U);
  EXPECT_EQ(recordsIn(RecordKind::kDemographics, kit::Value(-1)), 0U) << "no age is pending";
  EXPECT_EQ(recordsIn(RecordKind::kDemographics, kit::Value()), 0U);
}

TEST_F(ExpectedRecordsTest, LosesWhatIsNeitherStoredNorUnderWayNorArrived) {
  const RecordNumber stored = recordKept("stored", 1);
  const RecordNumber under_way = recordKept("under way", 1);
  const RecordNumber arrived = recordKept("arrived", 1);
  const RecordNumber gone = recordKept("gone", 1);
  EXPECT_THAT(records_.setStored(kKind, {"stored"}).unknown, IsEmpty());
  records_[under_way].under_way = 1;
  records_.arrives(arrived);
  EXPECT_THAT(records_.lost(), ElementsAre(gone));
  EXPECT_EQ(records_.counts(kKind).gone, 1U);
  EXPECT_EQ(records_.counts(kKind).stored, 1U);
  EXPECT_TRUE(records_[stored].is_stored);
  records_.permit(gone, RemovalReason::kKeptSession);
  EXPECT_THAT(records_.lost(), IsEmpty()) << "a rule may have let it go";
  EXPECT_EQ(records_.permitted(kKind, RemovalReason::kKeptSession), 1U);
  EXPECT_EQ(records_.permitted(kKind, RemovalReason::kPlaceTaken), 0U);
}

TEST_F(ExpectedRecordsTest, LetsWhatCameBackGoAsOftenAsItWasThere) {
  const RecordNumber number = recordKept("one", 1);
  records_.permit(number, RemovalReason::kKeptSession);
  records_.setStored(kKind, {"one"});
  records_.setStored(kKind, {"one"});
  EXPECT_EQ(records_.permitted(kKind, RemovalReason::kKeptSession), 1U);
  records_.setStored(kKind, {});
  records_.setStored(kKind, {"one"});
  EXPECT_EQ(records_.permitted(kKind, RemovalReason::kKeptSession), 2U);
}

TEST_F(ExpectedRecordsTest, TellsWhatNobodyRecordedAndWhatStandsThereTwice) {
  recordKept("one", 1);
  const ExpectedRecords::Unexpected unexpected = records_.setStored(kKind, {"one", "strange", "one"});
  EXPECT_THAT(unexpected.unknown, ElementsAre("strange"));
  EXPECT_THAT(unexpected.doubled, ElementsAre("one"));
}

TEST_F(ExpectedRecordsTest, DoubtsAfterADeathWhatWasNotKeptLongEnough) {
  recordKept("old", 1);
  recordKept("late", 9.5);
  records_.record(kKind, "never committed", 9.9);
  records_.die(9, 9, true);
  EXPECT_EQ(records_.counts(kKind).recorded_least, 1U);
  EXPECT_EQ(records_.counts(kKind).recorded_most, 3U);
  EXPECT_THAT(records_.setStored(kKind, {"old", "late"}).unknown, IsEmpty());
  EXPECT_THAT(records_.lost(), IsEmpty());
  settleAt(2, 20);
  EXPECT_EQ(records_.counts(kKind).recorded_least, 2U);
  EXPECT_EQ(records_.counts(kKind).recorded_most, 2U);
  EXPECT_THAT(records_.lost(), IsEmpty()) << "it is undone";
  EXPECT_THAT(records_.setStored(kKind, {"old"}).unknown, IsEmpty());
  EXPECT_THAT(records_.lost(), ElementsAre(1U)) << "it had outlived the death";
}

TEST_F(ExpectedRecordsTest, HoldsAKillToWhatWasCommitted) {
  recordKept("just committed", 9.99);
  records_.die(kNever, kNever, false);
  EXPECT_EQ(records_.counts(kKind).recorded_least, 1U);
  records_.setStored(kKind, {});
  EXPECT_THAT(records_.lost(), ElementsAre(0U));
}

TEST_F(ExpectedRecordsTest, ExcusesWithTheDisksTroubleNothingThatTheAppWasToldIsKept) {
  recordKept("told so", 5);
  recordKept("not told", 5);
  records_[0].told = Recorded::kKept;
  records_.die(4, kNever, false);
  records_.setStored(kKind, {});
  settleAt(1, 20);
  EXPECT_THAT(records_.lost(), ElementsAre(0U));
}

TEST_F(ExpectedRecordsTest, KnowsTheFirstRuleThatMayHaveRemovedARecord) {
  recordKept("kept", 5);
  EXPECT_EQ(records_[0].firstRule(), std::nullopt);
  records_.permit(0, RemovalReason::kProcessEnded);
  records_.permit(0, RemovalReason::kPlaceTaken);
  EXPECT_EQ(records_[0].firstRule(), removalRuleOf(kKind, RemovalReason::kPlaceTaken));
}

TEST_F(ExpectedRecordsTest, KnowsThatWhatHadNoRoomIsWrittenLate) {
  recordKept("in memory", 5);
  records_.writeLate(4, 8);
  records_.die(7, 7, true);
  EXPECT_EQ(records_.counts(kKind).recorded_least, 0U);
}

TEST_F(ExpectedRecordsTest, LetsAnotherPowerCutBringBackWhatAnEarlierOneTook) {
  records_.record(kKind, "cut off", 9);
  records_.die(9, 9, true);
  settleAt(0, 20);
  EXPECT_EQ(records_.counts(kKind).recorded_most, 0U);
  records_.die(30, 30, true);
  EXPECT_EQ(records_.counts(kKind).recorded_most, 1U);
  settleAt(0, 40);
  records_.die(kNever, kNever, false);
  EXPECT_EQ(records_.counts(kKind).recorded_most, 0U) << "a kill does not";
}

TEST_F(ExpectedRecordsTest, CountsAReportOnceItIsTakenIn) {
  constexpr RecordKind kReports = RecordKind::kCrashReports;
  const RecordNumber number = records_.record(kReports, "crash", 1);
  records_.waitOutsideTheStore(kReports, {"crash", "unheard of"});
  EXPECT_EQ(records_.counts(kReports).recorded_least, 0U);
  EXPECT_THAT(records_.lost(), IsEmpty());
  records_.die(0, 0, true);
  EXPECT_EQ(records_.counts(kReports).recorded_most, 0U) << "no death takes it";
  records_.setStored(kReports, {"crash"});
  records_.takeIn(number);
  EXPECT_EQ(records_.counts(kReports).recorded_least, 1U);
}

TEST(ThingNames, AreTheSameInTheStoreAndOnTheWire) {
  const kit::Value stored = kit::Dictionary{{"activityGroupName", "shop"}, {"activityName", "look-1"}};
  const kit::Value sent = kit::Dictionary{{"group", "shop"}, {"activity", "look-1"}, {"event_id", "id"}};
  EXPECT_EQ(nameOfStored(kKind, "", stored), "look-1");
  const auto carried = carriedBy(testing::ServiceEndpoint::kTracking,
                                 kit::Dictionary{{"activity_info", kit::Array{sent}},
                                                 {"impression_info", kit::Array{kit::Dictionary{{"space_key", "s"}}}}});
  ASSERT_EQ(carried.size(), 2U);
  EXPECT_EQ(carried[0].name, "look-1");
  EXPECT_EQ(carried[1].kind, RecordKind::kImpressions);
  const kit::Value own =
      kit::Dictionary{{"activityGroupName", "session"}, {"activityName", "start"}, {"activityEventID", "018f"}};
  EXPECT_EQ(nameOfStored(kKind, "", own), "018f");
  EXPECT_EQ(nameOfStored(RecordKind::kDemographics, "fendoUserDemoInfo_age", 17), "age=17");
  const kit::Value click = kit::Dictionary{{"deeplink_uri", "shop://offer?id=click-7&ck=5"}, {"conversion_key", 5}};
  EXPECT_EQ(nameOfStored(RecordKind::kReEngagementClicks, "", click), "click-7");
  EXPECT_EQ(carriedBy(testing::ServiceEndpoint::kReEngagement, kit::Dictionary{{"deeplink_info", click}})[0].key, 5);
}

}  // namespace
}  // namespace morvik::proofs
