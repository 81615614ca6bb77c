#include "runtime/ledger/ledger_reasons.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/document_block.h"

namespace morvik::runtime {
namespace {

LedgerKind kindAt(size_t kind) {
  return static_cast<LedgerKind>(kind);
}

TEST(LedgerReasons, StandByKindInOneTable) {
  LedgerKind last = LedgerKind::kActivities;
  for (const LedgerRule& rule : ledgerRules()) {
    EXPECT_GE(rule.kind, last);
    last = rule.kind;
  }
  EXPECT_EQ(last, LedgerKind::kDemographics);
}

TEST(LedgerReasons, HaveAKeyAndWordsOfTheirOwnWithinAKind) {
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    std::set<std::string> keys;
    std::set<std::string> words;
    std::set<LedgerReason> reasons;
    size_t count = 0;
    for (const LedgerRule& rule : ledgerRules()) {
      if (rule.kind != kindAt(kind))
        continue;
      ++count;
      keys.insert(rule.key);
      words.insert(rule.words);
      reasons.insert(rule.reason);
    }
    EXPECT_GT(count, 4U);
    EXPECT_EQ(keys.size(), count);
    EXPECT_EQ(words.size(), count);
    EXPECT_EQ(reasons.size(), count);
  }
}

TEST(LedgerReasons, AreRulesButForTwoThatNoKindLacks) {
  for (const LedgerRule& rule : ledgerRules()) {
    const bool is_fault = rule.reason == LedgerReason::kMissing || rule.reason == LedgerReason::kUnexplained;
    EXPECT_EQ(rule.by_rule, !is_fault) << rule.key;
  }
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    for (const LedgerReason reason :
         {LedgerReason::kProcessEnded, LedgerReason::kByHand, LedgerReason::kMissing, LedgerReason::kUnexplained}) {
      const LedgerRule& rule = ledgerRules()[ledgerRuleOf(kindAt(kind), reason)];
      EXPECT_EQ(rule.kind, kindAt(kind));
      EXPECT_EQ(rule.reason, reason);
    }
  }
}

TEST(LedgerReasons, ThatAKindDoesNotHaveAreUnexplained) {
  const LedgerRule& rule = ledgerRules()[ledgerRuleOf(LedgerKind::kCrashReports, LedgerReason::kSixthSessionEnd)];
  EXPECT_EQ(rule.kind, LedgerKind::kCrashReports);
  EXPECT_EQ(rule.reason, LedgerReason::kUnexplained);
}

TEST(LedgerReasons, StandAllInTheDocument) {
  std::string table = "| Records | Given up for this reason | By a rule |\n|---|---|---|\n";
  for (const LedgerRule& rule : ledgerRules()) {
    table += std::string("| ") + kLedgerKindNames[static_cast<size_t>(rule.kind)] + " | " + rule.words + " | " +
             (rule.by_rule ? "yes" : "no") + " |\n";
  }
  test::expectDocumentBlock("docs/guarantees.md", "reasons of the ledger", table);
}

// Stores of released versions contain them.
TEST(LedgerReasons, AreStoredUnderKeysThatNeverChange) {
  std::string all;
  size_t kind = kLedgerKinds;
  for (const LedgerRule& rule : ledgerRules()) {
    if (static_cast<size_t>(rule.kind) != kind) {
      kind = static_cast<size_t>(rule.kind);
      all += (all.empty() ? "" : "\n") + std::string(kLedgerKindNames[kind]) + ":";
    }
    all += std::string(" ") + rule.key;
  }
  EXPECT_EQ(all,
            "activities: keptSession placeTaken tooLarge processEnded byHand missing unexplained\n"
            "impressions: addedDuringUpload placeTaken processEnded byHand missing unexplained\n"
            "re-engagement clicks: notAccepted forgotten newerClick sameKey sessionEnded sixthSessionEnd "
            "otherKeyAccepted processEnded byHand missing unexplained\n"
            "commerce clicks: addedDuringUpload emptyAnswer processEnded byHand missing unexplained\n"
            "crash reports: addedDuringUpload emptyAnswer processEnded byHand missing unexplained\n"
            "demographics: replaced takenBack addedDuringUpload noIdentifier processEnded byHand missing unexplained");
}

}  // namespace
}  // namespace morvik::runtime
