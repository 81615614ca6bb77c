#include "proofs/oracle/invariants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace morvik::proofs {
namespace {

using ::morvik::testing::ServiceEndpoint;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Invariants : public ::testing::Test {
 protected:
  template <class Event>
  void tell(const Event& event) {
    for (const auto& invariant : invariants_)
      event(*invariant);
  }
  void begin() {
    tell([](Invariant& invariant) { invariant.processBegins(); });
  }
  void start(ServiceEndpoint endpoint) {
    RunExchange exchange;
    exchange.endpoint = endpoint;
    exchange.url = "https://service.example/";
    tell([&](Invariant& invariant) { invariant.requestStarts(exchange); });
  }
  void leave(ServiceEndpoint endpoint) {
    RunExchange exchange;
    exchange.endpoint = endpoint;
    exchange.url = "https://service.example/";
    tell([&](Invariant& invariant) { invariant.requestLeaves(exchange); });
  }
  void end(ServiceEndpoint endpoint, const std::optional<kit::Value>& answer) {
    RunExchange exchange;
    exchange.endpoint = endpoint;
    tell([&](Invariant& invariant) { invariant.exchangeEnds(exchange, answer); });
  }
  /// In the handler of a conversion, or, for a re-fetch, in no handler.
  void putOff(bool is_retry) {
    facts_.handling = 0;
    if (is_retry) {
      facts_.handling = 1;
      facts_.exchanges[1].endpoint = ServiceEndpoint::kConversion;
    }
    tell([](Invariant& invariant) { invariant.blockPostponed(10); });
  }
  void set(const char* key, const kit::Value& value) {
    tell([&](Invariant& invariant) { invariant.valueSet(key, value); });
  }
  void endStep() {
    tell([](Invariant& invariant) { invariant.stepEnds(); });
  }
  /// Names of those that complained since the last call.
  std::vector<std::string> complaints() { return std::exchange(complaints_, {}); }

  RunFacts facts_;
  std::vector<std::string> complaints_;
  const std::vector<std::unique_ptr<Invariant>> invariants_ = makeInvariants(
      facts_, [this](const char* invariant, const std::string&) { complaints_.emplace_back(invariant); });
};

TEST_F(Invariants, LetOneBatchLeaveForEachTimeTheSlotIsFreed) {
  begin();
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), IsEmpty());
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), ElementsAre(kOneBatchPerSlot));
  end(ServiceEndpoint::kTracking, std::nullopt);
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), IsEmpty()) << "its answer frees it";
  tell([](Invariant& invariant) { invariant.sessionRequested(); });
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), IsEmpty()) << "so does a session's start";
  tell([](Invariant& invariant) { invariant.loopIdle(); });
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), ElementsAre(kOneBatchPerSlot)) << "once";
}

TEST_F(Invariants, LetNothingButTheErasureOfTheForgottenLeave) {
  facts_.is_forgotten = true;
  start(ServiceEndpoint::kErasure);
  EXPECT_THAT(complaints(), IsEmpty());
  start(ServiceEndpoint::kSchedule);
  EXPECT_THAT(complaints(), ElementsAre(kForgottenIsSilent));
  facts_.is_forgotten = false;
  facts_.wants_to_be_forgotten = true;
  start(ServiceEndpoint::kSchedule);
  EXPECT_THAT(complaints(), ElementsAre(kForgottenIsSilent)) << "whatever the process says";
  facts_.knows_its_store = false;
  start(ServiceEndpoint::kSchedule);
  EXPECT_THAT(complaints(), IsEmpty()) << "it cannot know";
}

TEST_F(Invariants, LetNothingLeaveThatStartedBeforeTheUserAskedToBeForgotten) {
  start(ServiceEndpoint::kReEngagement);
  facts_.wants_to_be_forgotten = true;
  EXPECT_THAT(complaints(), IsEmpty());
  leave(ServiceEndpoint::kErasure);
  EXPECT_THAT(complaints(), IsEmpty());
  leave(ServiceEndpoint::kReEngagement);
  EXPECT_THAT(complaints(), ElementsAre(kForgottenIsSilent));
}

TEST_F(Invariants, AllowNineRetriesAndOneRefetchBetweenTwoSuccesses) {
  begin();
  for (uint64_t retry = 0; retry < kMaxRetries; ++retry)
    putOff(true);
  putOff(false);
  EXPECT_THAT(complaints(), IsEmpty());
  putOff(true);
  putOff(false);
  EXPECT_THAT(complaints(), ElementsAre(kRetriesInBounds, kRetriesInBounds));
  end(ServiceEndpoint::kConversion, kit::Value(kit::Dictionary{}));
  putOff(true);
  putOff(false);
  EXPECT_THAT(complaints(), IsEmpty()) << "a success starts again from zero";
  end(ServiceEndpoint::kConversion, std::nullopt);
  putOff(false);
  EXPECT_THAT(complaints(), ElementsAre(kRetriesInBounds)) << "a failure does not";
}

TEST_F(Invariants, KnowTheBoundsOfClicksAndTheirCounts) {
  const auto counted = [](int64_t failures) {
    return kit::Value(kit::Array{kit::Dictionary{{"conversion_key", 5}, {"failure_cnt", failures}}});
  };
  set("reEngagementConversionFailedCnt", counted(1));
  set("reEngagementConversionFailedCnt", counted(6));
  set("reEngagementInfos", kit::Array{kit::Dictionary{{"conversion_key", 5}}, kit::Dictionary{{"conversion_key", 6}}});
  EXPECT_THAT(complaints(), IsEmpty());
  set("reEngagementConversionFailedCnt", counted(0));
  set("reEngagementConversionFailedCnt", counted(7));
  EXPECT_THAT(complaints(), ElementsAre(kCountsInBounds, kCountsInBounds));
  set("reEngagementInfos", kit::Array{kit::Dictionary{{"conversion_key", 5}}, kit::Dictionary{{"conversion_key", 5}}});
  EXPECT_THAT(complaints(), ElementsAre(kOneClickPerKey));
}

TEST_F(Invariants, WaitForAnAnswerAsLongAsItsRequestDoes) {
  facts_.exchanges[1] = {.url = "https://service.example/", .started_at = 100, .left_at = 100, .timeout_seconds = 60};
  facts_.now = 160;
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
  facts_.now = 162;
  endStep();
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kRequestsReturn)) << "once";
}

TEST_F(Invariants, HoldTheLedgerAgainstWhatWasSeen) {
  facts_.is_alive = true;
  facts_.ledger = Ledger{};
  for (const char* const kind : kRecordKindNames)
    facts_.ledger->accounts.push_back({.kind = kind});
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
  Ledger::Account& activities = facts_.ledger->accounts[0];
  activities.recorded = activities.delivered = 1;
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kLedgerAgrees, kLedgerAgrees)) << "nothing was recorded, and nothing arrived";
  const RecordNumber look = facts_.records.record(RecordKind::kActivities, "look", 1);
  facts_.records.arrives(look);
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
  activities.delivered = 0;
  activities.under_way = 1;
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kLedgerAgrees)) << "no request carries it";
  activities.under_way = 0;
  activities.given_up = {{.reason = "the \"end\" of a session that went on within a minute", .count = 1}};
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kLedgerAgrees)) << "nothing gave occasion for that";
  activities.given_up = {{.reason = "bad luck", .count = 1}};
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kLedgerIsSound)) << "that is no rule";
}

TEST_F(Invariants, MissWhatIsGoneAndWhatStaysBehind) {
  facts_.is_alive = true;
  const RecordNumber look = facts_.records.record(RecordKind::kActivities, "look", 1);
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kNothingIsLost));
  facts_.records.setStored(RecordKind::kActivities, {"look"});
  facts_.is_all_well = true;
  endStep();
  EXPECT_THAT(complaints(), IsEmpty()) << "one may be the end of the last session";
  facts_.records.record(RecordKind::kActivities, "another", 1);
  facts_.records.setStored(RecordKind::kActivities, {"look", "another"});
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kAllGoesOut));
  facts_.records.trim(look, 1);
  RunExchange again;
  again.endpoint = ServiceEndpoint::kTracking;
  again.records = {look};
  tell([&](Invariant& invariant) { invariant.requestStarts(again); });
  EXPECT_THAT(complaints(), ElementsAre(kSentOnce));
}

TEST_F(Invariants, KnowAWishFromItsFileWhereTheStoreCannotBeRead) {
  facts_.is_alive = true;
  facts_.wants_to_be_forgotten = true;
  facts_.knows_its_store = false;
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
  facts_.wish_is_in_its_file = true;
  endStep();
  start(ServiceEndpoint::kTracking);
  EXPECT_THAT(complaints(), ElementsAre(kWishesAreKept, kForgottenIsSilent));
}

TEST_F(Invariants, KnowAWithdrawalOnceItIsKept) {
  facts_.is_alive = true;
  facts_.is_forgotten = true;
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
  facts_.has_withdrawn = true;
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kWishesAreKept));
  facts_.is_forgotten = false;
  endStep();
  EXPECT_THAT(complaints(), IsEmpty());
}

TEST_F(Invariants, KnowWhatTheAppMustBeToldAndWhatMustStay) {
  tell([](Invariant& invariant) { invariant.answered(Recorded::kRefusedTooLarge, Recorded::kRefusedTooLarge); });
  tell([](Invariant& invariant) { invariant.storeFileChanges("/disk/morvik.store"); });
  EXPECT_THAT(complaints(), IsEmpty());
  tell([](Invariant& invariant) { invariant.answered(Recorded::kKept, Recorded::kKeptInMemory); });
  EXPECT_THAT(complaints(), ElementsAre(kAnswersAreTrue));
  facts_.is_next_to_newer = true;
  tell([](Invariant& invariant) { invariant.storeFileChanges("/disk/morvik.store"); });
  EXPECT_THAT(complaints(), ElementsAre(kNewerStoreStays));
}

TEST_F(Invariants, KnowTheWishTheDeviceAndTheLog) {
  facts_.is_alive = true;
  facts_.wants_to_be_forgotten = true;
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kWishesAreKept));
  facts_.is_forgotten = true;
  facts_.installs = 2;
  endStep();
  EXPECT_THAT(complaints(), ElementsAre(kOneDevice));
  tell([](Invariant& invariant) { invariant.lineLogged("no text of the kit's"); });
  EXPECT_THAT(complaints(), ElementsAre(kLinesAreKnown));
}

}  // namespace
}  // namespace morvik::proofs
