#include "proofs/oracle/removal_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/ledger/ledger_reasons.h"

namespace morvik::proofs {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(RemovalRules, AreThoseOfTheLedgerInItsWordsAndOrder) {
  std::vector<std::string> of_the_ledger;
  for (const runtime::LedgerRule& rule : runtime::ledgerRules()) {
    if (rule.by_rule && rule.reason != runtime::LedgerReason::kByHand)
      of_the_ledger.push_back(std::string(runtime::kLedgerKindNames[runtime::indexOf(rule.kind)]) + ": " + rule.words);
  }
  std::vector<std::string> of_the_oracle;
  for (const RemovalRule& rule : removalRules())
    of_the_oracle.push_back(std::string(kRecordKindNames[indexOf(rule.kind)]) + ": " + rule.words);
  EXPECT_THAT(of_the_oracle, Not(IsEmpty()));
  EXPECT_THAT(of_the_oracle, ElementsAreArray(of_the_ledger));
}

TEST(RemovalRules, AreFoundByKindAndReason) {
  for (size_t row = 0; row < removalRules().size(); ++row)
    EXPECT_EQ(removalRuleOf(removalRules()[row].kind, removalRules()[row].reason), row);
  EXPECT_FALSE(removalRuleOf(RecordKind::kActivities, RemovalReason::kAddedDuringUpload).has_value());
}

}  // namespace
}  // namespace morvik::proofs
