#include "runtime/ledger/ledger_accounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

namespace morvik::runtime {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using Kind = LedgerKind;
using Reason = LedgerReason;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

LedgerCounts stored(Kind kind, uint64_t count) {
  LedgerCounts counts{};
  counts[static_cast<size_t>(kind)] = count;
  return counts;
}

std::map<std::string, uint64_t> givenUp(const Ledger::Account& account) {
  std::map<std::string, uint64_t> reasons;
  for (const Ledger::GivenUp& each : account.given_up)
    reasons[each.reason] = each.count;
  return reasons;
}

Ledger::Account accountOf(const LedgerAccounts& accounts, Kind kind, uint64_t stored_now = 0) {
  return accounts.toLedger(stored(kind, stored_now)).accounts.at(static_cast<size_t>(kind));
}

/// A different number for each count.
LedgerAccounts various() {
  LedgerAccounts accounts;
  accounts.record(Kind::kActivities, 100);
  accounts.deliver(Kind::kActivities, 60);
  accounts.giveUp(Kind::kActivities, Reason::kKeptSession, 3);
  accounts.giveUp(Kind::kActivities, Reason::kPlaceTaken, 2);
  accounts.beginUnderWay(Kind::kActivities, 5);
  accounts.record(Kind::kReEngagementClicks, 4);
  accounts.giveUp(Kind::kReEngagementClicks, Reason::kSameKey, 4);
  accounts.record(Kind::kDemographics, 1);
  return accounts;
}

TEST(LedgerAccounts, AreReadAsTheyWereWritten) {
  LedgerAccounts accounts = various();
  const Value written = accounts.write({.activities = 30});
  LedgerAccounts read(written, {.activities = 30});
  EXPECT_EQ(read.write({.activities = 30}), written);
  const Ledger::Account activities = accountOf(read, Kind::kActivities, 30);
  EXPECT_EQ(activities.recorded, 100U);
  EXPECT_EQ(activities.delivered, 60U);
  EXPECT_EQ(activities.under_way, 5U);
  EXPECT_EQ(activities.givenUp(), 5U);
  EXPECT_TRUE(activities.balances());
  EXPECT_TRUE(activities.isSound());
}

// Stores of released versions contain it.
TEST(LedgerAccounts, AreWrittenInAFormThatNeverChanges) {
  LedgerAccounts accounts = various();
  EXPECT_EQ(accounts.write({.activities = 30}),
            Value(Dictionary{
                {"activities", Dictionary{{"recorded", 100},
                                          {"stored", 30},
                                          {"delivered", 60},
                                          {"under_way", 5},
                                          {"given_up", Dictionary{{"keptSession", 3}, {"placeTaken", 2}}}}},
                {"impressions", Dictionary{{"stored", 0}}},
                {"re-engagement clicks", Dictionary{{"recorded", 4}, {"given_up", Dictionary{{"sameKey", 4}}}}},
                {"commerce clicks", Dictionary()},
                {"crash reports", Dictionary()},
                {"demographics", Dictionary{{"recorded", 1}}},
            }));
}

TEST(LedgerAccounts, AddTheActivitiesThatTheListGrewByAfterTheyWereWritten) {
  LedgerAccounts accounts = various();
  const LedgerAccounts read(accounts.write({.activities = 30}), {.activities = 37});
  EXPECT_EQ(accountOf(read, Kind::kActivities, 37).recorded, 107U);
  EXPECT_TRUE(accountOf(read, Kind::kActivities, 37).balances());
  EXPECT_FALSE(read.isChanged()) << "the next start would find it again";
}

TEST(LedgerAccounts, AreChangedByAllButWhatTheNextStartFindsByItself) {
  LedgerAccounts accounts;
  EXPECT_FALSE(accounts.isChanged());
  accounts.recordUnwritten(Kind::kActivities, 1);
  accounts.deliver(Kind::kActivities, 0);
  accounts.giveUp(Kind::kActivities, Reason::kByHand, 0);
  EXPECT_FALSE(accounts.isChanged());
  accounts.deliver(Kind::kActivities, 1);
  EXPECT_TRUE(accounts.isChanged());
  accounts.write({.activities = 0});
  EXPECT_FALSE(accounts.isChanged());
  accounts.giveUp(Kind::kActivities, Reason::kByHand, 1);
  EXPECT_TRUE(accounts.isChanged());
}

TEST(LedgerAccounts, ReadAsNoneFromAnythingElse) {
  for (const Value& garbage : {Value(), Value::null(), Value(7), Value("accounts"), Value(Array{1, 2}),
                               Value(Dictionary{{"activities", "many"}}), Value(Dictionary{{"activities", Array{1}}}),
                               Value(Dictionary{{"activities", Dictionary{{"recorded", "ten"}, {"given_up", 4}}}})}) {
    const LedgerAccounts read(garbage, {});
    for (const Ledger::Account& account : read.toLedger({}).accounts) {
      EXPECT_EQ(account.recorded, 0U);
      EXPECT_THAT(account.given_up, IsEmpty());
      EXPECT_TRUE(account.balances());
    }
  }
}

TEST(LedgerAccounts, TakeNoCountThatIsNone) {
  const Value garbage =
      Dictionary{{"impressions", Dictionary{{"recorded", -5},
                                            {"delivered", 2.5},
                                            {"under_way", INT64_MAX},
                                            {"given_up", Dictionary{{"byHand", INT64_MAX}, {"no such reason", 9}}}}}};
  const Ledger::Account read = accountOf(LedgerAccounts(garbage, {}), Kind::kImpressions);
  EXPECT_EQ(read.recorded, 0U);
  EXPECT_EQ(read.delivered, 0U);
  EXPECT_EQ(read.under_way, kMaxLedgerCount);
  EXPECT_THAT(givenUp(read), ElementsAre(Pair("written over by hand", kMaxLedgerCount)));
}

TEST(LedgerAccounts, StandInTheOrderOfTheKindsWithTheReasonsThatOccurred) {
  const Ledger ledger = various().toLedger({});
  std::vector<std::string> kinds;
  for (const Ledger::Account& account : ledger.accounts)
    kinds.push_back(account.kind);
  EXPECT_THAT(kinds, ElementsAre("activities", "impressions", "re-engagement clicks", "commerce clicks",
                                 "crash reports", "demographics"));
  EXPECT_THAT(givenUp(ledger.of("activities")),
              ElementsAre(Pair("deleted by the answer to another batch, and their own was not accepted", 2U),
                          Pair("the \"end\" of a session that went on within a minute", 3U)));
}

// --------------------------------------------------------------------------------------------- a process after another

LedgerAccounts inLine(LedgerAccounts accounts, const LedgerAccounts::Found& found) {
  accounts.bringInLineWith(found);
  return accounts;
}

TEST(LedgerAccountsInLine, GiveUpWhatWasUnderWay) {
  const LedgerAccounts accounts = inLine(various(), {.stored = stored(Kind::kActivities, 30)});
  const Ledger::Account activities = accountOf(accounts, Kind::kActivities, 30);
  EXPECT_EQ(activities.under_way, 0U);
  EXPECT_EQ(givenUp(activities)["in a request alone when the process ended"], 5U);
  EXPECT_TRUE(activities.isSound());
}

TEST(LedgerAccountsInLine, SayWhatIsMissing) {
  const LedgerAccounts accounts = inLine(various(), {.stored = stored(Kind::kActivities, 28)});
  const Ledger::Account activities = accountOf(accounts, Kind::kActivities, 28);
  EXPECT_EQ(givenUp(activities)["no longer in the store when it was opened"], 2U);
  EXPECT_TRUE(activities.balances());
  EXPECT_FALSE(activities.isSound());
}

TEST(LedgerAccountsInLine, SayWhatIsThereUncounted) {
  const LedgerAccounts accounts = inLine(various(), {.stored = stored(Kind::kImpressions, 3)});
  const Ledger::Account impressions = accountOf(accounts, Kind::kImpressions, 3);
  EXPECT_EQ(impressions.recorded, 3U);
  EXPECT_EQ(impressions.found_uncounted, 3U);
  EXPECT_TRUE(impressions.balances());
  EXPECT_FALSE(impressions.isSound());
}

TEST(LedgerAccountsInLine, TakeOverWhatAnOlderVersionStored) {
  const LedgerAccounts accounts = inLine({}, {.stored = stored(Kind::kImpressions, 3), .is_first = true});
  EXPECT_EQ(accountOf(accounts, Kind::kImpressions, 3).recorded, 3U);
  EXPECT_TRUE(accountOf(accounts, Kind::kImpressions, 3).isSound());
}

TEST(LedgerAccountsInLine, TakeOverTheReportsOfADyingProcess) {
  const LedgerAccounts accounts = inLine({}, {.stored = stored(Kind::kCrashReports, 2)});
  EXPECT_EQ(accountOf(accounts, Kind::kCrashReports, 2).recorded, 2U);
  EXPECT_TRUE(accountOf(accounts, Kind::kCrashReports, 2).isSound());
}

TEST(LedgerAccountsInLine, TakeAMissingDemographicValueForReplacedOnlyWhereAnotherWasSet) {
  LedgerAccounts two_values;
  two_values.record(Kind::kDemographics, 2);
  const LedgerAccounts accounts = inLine(two_values, {.demographics_set_since = 1});
  EXPECT_THAT(givenUp(accountOf(accounts, Kind::kDemographics)),
              ElementsAre(Pair("no longer in the store when it was opened", 1U),
                          Pair("replaced by a newer value before they were delivered", 1U)));
}

TEST(LedgerAccountsInLine, BalanceEvenWhenMoreWentThanWasEverRecorded) {
  const Value garbage = Dictionary{
      {"activities", Dictionary{{"recorded", 3}, {"delivered", 10}, {"under_way", 2}}},
      {"impressions", Dictionary{{"delivered", INT64_MAX}, {"given_up", Dictionary{{"byHand", INT64_MAX}}}}}};
  const LedgerAccounts accounts = inLine(LedgerAccounts(garbage, {}), {});
  const Ledger::Account activities = accountOf(accounts, Kind::kActivities);
  EXPECT_TRUE(activities.balances());
  EXPECT_EQ(activities.found_uncounted, 9U);
  EXPECT_TRUE(accountOf(accounts, Kind::kImpressions).balances());
  EXPECT_FALSE(accounts.toLedger({}).isSound());
}

TEST(LedgerAccountsInLine, AddTheCountsOfAnotherPart) {
  LedgerAccounts accounts = various();
  accounts.write({.activities = 30});
  accounts.add(various());
  const Ledger::Account activities = accountOf(accounts, Kind::kActivities, 60);
  EXPECT_EQ(activities.recorded, 200U);
  EXPECT_EQ(activities.delivered, 120U);
  EXPECT_EQ(activities.under_way, 10U);
  EXPECT_EQ(activities.givenUp(), 10U);
  EXPECT_TRUE(activities.balances());
  EXPECT_TRUE(accounts.isChanged());
}

}  // namespace
}  // namespace morvik::runtime
