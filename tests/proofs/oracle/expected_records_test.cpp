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

class ThingBookTest : public ::testing::Test {
 protected:
  RecordNumber recordKept(const char* name, double when) {
    const RecordNumber number = book_.record(kKind, name, when);
    book_.isKept(number, when);
    return number;
  }
  void settleAt(uint64_t recorded, double now) {
    std::array<uint64_t, kRecordKinds> all{};
    all[static_cast<size_t>(kKind)] = recorded;
    book_.settle(all, now);
  }

  ExpectedRecords book_;
};

TEST(MayGo, TellsWhetherAKindHasARuleWithThisReason) {
  EXPECT_TRUE(mayGo(RecordKind::kImpressions, RemovalReason::kAddedDuringUpload));
  EXPECT_FALSE(mayGo(RecordKind::kActivities, RemovalReason::kAddedDuringUpload)) << "the table has no such row";
}

TEST(ThingsAreSent, EachToTheEndpointOfItsKind) {
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

TEST_F(ThingBookTest, LosesWhatIsNeitherStoredNorUnderWayNorArrived) {
  const RecordNumber stored = recordKept("stored", 1);
  const RecordNumber under_way = recordKept("under way", 1);
  const RecordNumber arrived = recordKept("arrived", 1);
  const RecordNumber gone = recordKept("gone", 1);
  EXPECT_THAT(book_.storedAre(kKind, {"stored"}).unknown, IsEmpty());
  book_[under_way].under_way = 1;
  book_.arrives(arrived);
  EXPECT_THAT(book_.lost(), ElementsAre(gone));
  EXPECT_EQ(book_.counts(kKind).gone, 1U);
  EXPECT_EQ(book_.counts(kKind).stored, 1U);
  EXPECT_TRUE(book_[stored].is_stored);
  book_.permit(gone, RemovalReason::kKeptSession);
  EXPECT_THAT(book_.lost(), IsEmpty()) << "a rule may have let it go";
  EXPECT_EQ(book_.permitted(kKind, RemovalReason::kKeptSession), 1U);
  EXPECT_EQ(book_.permitted(kKind, RemovalReason::kPlaceTaken), 0U);
}

TEST_F(ThingBookTest, LetsWhatCameBackGoAsOftenAsItWasThere) {
  const RecordNumber number = recordKept("one", 1);
  book_.permit(number, RemovalReason::kKeptSession);
  book_.storedAre(kKind, {"one"});
  book_.storedAre(kKind, {"one"});
  EXPECT_EQ(book_.permitted(kKind, RemovalReason::kKeptSession), 1U);
  book_.storedAre(kKind, {});
  book_.storedAre(kKind, {"one"});
  EXPECT_EQ(book_.permitted(kKind, RemovalReason::kKeptSession), 2U);
}

TEST_F(ThingBookTest, TellsWhatNobodyRecordedAndWhatStandsThereTwice) {
  recordKept("one", 1);
  const ExpectedRecords::Strangers strangers = book_.storedAre(kKind, {"one", "strange", "one"});
  EXPECT_THAT(strangers.unknown, ElementsAre("strange"));
  EXPECT_THAT(strangers.doubled, ElementsAre("one"));
}

TEST_F(ThingBookTest, DoubtsAfterADeathWhatWasNotKeptLongEnough) {
  recordKept("old", 1);
  recordKept("late", 9.5);
  book_.record(kKind, "never committed", 9.9);
  book_.diesWith(9, true);
  EXPECT_EQ(book_.counts(kKind).recorded_least, 1U);
  EXPECT_EQ(book_.counts(kKind).recorded_most, 3U);
  EXPECT_THAT(book_.storedAre(kKind, {"old", "late"}).unknown, IsEmpty());
  EXPECT_THAT(book_.lost(), IsEmpty());
  settleAt(2, 20);
  EXPECT_EQ(book_.counts(kKind).recorded_least, 2U);
  EXPECT_EQ(book_.counts(kKind).recorded_most, 2U);
  EXPECT_THAT(book_.lost(), IsEmpty()) << "it is undone";
  EXPECT_THAT(book_.storedAre(kKind, {"old"}).unknown, IsEmpty());
  EXPECT_THAT(book_.lost(), ElementsAre(1U)) << "it had outlived the death";
}

TEST_F(ThingBookTest, HoldsAKillToWhatWasCommitted) {
  recordKept("just committed", 9.99);
  book_.diesWith(kNever, false);
  EXPECT_EQ(book_.counts(kKind).recorded_least, 1U);
  book_.storedAre(kKind, {});
  EXPECT_THAT(book_.lost(), ElementsAre(0U));
}

TEST_F(ThingBookTest, KnowsThatWhatHadNoRoomIsWrittenLate) {
  recordKept("in memory", 5);
  book_.isWrittenLate(4, 8);
  book_.diesWith(7, true);
  EXPECT_EQ(book_.counts(kKind).recorded_least, 0U);
}

TEST_F(ThingBookTest, LetsAnotherPowerCutBringBackWhatAnEarlierOneTook) {
  book_.record(kKind, "cut off", 9);
  book_.diesWith(9, true);
  settleAt(0, 20);
  EXPECT_EQ(book_.counts(kKind).recorded_most, 0U);
  book_.diesWith(30, true);
  EXPECT_EQ(book_.counts(kKind).recorded_most, 1U);
  settleAt(0, 40);
  book_.diesWith(kNever, false);
  EXPECT_EQ(book_.counts(kKind).recorded_most, 0U) << "a kill does not";
}

TEST_F(ThingBookTest, CountsAReportOnceItIsTakenIn) {
  constexpr RecordKind kReports = RecordKind::kCrashReports;
  const RecordNumber number = book_.record(kReports, "crash", 1);
  book_.waitBesideTheStore(kReports, {"crash", "unheard of"});
  EXPECT_EQ(book_.counts(kReports).recorded_least, 0U);
  EXPECT_THAT(book_.lost(), IsEmpty());
  book_.diesWith(0, true);
  EXPECT_EQ(book_.counts(kReports).recorded_most, 0U) << "no death takes it";
  book_.storedAre(kReports, {"crash"});
  book_.isTakenIn(number);
  EXPECT_EQ(book_.counts(kReports).recorded_least, 1U);
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
