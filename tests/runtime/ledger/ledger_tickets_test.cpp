#include "runtime/ledger/ledger_tickets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::LedgerAnswer;
using kit::LedgerTicket;
using kit::Value;
using Kind = LedgerKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Value activity(const char* id) {
  return Dictionary{{"activityEventID", id}};
}

Value click(int64_t key) {
  return Dictionary{{"conversion_key", key}};
}

LedgerTicketState batch(const Array& ids, const Array& impressions = {}) {
  return {.kind = Kind::kActivities,
          .records = CarriedRecords(Kind::kActivities, ids),
          .impressions = CarriedRecords(Kind::kImpressions, impressions)};
}

LedgerTicketState request(Kind kind, const Array& records) {
  return {.kind = kind, .records = CarriedRecords(kind, records)};
}

TEST(CarriedRecords, AreActivitiesByTheirIdsInAnyOrder) {
  CarriedRecords carried(Kind::kActivities, {"a", "b", "c"});
  EXPECT_EQ(carried.size(), 3U);
  for (const char* id : {"a", "b", "c", "a", "c", "b"})
    EXPECT_TRUE(carried.contains(activity(id))) << id;
  EXPECT_FALSE(carried.contains(activity("d")));
  EXPECT_FALSE(carried.contains(Value(7)));
}

TEST(CarriedRecords, AreClicksByWhatTheySay) {
  CarriedRecords carried(Kind::kReEngagementClicks, {click(5)});
  EXPECT_TRUE(carried.contains(click(5)));
  EXPECT_FALSE(carried.contains(click(6)));
}

TEST(CarriedRecords, AreOthersByBeingTheVerySame) {
  const Value first = Dictionary{{"spaceKey", "x"}};
  const Value second = Dictionary{{"spaceKey", "x"}};
  CarriedRecords carried(Kind::kImpressions, {first});
  EXPECT_TRUE(carried.contains(first));
  EXPECT_FALSE(carried.contains(second)) << "it says the same, and is another one";
  EXPECT_TRUE(carried.contains(first));
  EXPECT_FALSE(CarriedRecords().contains(first));
}

TEST(CarriedRecords, StayWhatTheyAreWhenTheyAreMoved) {
  CarriedRecords carried(Kind::kActivities, {"a", "b"});
  EXPECT_TRUE(carried.contains(activity("a")));
  CarriedRecords moved = std::move(carried);
  EXPECT_TRUE(moved.contains(activity("b")));
  EXPECT_TRUE(moved.contains(activity("a")));
}

TEST(LedgerTickets, SayWhichOfThoseWithoutAnAnswerCarryARecord) {
  LedgerTickets tickets;
  const LedgerTicket first = tickets.begin(batch({"a", "b"}));
  const LedgerTicket second = tickets.begin(batch({"b"}));
  tickets.begin(request(Kind::kCommerceClicks, {"b"}));
  EXPECT_THAT(tickets.carriers(Kind::kActivities, activity("b")), ElementsAre(first, second));
  EXPECT_THAT(tickets.carriers(Kind::kActivities, activity("a")), ElementsAre(first));
  EXPECT_THAT(tickets.carriers(Kind::kImpressions, activity("a")), IsEmpty());
  tickets.find(first)->answer = LedgerAnswer::kNotAccepted;
  EXPECT_THAT(tickets.carriers(Kind::kActivities, activity("b")), ElementsAre(second));
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kActivities, activity("b")), nullptr);
  tickets.end(second);
  EXPECT_THAT(tickets.carriers(Kind::kActivities, activity("b")), IsEmpty());
}

TEST(LedgerTickets, SayWhichAcceptedOneCarriesARecord) {
  LedgerTickets tickets;
  const Value impression = Dictionary{{"spaceKey", "x"}};
  const LedgerTicket accepted = tickets.begin(batch({"a"}, {impression}));
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kImpressions, impression), nullptr) << "there is no answer yet";
  tickets.find(accepted)->answer = LedgerAnswer::kAccepted;
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kImpressions, impression), tickets.find(accepted));
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kActivities, activity("a")), tickets.find(accepted));
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kActivities, activity("b")), nullptr);
  EXPECT_TRUE(tickets.end(accepted).has_value());
  EXPECT_EQ(tickets.acceptedCarrier(Kind::kActivities, activity("a")), nullptr);
  EXPECT_EQ(tickets.find(accepted), nullptr);
  EXPECT_FALSE(tickets.end(accepted).has_value());
}

TEST(LedgerTickets, KnowDemographicValuesByTheirVersions) {
  LedgerTickets tickets;
  LedgerTicketState state{.kind = Kind::kDemographics};
  state.values = {0, 7, 0};
  const LedgerTicket ticket = tickets.begin(std::move(state));
  EXPECT_THAT(tickets.carriersOfValue(1, 7), ElementsAre(ticket));
  EXPECT_THAT(tickets.carriersOfValue(1, 8), IsEmpty());
  EXPECT_THAT(tickets.carriersOfValue(0, 7), IsEmpty());
  EXPECT_EQ(tickets.acceptedCarrierOfValue(1, 7), nullptr);
  tickets.find(ticket)->answer = LedgerAnswer::kAcceptedNameless;
  EXPECT_EQ(tickets.acceptedCarrierOfValue(1, 7), tickets.find(ticket));
}

TEST(LedgerTickets, LetAStoredClickBeTheCopyOfOneRequestAlone) {
  LedgerTickets tickets;
  LedgerTicketState alone = request(Kind::kReEngagementClicks, {click(5)});
  alone.is_only_copy = true;
  tickets.begin(alone);
  tickets.begin(alone);
  EXPECT_FALSE(tickets.noteStoredClick(click(6)));
  EXPECT_TRUE(tickets.noteStoredClick(click(5)));
  EXPECT_TRUE(tickets.noteStoredClick(click(5)));
  EXPECT_FALSE(tickets.noteStoredClick(click(5)));
}

TEST(LedgerTickets, SayWhyWhatWasAcceptedCountsAsGivenUp) {
  LedgerTicketState state;
  EXPECT_FALSE(state.isAccepted());
  state.answer = LedgerAnswer::kNotAccepted;
  EXPECT_FALSE(state.isAccepted());
  state.answer = LedgerAnswer::kAccepted;
  EXPECT_TRUE(state.isAccepted());
  EXPECT_EQ(state.emptyAcceptance(), std::nullopt);
  state.answer = LedgerAnswer::kAcceptedEmpty;
  EXPECT_TRUE(state.isAccepted());
  EXPECT_EQ(state.emptyAcceptance(), LedgerReason::kEmptyAnswer);
  state.answer = LedgerAnswer::kAcceptedNameless;
  EXPECT_EQ(state.emptyAcceptance(), LedgerReason::kNoIdentifier);
}

}  // namespace
}  // namespace morvik::runtime
